#pragma once

#include "core/backend/CurlShare.h"
#include "core/backend/HTTPClient.h"

#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

namespace kavelo {

// The live HTTPClient, over libcurl easy handles. TLS peers are always verified against the system's
// certificate store; there is no switch to turn that off.
//
// Connections are kept alive between calls: each call borrows an easy handle from a small pool and gives it
// back, and a handle keeps its open connections, so a run of uploads to one host reuses one connection
// instead of paying a TCP (and TLS) handshake per chunk. DNS answers and TLS sessions are shared by all
// handles.
//
// The request's timeout bounds the whole transfer. A call is cancelled when the Task that runs it is
// cancelled; curl notices within about a second. Failures without an answer throw TransportError with kind
// timeout, cancelled or other.
//
// Thread-safety: send may be called from any number of threads at once; the pool is guarded by mutex_.
class CurlHTTPClient final : public HTTPClient {
  public:
    struct Options {
        std::size_t maxIdleHandles = 8;
        // A larger answer is refused (as a transport failure) rather than held in memory.
        std::size_t maxResponseBytes = 64 * 1024 * 1024;
    };

    CurlHTTPClient() : CurlHTTPClient(Options{}) {}
    explicit CurlHTTPClient(Options options);
    ~CurlHTTPClient() override;
    CurlHTTPClient(const CurlHTTPClient&) = delete;
    CurlHTTPClient& operator=(const CurlHTTPClient&) = delete;

    HTTPResponse send(const HTTPRequest& request) override;

  private:
    CURL* acquire();
    void release(CURL* handle);

    const Options options_;
    CurlShare share_; // outlives every handle: the pool is emptied in the destructor's body
    std::mutex mutex_;
    std::vector<CURL*> idle_; // guarded by mutex_
};

} // namespace kavelo
