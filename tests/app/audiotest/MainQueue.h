#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

namespace kavelo::testing {

// The GUI thread of these tests: posts queue up until the test runs them.
class MainQueue {
  public:
    void post(std::function<void()> job) {
        {
            std::lock_guard lock(mutex_);
            jobs_.push_back(std::move(job));
        }
        changed_.notify_all();
    }
    void drain() {
        for (;;) {
            std::function<void()> job;
            {
                std::lock_guard lock(mutex_);
                if (jobs_.empty()) {
                    return;
                }
                job = std::move(jobs_.front());
                jobs_.pop_front();
            }
            job();
        }
    }
    // Runs posts until the predicate holds (bounded: a fault fails the test instead of hanging it).
    template <class P> bool runUntil(P predicate) {
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!predicate()) {
            drain();
            if (predicate()) {
                return true;
            }
            std::unique_lock lock(mutex_);
            if (!changed_.wait_until(lock, limit, [&] { return !jobs_.empty(); })) {
                return false;
            }
        }
        return true;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::function<void()>> jobs_;
};

} // namespace kavelo::testing
