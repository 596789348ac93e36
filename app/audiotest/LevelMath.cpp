#include "app/audiotest/LevelMath.h"

#include <algorithm>
#include <cmath>

namespace kavelo {

double LevelMath::rms(const float* samples, std::size_t count) {
    if (samples == nullptr || count == 0) {
        return 0.0;
    }
    double sum = 0.0;
    for (std::size_t i = 0; i < count; ++i) {
        const double s = samples[i];
        sum += s * s;
    }
    return std::sqrt(sum / static_cast<double>(count));
}

double LevelMath::displayLevel(double rms) {
    if (!(rms > 0.0)) { // also catches NaN
        return 0.0;
    }
    return std::min(rms * displayGain, 1.0);
}

} // namespace kavelo
