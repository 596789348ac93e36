#pragma once

#include "core/backend/HTTPClient.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kavelo {

// An HTTPClient with scripted answers, for unit tests of anything that talks HTTP.
//
// A rule matches a request by method (empty = any) and a piece of its URL (empty = any). One-shot
// answers are used first, in the order they were added; then the most recently added standing rule
// answers. A request that nothing matches gets 404. Every request is recorded before it is answered.
//
// hold(true) parks every new request after recording it until the test releases it; with that a test sees
// which requests are in flight at once. Waits are rendezvous with a real-time limit, never delays.
class FakeHTTPClient final : public HTTPClient {
  public:
    using Handler = std::function<HTTPResponse(const HTTPRequest&)>;

    HTTPResponse send(const HTTPRequest& request) override;

    // Standing answers.
    void respond(const std::string& method, const std::string& urlPart, int status, Bytes body = {});
    void respondWith(const std::string& method, const std::string& urlPart, Handler handler);
    void failWith(const std::string& method, const std::string& urlPart, TransportError error);
    // One-shot answers, each used by exactly one request.
    void respondOnce(const std::string& method, const std::string& urlPart, int status, Bytes body = {});
    void failOnce(const std::string& method, const std::string& urlPart, TransportError error);

    [[nodiscard]] std::vector<HTTPRequest> requests() const;
    [[nodiscard]] std::vector<HTTPRequest> requestsMatching(const std::string& method,
                                                            const std::string& urlPart) const;
    [[nodiscard]] std::size_t count(const std::string& method, const std::string& urlPart) const;

    void hold(bool on);
    // Blocks until at least n requests are parked (false when the limit passes first).
    bool waitForHeld(std::size_t n, std::chrono::milliseconds limit = std::chrono::seconds(10));
    // The parked requests, oldest first.
    [[nodiscard]] std::vector<HTTPRequest> held() const;
    // Lets the oldest parked request go on to its answer. False when none is parked.
    bool releaseOldest();
    // Lets the parked request whose URL contains urlPart go on. False when none matches.
    bool release(const std::string& urlPart);

  private:
    struct Rule {
        std::string method;
        std::string urlPart;
        Handler handler;
        bool once = false;
        bool used = false;
    };
    struct Parked {
        std::size_t ticket;
        HTTPRequest request;
    };
    static bool matches(const Rule& rule, const HTTPRequest& request);
    static bool matches(const std::string& method, const std::string& urlPart, const HTTPRequest& request);
    void add(const std::string& method, const std::string& urlPart, Handler handler, bool once);

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Rule> rules_;           // guarded by mutex_
    std::vector<HTTPRequest> requests_; // guarded by mutex_
    std::vector<Parked> parked_;        // guarded by mutex_
    std::size_t nextTicket_ = 0;        // guarded by mutex_
    bool holding_ = false;              // guarded by mutex_
};

} // namespace kavelo
