#include "core/backend/Backoff.h"

#include <algorithm>
#include <cmath>

namespace kavelo {

double Backoff::uploadDelay(int attempt) {
    // Past attempt 6 the cap holds; clamping the exponent keeps pow away from huge numbers.
    int exponent = attempt <= 1 ? 0 : std::min(attempt - 1, 16);
    return std::min(0.5 * std::pow(2.0, exponent), 10.0);
}

} // namespace kavelo
