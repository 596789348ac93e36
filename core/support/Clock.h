#pragma once

#include "core/support/Time.h"

namespace kavelo {

// Every timed thing in the core goes through a Clock, so that tests can drive time by hand.
class Clock {
  public:
    virtual ~Clock() = default;
    [[nodiscard]] virtual TimePoint now() const = 0;
    // Sleeps a floating-point number of seconds. Throws CancellationError when the running task is
    // cancelled, before or during the sleep; callers treat any throw as waking and test for cancellation.
    virtual void sleep(double seconds) = 0;
};

} // namespace kavelo
