#pragma once

#include <chrono>

namespace kavelo {

using TimePoint = std::chrono::system_clock::time_point;

// Adds a floating-point number of seconds to a date, keeping sub-microsecond precision out of the way.
inline TimePoint addSeconds(TimePoint t, double seconds) {
    return t + std::chrono::duration_cast<std::chrono::system_clock::duration>(
                   std::chrono::duration<double>(seconds));
}

inline double secondsBetween(TimePoint from, TimePoint to) {
    return std::chrono::duration<double>(to - from).count();
}

} // namespace kavelo
