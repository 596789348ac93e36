#include "app/audiotest/IntervalRms.h"

#include <cmath>

namespace kavelo {

IntervalRms::IntervalRms(double interval) : interval_(interval) {}

std::optional<double> IntervalRms::add(const float* samples, std::size_t count, TimePoint now) {
    if (samples != nullptr) {
        for (std::size_t i = 0; i < count; ++i) {
            const double s = samples[i];
            sumSquares_ += s * s;
        }
        sampleCount_ += count;
    }
    if (sampleCount_ == 0) {
        return std::nullopt;
    }
    if (lastEmit_) {
        const double elapsed = secondsBetween(*lastEmit_, now);
        if (elapsed >= 0.0 && elapsed < interval_) { // a clock set back reports at once
            return std::nullopt;
        }
    }
    lastEmit_ = now;
    const double result = std::sqrt(sumSquares_ / static_cast<double>(sampleCount_));
    sumSquares_ = 0.0;
    sampleCount_ = 0;
    return result;
}

} // namespace kavelo
