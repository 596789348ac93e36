#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>

namespace kavelo {

// Thrown by Clock::sleep and Task::checkCancellation when the running task was asked to stop.
class CancellationError : public std::runtime_error {
  public:
    CancellationError() : std::runtime_error("cancelled") {}
};

// The cancellation state of one task. A thread that is not running a Task has a token of its own that is
// never cancelled, so code that sleeps or checks works the same on any thread.
//
// Waiters block on the token's own condition variable; whoever changes what they wait for (cancel, or a
// test clock that advances) calls notify().
class CancellationToken {
  public:
    void cancel();
    bool isCancelled() const { return cancelled_.load(std::memory_order_acquire); }

    // Waits until pred() holds, the token is cancelled, or the deadline passes (steady time).
    // Returns false only when the token was cancelled. pred is evaluated under the token's mutex.
    bool waitUntil(const std::function<bool()>& pred,
                   std::optional<std::chrono::steady_clock::time_point> deadline = std::nullopt);
    void notify();

    // The token of the task running on this thread.
    static std::shared_ptr<CancellationToken> current();
    // Installs a token for this thread for the lifetime of the returned guard.
    class Scope {
      public:
        explicit Scope(std::shared_ptr<CancellationToken> token);
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

      private:
        std::shared_ptr<CancellationToken> previous_;
    };

  private:
    std::atomic<bool> cancelled_{false};
    std::mutex mutex_;
    std::condition_variable cv_;
};

} // namespace kavelo
