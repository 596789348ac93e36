#include "core/support/ManualClock.h"

#include "core/support/Task.h"

#include <algorithm>
#include <thread>

namespace kavelo {

ManualClock::ManualClock(TimePoint start) : now_(start) {}

TimePoint ManualClock::now() const {
    std::lock_guard lock(mutex_);
    return now_;
}

void ManualClock::sleep(double seconds) {
    Task::checkCancellation();
    advance(std::max(seconds, 0.0));
    std::this_thread::yield();
    Task::checkCancellation();
}

void ManualClock::advance(double seconds) {
    std::lock_guard lock(mutex_);
    now_ = addSeconds(now_, seconds);
}

} // namespace kavelo
