#pragma once

#include <cstddef>

namespace kavelo {

// The one scale every level display uses, and the rate at which levels are published.
class LevelMath {
  public:
    // A display shows at most this many level updates a second; buffers come far faster.
    static constexpr double publishInterval = 1.0 / 12.0;
    // Speech sits well below full scale: rms × 12, capped at 1, fills a meter without clipping it early.
    static constexpr double displayGain = 12.0;

    // Root mean square of the samples, summed in double so that long buffers lose no precision; 0 for none.
    static double rms(const float* samples, std::size_t count);
    // min(rms × 12, 1), and 0 for anything negative or not a number.
    static double displayLevel(double rms);
};

} // namespace kavelo
