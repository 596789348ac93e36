#include "core/recording/EersteBeeldPoort.h"

#include "core/support/SteppingClock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

using namespace kavelo;

namespace {

// A timer that fires only when the test says so.
struct FakeWekker {
    double requestedSeconds = -1;
    EersteBeeldPoort::Callback fire;
    int cancels = 0;

    EersteBeeldPoort::Wekker wekker() {
        return [this](double seconds, EersteBeeldPoort::Callback callback) {
            requestedSeconds = seconds;
            fire = std::move(callback);
            return [this] { ++cancels; };
        };
    }
};

} // namespace

TEST(EersteBeeldPoortTest, DataOpensOnceAndCancelsTheTimer) {
    FakeWekker timer;
    int opened = 0;
    EersteBeeldPoort gate(EersteBeeldPoort::deadline, timer.wekker(), [&] { ++opened; });
    EXPECT_DOUBLE_EQ(timer.requestedSeconds, 0.45);
    gate.dataBinnen();
    gate.dataBinnen();
    EXPECT_EQ(opened, 1);
    EXPECT_EQ(timer.cancels, 1);
    timer.fire(); // a timer that fires after the data changes nothing
    EXPECT_EQ(opened, 1);
}

TEST(EersteBeeldPoortTest, TheDeadlineOpensWhenNoDataCame) {
    FakeWekker timer;
    int opened = 0;
    EersteBeeldPoort gate(1.0, timer.wekker(), [&] { ++opened; });
    timer.fire();
    gate.dataBinnen();
    EXPECT_EQ(opened, 1);
}

TEST(EersteBeeldPoortTest, AfterStopNeitherPathCallsAnything) {
    FakeWekker timer;
    int opened = 0;
    EersteBeeldPoort gate(1.0, timer.wekker(), [&] { ++opened; });
    gate.stop();
    EXPECT_EQ(timer.cancels, 1);
    gate.dataBinnen();
    timer.fire();
    EXPECT_EQ(opened, 0);
}

TEST(EersteBeeldPoortTest, ATimerThatOutlivesTheGateDoesNothing) {
    FakeWekker timer;
    int opened = 0;
    {
        EersteBeeldPoort gate(1.0, timer.wekker(), [&] { ++opened; });
    }
    EXPECT_EQ(timer.cancels, 1);
    timer.fire();
    EXPECT_EQ(opened, 0);
}

TEST(EersteBeeldPoortTest, HoofdwekkerPostsToTheMainQueueAfterTheDeadline) {
    auto clock = std::make_shared<SteppingClock>();
    std::mutex mutex;
    std::vector<EersteBeeldPoort::Callback> mainQueue; // stands in for the GUI thread's queue
    auto post = [&](EersteBeeldPoort::Callback cb) {
        std::lock_guard lock(mutex);
        mainQueue.push_back(std::move(cb));
    };
    auto runMainQueue = [&] {
        std::vector<EersteBeeldPoort::Callback> pending;
        {
            std::lock_guard lock(mutex);
            pending.swap(mainQueue);
        }
        for (auto& cb : pending) {
            cb();
        }
        return pending.size();
    };

    int opened = 0;
    EersteBeeldPoort gate(0.45, EersteBeeldPoort::hoofdwekker(post, clock), [&] { ++opened; });
    ASSERT_TRUE(clock->waitForSleepers(1));
    clock->advance(0.4);
    EXPECT_EQ(runMainQueue(), 0u);
    clock->advance(0.1);
    // The task posts once it has woken; give it real time to get there.
    auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (runMainQueue() == 0 && std::chrono::steady_clock::now() < limit) {
        std::this_thread::yield();
    }
    EXPECT_EQ(opened, 1);

    // A gate stopped before its deadline leaves nothing behind: its task ends and nothing is posted.
    int second = 0;
    {
        EersteBeeldPoort other(0.45, EersteBeeldPoort::hoofdwekker(post, clock), [&] { ++second; });
        ASSERT_TRUE(clock->waitForSleepers(1));
        other.stop();
    }
    EXPECT_EQ(clock->sleeperCount(), 0u);
    EXPECT_EQ(runMainQueue(), 0u);
    EXPECT_EQ(second, 0);
}
