#pragma once

#include "core/support/CancellationToken.h"
#include "core/support/Clock.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

namespace kavelo {

// A clock for timeline tests: sleepers block until the test advances time past their wake-up moment.
//
// Typical use: start the code under test, waitForSleepers(1) to know it is parked, advance(30), and
// waitForSleepers again to know it ran its step and parked once more. Nothing here waits for an amount of
// real time: advance and waitForSleepers wait only for the code under test to get somewhere.
class SteppingClock final : public Clock {
  public:
    explicit SteppingClock(TimePoint start = TimePoint{});

    TimePoint now() const override;
    void sleep(double seconds) override;

    // Moves time forward in steps, one wake-up moment at a time, so sleepers wake in deadline order.
    // After each step it waits until every woken thread sleeps here again, or until no other thread of the
    // process runs (all have ended or wait for something), so that time moves on only once the code under
    // test is done with the moment it woke at.
    void advance(double seconds);
    // Blocks until at least count tasks sleep on this clock (or the real-time limit passes; then false).
    bool waitForSleepers(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(10));
    [[nodiscard]] std::size_t sleeperCount() const;

  private:
    struct Sleeper {
        TimePoint deadline;
        std::shared_ptr<CancellationToken> token;
        std::atomic<bool> released{false};
        int thread = 0; // the kernel's id of the sleeping thread
    };
    void settleAfterWake(const std::vector<std::shared_ptr<Sleeper>>& woken);

    mutable std::mutex mutex_;
    std::condition_variable changed_;                // a sleeper came or went
    TimePoint now_;                                  // guarded by mutex_
    std::vector<std::shared_ptr<Sleeper>> sleepers_; // guarded by mutex_
};

} // namespace kavelo
