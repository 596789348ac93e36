#include "core/backend/APIError.h"
#include "core/backend/FinalizeService.h"
#include "core/support/ManualClock.h"
#include "core/support/SteppingClock.h"
#include "core/support/Task.h"

#include "FakeRecordingAPI.h"

#include <gtest/gtest.h>

#include <mutex>

using namespace kavelo;
using kavelo::testing::FakeRecordingAPI;
using WaitResult = FinalizeService::WaitResult;
using Snapshot = FinalizeService::LocalUploadSnapshot;
using FinalizeError = FinalizeService::FinalizeError;

namespace {

class FinalizeWaitTest : public ::testing::Test {
  protected:
    TimePoint start{std::chrono::seconds(1'700'000'000)};
    std::shared_ptr<FakeRecordingAPI> api = std::make_shared<FakeRecordingAPI>();
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>(start);
    std::shared_ptr<CoreLogger> logger = std::make_shared<CoreLogger>(clock, 100);
    FinalizeService service{api, clock, FinalizeService::Config{}, logger};

    std::function<Snapshot()> snapshot = [] { return Snapshot{}; };
    std::vector<std::string> calls; // "ack", "progress", "kick" in call order
    std::vector<std::vector<int>> acks;
    std::vector<std::vector<int>> kicks;

    double elapsed() const { return secondsBetween(start, clock->now()); }

    WaitResult wait(int lastSequence) {
        return service.waitForServerChunks(
            "rec-1", lastSequence,
            [&] {
                calls.push_back("progress");
                return snapshot();
            },
            [&](const std::vector<int>& list) {
                calls.push_back("ack");
                acks.push_back(list);
            },
            [&](const std::vector<int>& list) {
                calls.push_back("kick");
                kicks.push_back(list);
            });
    }
};

} // namespace

TEST_F(FinalizeWaitTest, NoChunksMeansNothingToWaitForAndTooManyIsRefusedAtOnce) {
    EXPECT_EQ(wait(0), WaitResult::allChunksOnServer());
    EXPECT_EQ(api->listCalls.load(), 0);
    EXPECT_TRUE(calls.empty());

    // Each round counts up to the last sequence: one that no recording reaches is not waited for.
    EXPECT_EQ(wait(2147483647), WaitResult::missingChunks({}));
    EXPECT_EQ(api->listCalls.load(), 0);
    EXPECT_TRUE(calls.empty());
}

TEST_F(FinalizeWaitTest, AServerHoldingEverythingEndsTheFirstRoundWithAcksInRange) {
    api->onListChunks = [](const std::string& id) {
        EXPECT_EQ(id, "rec-1");
        return ChunkReconciliation{{3, 0, 1, 2, 99, 4, 5}, {0, 99}, true};
    };
    EXPECT_EQ(wait(5), WaitResult::allChunksOnServer());
    EXPECT_EQ(acks, (std::vector<std::vector<int>>{{3, 1, 2, 4, 5}}));
    EXPECT_EQ(calls, (std::vector<std::string>{"ack", "progress"}));
    EXPECT_DOUBLE_EQ(elapsed(), 0);
}

TEST_F(FinalizeWaitTest, GapsAreTheSortedUnionOfServerAndLocalAndAreKickedEachRound) {
    int round = 0;
    api->onListChunks = [&](const std::string&) {
        ++round;
        return round < 3 ? ChunkReconciliation{{1, 2}, {5, 3, 42}, true}
                         : ChunkReconciliation{{1, 2, 3, 4, 5}, {}, true};
    };
    snapshot = [&] { return round < 3 ? Snapshot{2, 1, {4, 3}} : Snapshot{5, 0, {}}; };
    EXPECT_EQ(wait(5), WaitResult::allChunksOnServer());
    EXPECT_EQ(kicks, (std::vector<std::vector<int>>{{3, 4, 5}, {3, 4, 5}}));
    EXPECT_EQ(calls, (std::vector<std::string>{"ack", "progress", "kick", "ack", "progress", "kick", "ack",
                                               "progress"}));
    EXPECT_DOUBLE_EQ(elapsed(), 1.0);
}

TEST_F(FinalizeWaitTest, AnUnreachableServerYieldsToCleanLocalStateInTheThirdRound) {
    EXPECT_EQ(wait(4), WaitResult::allChunksOnServer());
    EXPECT_EQ(api->listCalls.load(), 3);
    EXPECT_DOUBLE_EQ(elapsed(), 1.0);
    EXPECT_TRUE(acks.empty());
    auto entries = logger->allEntries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].level, LogLevel::warn);
    EXPECT_EQ(entries[0].message, "list-recording-chunks unavailable after 3 attempts — falling back to "
                                  "local/native ACKs (iOS parity)");
}

TEST_F(FinalizeWaitTest, ACheckedRoundStartsTheCountOfUncheckedRoundsAgain) {
    int round = 0;
    api->onListChunks = [&](const std::string&) {
        ++round;
        return round == 2 ? ChunkReconciliation{{1}, {}, true} : ChunkReconciliation::unchecked();
    };
    snapshot = [&] { return round <= 2 ? Snapshot{1, 1, {}} : Snapshot{2, 0, {}}; };
    EXPECT_EQ(wait(2), WaitResult::allChunksOnServer());
    EXPECT_EQ(api->listCalls.load(), 5); // unchecked, checked, then three unchecked in a row
}

TEST_F(FinalizeWaitTest, PendingUploadsWithoutProgressGiveUpAfterTheNoProgressTimeout) {
    snapshot = [] { return Snapshot{3, 2, {}}; };
    auto result = wait(5);
    EXPECT_EQ(result, WaitResult::missingChunks({}));
    EXPECT_DOUBLE_EQ(elapsed(), 60.5);

    // The same with local gaps: those are kicked each round and are the answer.
    clock = std::make_shared<ManualClock>(start);
    kicks.clear();
    snapshot = [] { return Snapshot{3, 0, {5, 4}}; };
    FinalizeService other{api, clock, FinalizeService::Config{}, logger};
    result = other.waitForServerChunks(
        "rec-1", 5, [&] { return snapshot(); }, [](const std::vector<int>&) {},
        [&](const std::vector<int>& list) { kicks.push_back(list); });
    EXPECT_EQ(result, WaitResult::missingChunks({5, 4}));
    EXPECT_EQ(kicks.size(), 122u);
}

TEST_F(FinalizeWaitTest, LocalProgressKeepsTheWaitAliveUntilTheAbsoluteTimeout) {
    api->onListChunks = [](const std::string&) { return ChunkReconciliation{{1, 2}, {3}, true}; };
    snapshot = [&] { return Snapshot{static_cast<int>(elapsed() / 30), 1, {}}; };
    EXPECT_EQ(wait(3), WaitResult::missingChunks({3}));
    EXPECT_DOUBLE_EQ(elapsed(), 600.5);
    EXPECT_EQ(logger->allEntries().size(), 0u);
}

TEST_F(FinalizeWaitTest, AServerThatRepeatsItselfDoesNotCountAsProgress) {
    int round = 0;
    api->onListChunks = [&](const std::string&) {
        ++round;
        return ChunkReconciliation{{1}, round % 2 ? std::vector<int>{2, 3} : std::vector<int>{2}, true};
    };
    snapshot = [] { return Snapshot{1, 1, {}}; };
    EXPECT_EQ(wait(3).kind, WaitResult::Kind::missing);
    EXPECT_DOUBLE_EQ(elapsed(), 60.5);
}

TEST_F(FinalizeWaitTest, AbortBeforeOrDuringTheWaitEndsItAsAbortedUntilReset) {
    service.abort();
    EXPECT_EQ(wait(3), WaitResult::aborted());
    EXPECT_EQ(api->listCalls.load(), 0);
    service.reset();
    snapshot = [&] {
        if (elapsed() >= 1.0) {
            service.abort();
        }
        return Snapshot{0, 1, {}};
    };
    EXPECT_EQ(wait(3), WaitResult::aborted());
    EXPECT_EQ(api->listCalls.load(), 3);
}

TEST(FinalizeWaitConcurrencyTest, CancellingTheWaitingTaskEndsItWithoutWaitingForTheSleep) {
    auto api = std::make_shared<FakeRecordingAPI>();
    auto clock = std::make_shared<SteppingClock>();
    auto logger = std::make_shared<CoreLogger>(clock, 100);
    FinalizeService service(api, clock, FinalizeService::Config{}, logger);
    std::mutex mutex;
    std::optional<WaitResult> result;
    auto task = Task::run([&] {
        auto r = service.waitForServerChunks(
            "rec-1", 2,
            [] {
                return Snapshot{0, 2, {}};
            },
            [](const std::vector<int>&) {}, [](const std::vector<int>&) {});
        std::lock_guard lock(mutex);
        result = r;
    });
    ASSERT_TRUE(clock->waitForSleepers(1));
    service.abort(); // from this thread, while the wait sleeps
    task.cancelAndJoin();
    EXPECT_EQ(result, WaitResult::aborted());
}

TEST(FinalizeRequestTest, FailuresAreReducedToOfflineOrBackendAndTheRequestGoesOutOnce) {
    auto api = std::make_shared<FakeRecordingAPI>();
    auto clock = std::make_shared<ManualClock>();
    FinalizeService service(api, clock, FinalizeService::Config{}, std::make_shared<CoreLogger>(clock, 10));
    FinalizePayload payload;
    payload.recordingId = "rec-1";

    auto failWith = [&](auto error) -> std::optional<FinalizeError> {
        api->onFinalize = [error](const FinalizePayload&) { throw error; };
        try {
            service.finalize(payload);
        } catch (const FinalizeError& e) {
            return e;
        }
        return std::nullopt;
    };
    auto serverError = failWith(APIError::http(500, "boom", "Kapot"));
    ASSERT_TRUE(serverError);
    EXPECT_EQ(*serverError, FinalizeError::backend(APIError::http(500, "boom", "Kapot").description()));
    EXPECT_EQ(std::string(serverError->what()),
              "backend(\"http(status: 500, errorCode: Optional(\\\"boom\\\"), "
              "message: Optional(\\\"Kapot\\\"))\")");
    EXPECT_EQ(failWith(APIError::timeout()), FinalizeError::offline());
    EXPECT_EQ(failWith(APIError::network("no route")), FinalizeError::offline());
    EXPECT_EQ(failWith(APIError::unauthenticated()), FinalizeError::backend("unauthenticated"));
    EXPECT_THROW(failWith(std::runtime_error("disk")), std::runtime_error);
    EXPECT_EQ(api->finalizeCalls.load(), 5);

    api->onFinalize = [](const FinalizePayload& sent) { EXPECT_EQ(sent.recordingId, "rec-1"); };
    EXPECT_NO_THROW(service.finalize(payload));
}
