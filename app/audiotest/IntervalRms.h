#pragma once

#include "core/support/Time.h"

#include <cstddef>
#include <optional>

namespace kavelo {

// The rms over everything that arrived since the last report, reported at most once per publish interval.
// A probe that reported only its last buffer would show a flicker; this one shows the interval.
//
// Not locked: one capture worker feeds it.
class IntervalRms {
  public:
    explicit IntervalRms(double interval);
    // Adds the samples; returns the interval's rms when the interval has passed since the last report
    // (the first report comes at once) and clears the sums.
    std::optional<double> add(const float* samples, std::size_t count, TimePoint now);

  private:
    double interval_;
    std::optional<TimePoint> lastEmit_;
    double sumSquares_ = 0.0;
    std::size_t sampleCount_ = 0;
};

} // namespace kavelo
