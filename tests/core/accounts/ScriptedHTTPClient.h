#pragma once

#include "core/backend/AccessTokenProvider.h"
#include "core/backend/HTTPClient.h"

#include <deque>
#include <functional>
#include <mutex>
#include <variant>
#include <vector>

namespace kavelo::testing {

// An HTTP transport that answers from a script, in order, and keeps every request it was given.
class ScriptedHTTPClient final : public HTTPClient {
  public:
    using Step = std::variant<HTTPResponse, TransportError>;

    void answer(int status, std::string body = "") {
        std::lock_guard lock(mutex_);
        script_.push_back(HTTPResponse{status, bytesFromString(body)});
    }
    void fail(TransportError error) {
        std::lock_guard lock(mutex_);
        script_.push_back(std::move(error));
    }
    HTTPResponse send(const HTTPRequest& request) override {
        Step step = HTTPResponse{599, {}};
        {
            std::lock_guard lock(mutex_);
            requests_.push_back(request);
            if (!script_.empty()) {
                step = std::move(script_.front());
                script_.pop_front();
            }
        }
        if (auto* error = std::get_if<TransportError>(&step)) {
            throw *error;
        }
        return std::get<HTTPResponse>(step);
    }
    std::vector<HTTPRequest> requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }

  private:
    mutable std::mutex mutex_;
    std::deque<Step> script_;           // guarded by mutex_
    std::vector<HTTPRequest> requests_; // guarded by mutex_
};

// A token source with fixed answers that counts how often each was asked.
class FixedTokenProvider final : public AccessTokenProvider {
  public:
    FixedTokenProvider(std::optional<std::string> current, std::optional<std::string> refreshed)
        : current_(std::move(current)), refreshed_(std::move(refreshed)) {}
    std::optional<std::string> currentAccessToken() override {
        ++currentCalls;
        return current_;
    }
    std::optional<std::string> refreshedAccessToken() override {
        ++refreshCalls;
        return refreshed_;
    }
    int currentCalls = 0;
    int refreshCalls = 0;

  private:
    std::optional<std::string> current_;
    std::optional<std::string> refreshed_;
};

} // namespace kavelo::testing
