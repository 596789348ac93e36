#include "core/support/SystemClock.h"

#include "core/support/CancellationToken.h"

#include <algorithm>

namespace kavelo {

TimePoint SystemClock::now() const {
    return std::chrono::system_clock::now();
}

void SystemClock::sleep(double seconds) {
    auto token = CancellationToken::current();
    auto deadline =
        std::chrono::steady_clock::now() + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                               std::chrono::duration<double>(std::max(seconds, 0.0)));
    if (!token->waitUntil([] { return false; }, deadline)) {
        throw CancellationError();
    }
}

} // namespace kavelo
