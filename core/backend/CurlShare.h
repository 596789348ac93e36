#pragma once

#include <curl/curl.h>

#include <array>
#include <mutex>

namespace kavelo {

// A curl share handle for the DNS cache and TLS sessions, so that a new connection to a known host skips the
// lookup and resumes its TLS session. curl asks for one lock per kind of shared data and may hold two kinds
// at once, hence a mutex per kind rather than one for all.
class CurlShare {
  public:
    CurlShare();
    ~CurlShare();
    CurlShare(const CurlShare&) = delete;
    CurlShare& operator=(const CurlShare&) = delete;

    [[nodiscard]] CURLSH* handle() const { return share_; }

  private:
    static void lock(CURL* handle, curl_lock_data data, curl_lock_access access, void* self);
    static void unlock(CURL* handle, curl_lock_data data, void* self);

    CURLSH* share_ = nullptr;
    std::array<std::mutex, CURL_LOCK_DATA_LAST> locks_; // one per curl_lock_data, taken only by curl
};

} // namespace kavelo
