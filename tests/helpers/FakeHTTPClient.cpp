#include "helpers/FakeHTTPClient.h"

#include <algorithm>

namespace kavelo {

HTTPResponse FakeHTTPClient::send(const HTTPRequest& request) {
    Handler handler;
    {
        std::unique_lock lock(mutex_);
        requests_.push_back(request);
        if (holding_) {
            auto ticket = nextTicket_++;
            parked_.push_back({ticket, request});
            changed_.notify_all();
            changed_.wait(lock, [&] {
                return std::none_of(parked_.begin(), parked_.end(),
                                    [&](const Parked& p) { return p.ticket == ticket; });
            });
        }
        // The answer is chosen after the release, so a test may script it while the request waits.
        auto once = std::find_if(rules_.begin(), rules_.end(),
                                 [&](const Rule& r) { return r.once && !r.used && matches(r, request); });
        if (once != rules_.end()) {
            once->used = true;
            handler = once->handler;
        } else {
            auto standing = std::find_if(rules_.rbegin(), rules_.rend(),
                                         [&](const Rule& r) { return !r.once && matches(r, request); });
            if (standing != rules_.rend()) {
                handler = standing->handler;
            }
        }
    }
    if (!handler) {
        return HTTPResponse{404, {}};
    }
    return handler(request);
}

void FakeHTTPClient::add(const std::string& method, const std::string& urlPart, Handler handler, bool once) {
    std::lock_guard lock(mutex_);
    rules_.push_back(Rule{method, urlPart, std::move(handler), once, false});
}

void FakeHTTPClient::respond(const std::string& method, const std::string& urlPart, int status, Bytes body) {
    add(
        method, urlPart,
        [status, body](const HTTPRequest&) {
            return HTTPResponse{status, body};
        },
        false);
}

void FakeHTTPClient::respondWith(const std::string& method, const std::string& urlPart, Handler handler) {
    add(method, urlPart, std::move(handler), false);
}

void FakeHTTPClient::failWith(const std::string& method, const std::string& urlPart, TransportError error) {
    add(
        method, urlPart, [error](const HTTPRequest&) -> HTTPResponse { throw error; }, false);
}

void FakeHTTPClient::respondOnce(const std::string& method, const std::string& urlPart, int status,
                                 Bytes body) {
    add(
        method, urlPart,
        [status, body](const HTTPRequest&) {
            return HTTPResponse{status, body};
        },
        true);
}

void FakeHTTPClient::failOnce(const std::string& method, const std::string& urlPart, TransportError error) {
    add(
        method, urlPart, [error](const HTTPRequest&) -> HTTPResponse { throw error; }, true);
}

bool FakeHTTPClient::matches(const std::string& method, const std::string& urlPart,
                             const HTTPRequest& request) {
    return (method.empty() || method == request.method) &&
           (urlPart.empty() || request.url.find(urlPart) != std::string::npos);
}

bool FakeHTTPClient::matches(const Rule& rule, const HTTPRequest& request) {
    return matches(rule.method, rule.urlPart, request);
}

std::vector<HTTPRequest> FakeHTTPClient::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

std::vector<HTTPRequest> FakeHTTPClient::requestsMatching(const std::string& method,
                                                          const std::string& urlPart) const {
    std::lock_guard lock(mutex_);
    std::vector<HTTPRequest> out;
    std::copy_if(requests_.begin(), requests_.end(), std::back_inserter(out),
                 [&](const HTTPRequest& r) { return matches(method, urlPart, r); });
    return out;
}

std::size_t FakeHTTPClient::count(const std::string& method, const std::string& urlPart) const {
    return requestsMatching(method, urlPart).size();
}

void FakeHTTPClient::hold(bool on) {
    {
        std::lock_guard lock(mutex_);
        holding_ = on;
        if (!on) {
            parked_.clear();
        }
    }
    changed_.notify_all();
}

bool FakeHTTPClient::waitForHeld(std::size_t n, std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return parked_.size() >= n; });
}

std::vector<HTTPRequest> FakeHTTPClient::held() const {
    std::lock_guard lock(mutex_);
    std::vector<HTTPRequest> out;
    for (const auto& p : parked_) {
        out.push_back(p.request);
    }
    return out;
}

bool FakeHTTPClient::releaseOldest() {
    {
        std::lock_guard lock(mutex_);
        if (parked_.empty()) {
            return false;
        }
        parked_.erase(parked_.begin());
    }
    changed_.notify_all();
    return true;
}

bool FakeHTTPClient::release(const std::string& urlPart) {
    {
        std::lock_guard lock(mutex_);
        auto it = std::find_if(parked_.begin(), parked_.end(), [&](const Parked& p) {
            return p.request.url.find(urlPart) != std::string::npos;
        });
        if (it == parked_.end()) {
            return false;
        }
        parked_.erase(it);
    }
    changed_.notify_all();
    return true;
}

} // namespace kavelo
