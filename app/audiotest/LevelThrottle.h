#pragma once

#include "core/support/Clock.h"

#include <memory>
#include <mutex>
#include <optional>

namespace kavelo {

// Lets a level through at most once per interval. Locked, because a recorder reports levels from more
// than one thread (microphone and system audio each from their own worker).
class LevelThrottle {
  public:
    LevelThrottle(std::shared_ptr<Clock> clock, double interval);
    // True when the interval has passed since the last admitted call (the first call is admitted); that
    // call then counts as the last.
    bool admit();

  private:
    const std::shared_ptr<Clock> clock_;
    const double interval_;
    std::mutex mutex_;
    std::optional<TimePoint> last_; // guarded by mutex_
};

} // namespace kavelo
