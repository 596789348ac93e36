#pragma once

#include <condition_variable>
#include <mutex>

namespace kavelo {

// Lets handlers that wait (injected latency) wake at once when the server stops, so a stop never waits
// for a long delay to run out.
//
// Thread-safety: any thread.
class ShutdownSignal {
  public:
    void trigger();
    [[nodiscard]] bool triggered() const;
    // Waits up to the given time; false when woken by trigger().
    bool waitFor(int milliseconds);

  private:
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    bool triggered_ = false; // guarded by mutex_
};

} // namespace kavelo
