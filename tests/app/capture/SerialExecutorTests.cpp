#include "app/capture/SerialExecutor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <vector>

using namespace kavelo;

// An owner whose last reference a queued job drops is destroyed on its own queue's thread; the queue
// must survive that and still run what was queued behind the job.
TEST(SerialExecutorTest, AJobMayDestroyItsOwnQueueAndTheJobsBehindItStillRun) {
    auto holder = std::make_shared<std::unique_ptr<SerialExecutor>>(std::make_unique<SerialExecutor>());
    std::promise<void> go, later;
    std::promise<bool> wasCurrent;
    auto* queue = holder->get();
    queue->post([holder, &go, &wasCurrent] {
        go.get_future().wait();
        wasCurrent.set_value((*holder)->isCurrent());
        holder->reset();
    });
    queue->post([&later] { later.set_value(); });
    holder.reset();
    go.set_value();
    EXPECT_TRUE(wasCurrent.get_future().get());
    EXPECT_EQ(later.get_future().wait_for(std::chrono::seconds(5)), std::future_status::ready);
}

TEST(SerialExecutorTest, JobsRunInPostingOrderAndSyncWaitsAndRethrows) {
    SerialExecutor queue;
    std::vector<int> order;
    for (int i = 0; i < 100; ++i) {
        queue.post([&order, i] { order.push_back(i); });
    }
    queue.sync([&order] { order.push_back(100); });
    ASSERT_EQ(order.size(), 101u);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
    EXPECT_THROW(queue.sync([] { throw std::runtime_error("build failed"); }), std::runtime_error);
    EXPECT_FALSE(queue.isCurrent());
}
