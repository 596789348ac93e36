#pragma once

#include "core/support/Clock.h"

namespace kavelo {

// The real clock. A negative sleep counts as 0; a cancelled task's sleep wakes at once and throws.
class SystemClock final : public Clock {
  public:
    TimePoint now() const override;
    void sleep(double seconds) override;
};

} // namespace kavelo
