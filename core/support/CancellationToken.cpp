#include "core/support/CancellationToken.h"

namespace kavelo {

namespace {
thread_local std::shared_ptr<CancellationToken> tlsToken;
}

void CancellationToken::cancel() {
    cancelled_.store(true, std::memory_order_release);
    notify();
}

void CancellationToken::notify() {
    { std::lock_guard lock(mutex_); }
    cv_.notify_all();
}

bool CancellationToken::waitUntil(const std::function<bool()>& pred,
                                  std::optional<std::chrono::steady_clock::time_point> deadline) {
    std::unique_lock lock(mutex_);
    auto done = [&] { return isCancelled() || pred(); };
    if (deadline) {
        cv_.wait_until(lock, *deadline, done);
    } else {
        cv_.wait(lock, done);
    }
    return !isCancelled();
}

std::shared_ptr<CancellationToken> CancellationToken::current() {
    if (!tlsToken) {
        tlsToken = std::make_shared<CancellationToken>();
    }
    return tlsToken;
}

CancellationToken::Scope::Scope(std::shared_ptr<CancellationToken> token) : previous_(std::move(tlsToken)) {
    tlsToken = std::move(token);
}

CancellationToken::Scope::~Scope() {
    tlsToken = std::move(previous_);
}

} // namespace kavelo
