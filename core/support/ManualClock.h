#pragma once

#include "core/support/Clock.h"

#include <mutex>

namespace kavelo {

// A clock that moves only when told. sleep() moves the date forward by the slept time at once, yields,
// and returns, so code that sleeps in a loop runs through its timeline without waiting.
class ManualClock final : public Clock {
  public:
    explicit ManualClock(TimePoint start = TimePoint{});

    TimePoint now() const override;
    void sleep(double seconds) override;
    void advance(double seconds);

  private:
    mutable std::mutex mutex_;
    TimePoint now_; // guarded by mutex_
};

} // namespace kavelo
