#pragma once

namespace kavelo {

// Waiting times between retries of a chunk upload.
class Backoff {
  public:
    // Seconds to wait after the given failed attempt: 0.5, 1, 2, 4, 8, then 10 from attempt 6 on.
    // Attempts of 0 and below count as the first.
    static double uploadDelay(int attempt);
};

} // namespace kavelo
