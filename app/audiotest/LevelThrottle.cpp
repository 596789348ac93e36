#include "app/audiotest/LevelThrottle.h"

namespace kavelo {

LevelThrottle::LevelThrottle(std::shared_ptr<Clock> clock, double interval)
    : clock_(std::move(clock)), interval_(interval) {}

bool LevelThrottle::admit() {
    const auto now = clock_->now();
    std::lock_guard lock(mutex_);
    // A wall clock set back must not silence the meters until it has caught up again.
    if (last_) {
        const double elapsed = secondsBetween(*last_, now);
        if (elapsed >= 0.0 && elapsed < interval_) {
            return false;
        }
    }
    last_ = now;
    return true;
}

} // namespace kavelo
