#pragma once

#include <atomic>
#include <functional>
#include <thread>

namespace kavelo::cli {

// Turns SIGINT and SIGTERM into a callback on an ordinary thread, so that a stop can take locks, log and
// wait for uploads, none of which a signal handler may do. Construct it on the main thread before any
// other thread starts: it blocks both signals for every thread created afterwards.
class SignalWatcher {
  public:
    explicit SignalWatcher(std::function<void(int signal)> onSignal);
    ~SignalWatcher();
    SignalWatcher(const SignalWatcher&) = delete;
    SignalWatcher& operator=(const SignalWatcher&) = delete;

    [[nodiscard]] int signalsSeen() const { return seen_.load(); }

  private:
    std::function<void(int)> onSignal_;
    std::atomic<int> seen_{0};
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

} // namespace kavelo::cli
