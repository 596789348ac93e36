#include "core/support/ManualClock.h"
#include "core/support/SteppingClock.h"
#include "core/support/SystemClock.h"
#include "core/support/Task.h"

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

using namespace kavelo;

TEST(ManualClockTest, SleepMovesTheDateAtOnceAndNegativeCountsAsZero) {
    ManualClock clock(TimePoint{std::chrono::seconds(1000)});
    clock.sleep(2.5);
    EXPECT_DOUBLE_EQ(secondsBetween(TimePoint{std::chrono::seconds(1000)}, clock.now()), 2.5);
    clock.sleep(-4);
    clock.advance(0.5);
    EXPECT_DOUBLE_EQ(secondsBetween(TimePoint{std::chrono::seconds(1000)}, clock.now()), 3.0);
}

TEST(TaskTest, CancelWakesASystemSleepAndJoinWaitsForTheEnd) {
    SystemClock clock;
    std::atomic<bool> threw{false};
    auto task = Task::run([&] {
        try {
            clock.sleep(3600);
        } catch (const CancellationError&) {
            threw = true;
        }
    });
    task.cancelAndJoin();
    EXPECT_TRUE(threw.load());
    EXPECT_TRUE(task.isFinished());
}

TEST(TaskTest, ChildrenShareTheParentsCancellation) {
    SteppingClock clock;
    std::atomic<bool> childCancelled{false};
    auto task = Task::run([&] {
        auto child = Task::child([&] {
            try {
                clock.sleep(10);
            } catch (const CancellationError&) {
                childCancelled = true;
            }
        });
        child.get();
    });
    ASSERT_TRUE(clock.waitForSleepers(1));
    task.cancelAndJoin();
    EXPECT_TRUE(childCancelled.load());
}

TEST(SteppingClockTest, SleepersWakeInDeadlineOrderOnlyWhenTimeIsAdvanced) {
    SteppingClock clock;
    std::mutex m;
    std::vector<int> order;
    auto sleeper = [&](double s, int id) {
        return Task::run([&, s, id] {
            clock.sleep(s);
            std::lock_guard lock(m);
            order.push_back(id);
        });
    };
    auto late = sleeper(20, 2);
    auto early = sleeper(5, 1);
    ASSERT_TRUE(clock.waitForSleepers(2));
    clock.advance(4.9);
    EXPECT_EQ(clock.sleeperCount(), 2u);
    clock.advance(30);
    late.join();
    early.join();
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
    EXPECT_DOUBLE_EQ(secondsBetween(TimePoint{}, clock.now()), 34.9);
}
