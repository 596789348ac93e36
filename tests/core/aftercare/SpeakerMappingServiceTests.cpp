#include "core/backend/APIError.h"
#include "core/backend/SpeakerMappingService.h"
#include "core/support/ManualClock.h"
#include "core/support/SteppingClock.h"
#include "core/support/Task.h"

#include "FakeRecordingAPI.h"

#include <gtest/gtest.h>

#include <mutex>

using namespace kavelo;
using kavelo::testing::FakeRecordingAPI;
using Outcome = SpeakerMappingService::Outcome;

namespace {

class SpeakerMappingServiceTest : public ::testing::Test {
  protected:
    TimePoint start{std::chrono::seconds(1'700'000'000)};
    std::shared_ptr<FakeRecordingAPI> api = std::make_shared<FakeRecordingAPI>();
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>(start);
    SpeakerMappingService service{api, clock};

    double elapsed() const { return secondsBetween(start, clock->now()); }

    // Records the moment (seconds since start) of every fetch, and answers with rows from a script; the
    // last row repeats.
    std::vector<double> fetchTimes;
    void scriptRows(std::vector<MeetingMappingRow> rows) {
        api->onFetchMapping = [this, rows](const std::string&) {
            fetchTimes.push_back(elapsed());
            auto index = std::min(fetchTimes.size(), rows.size()) - 1;
            return rows[index];
        };
    }
};

} // namespace

TEST_F(SpeakerMappingServiceTest, ARowWithoutNamesOrStatusTimesOutInTheFirstRoundPastTheDeadline) {
    scriptRows({MeetingMappingRow{}});
    EXPECT_EQ(service.pollLongRecordingMapping("rec-1"), Outcome::none("timeout"));
    EXPECT_EQ(fetchTimes, (std::vector<double>{0, 2, 4, 6, 8, 10}));
    EXPECT_DOUBLE_EQ(elapsed(), 12);
}

TEST_F(SpeakerMappingServiceTest, NamesWinWhateverTheStatusSays) {
    scriptRows({{{}, "running"}, {{"Anne", "Bram"}, "failed"}});
    EXPECT_EQ(service.pollLongRecordingMapping("rec-1"), Outcome::withNames({"Anne", "Bram"}));
    EXPECT_EQ(fetchTimes.size(), 2u);
}

TEST_F(SpeakerMappingServiceTest, TerminalStatusesGetTheirGraceButFailedEndsAtOnce) {
    scriptRows({{{}, "done"}});
    EXPECT_EQ(service.pollLongRecordingMapping("rec-1"), Outcome::none("done"));
    EXPECT_EQ(fetchTimes, (std::vector<double>{0, 2, 4}));

    fetchTimes.clear();
    scriptRows({{{}, "skipped"}, {{}, "skipped"}, {{"Chris"}, "skipped"}});
    EXPECT_EQ(service.pollLongRecordingMapping("rec-1"), Outcome::withNames({"Chris"}));

    fetchTimes.clear();
    scriptRows({{{}, "running"}, {{}, "failed"}});
    EXPECT_EQ(service.pollLongRecordingMapping("rec-1"), Outcome::none("failed"));
    EXPECT_EQ(fetchTimes.size(), 2u);
}

TEST_F(SpeakerMappingServiceTest, FailingReadsEndNothingAndLeaveTheGraceUntouched) {
    api->onFetchMapping = [this](const std::string&) -> MeetingMappingRow {
        fetchTimes.push_back(elapsed());
        if (fetchTimes.size() <= 3) {
            throw APIError::http(500);
        }
        return {{}, "done"};
    };
    // Three failed reads, then "done" read three times: the sixth read, at 10 s, gives up.
    EXPECT_EQ(service.pollLongRecordingMapping("rec-1"), Outcome::none("done"));
    EXPECT_EQ(fetchTimes.size(), 6u);

    fetchTimes.clear();
    api->onFetchMapping = [this](const std::string&) -> MeetingMappingRow {
        fetchTimes.push_back(elapsed());
        throw APIError::network("offline");
    };
    EXPECT_EQ(service.pollLongRecordingMapping("rec-1"), Outcome::none("timeout"));
}

TEST_F(SpeakerMappingServiceTest, AMissingMeetingIsNotCachedButAFoundOneIs) {
    int answer = 0;
    api->onResolveMeetingId = [&](const std::string& recordingId) -> std::optional<std::string> {
        EXPECT_EQ(recordingId, "rec-1");
        if (++answer == 1) {
            return std::nullopt;
        }
        if (answer == 2) {
            throw APIError::timeout();
        }
        return "meeting-9";
    };
    std::string polledMeeting;
    api->onFetchMapping = [&](const std::string& meetingId) {
        polledMeeting = meetingId;
        return MeetingMappingRow{{"Anne"}, std::nullopt};
    };
    EXPECT_EQ(service.pollLongRecordingMapping("rec-1"), Outcome::none("meeting_not_found"));
    EXPECT_EQ(service.runOnDemandMapping("rec-1"), Outcome::none("meeting_not_found"));
    EXPECT_EQ(service.pollLongRecordingMapping("rec-1"), Outcome::withNames({"Anne"}));
    EXPECT_EQ(polledMeeting, "meeting-9");
    EXPECT_EQ(service.resolveMeetingId("rec-1"), "meeting-9");
    EXPECT_EQ(api->resolveCalls.load(), 3);
    // Neither reset that keeps the recording forgets the meeting; a new recording does.
    service.resetForNewStopFlow();
    service.resolveMeetingId("rec-1");
    EXPECT_EQ(api->resolveCalls.load(), 3);
    service.resetForNewRecording();
    service.resolveMeetingId("rec-1");
    EXPECT_EQ(api->resolveCalls.load(), 4);
}

TEST_F(SpeakerMappingServiceTest, ARecordingGetsOneTriggerEvenWhenItFailed) {
    api->onTrigger = [](const std::string&) -> EarlyMappingDispatch { throw APIError::http(502); };
    EXPECT_EQ(service.runOnDemandMapping("rec-1"), Outcome::none("dispatch_failed"));
    EXPECT_EQ(service.runOnDemandMapping("rec-1"), Outcome::none("already_posted"));
    service.resetForNewStopFlow();
    EXPECT_EQ(service.runOnDemandMapping("rec-1"), Outcome::none("already_posted"));
    EXPECT_EQ(api->triggerCalls.load(), 1);

    service.resetForNewRecording();
    api->onTrigger = [](const std::string&) { return EarlyMappingDispatch{"dispatched", std::nullopt}; };
    api->onFetchMapping = [](const std::string&) { return MeetingMappingRow{{"Anne"}, "done"}; };
    EXPECT_EQ(service.runOnDemandMapping("rec-2"), Outcome::withNames({"Anne"}));
    EXPECT_EQ(api->triggerCalls.load(), 2);
}

TEST_F(SpeakerMappingServiceTest, TheTriggersAnswerDecidesBetweenPollingAndAReason) {
    struct Case {
        EarlyMappingDispatch dispatch;
        Outcome expected;
    };
    const std::vector<Case> cases{
        {{"dispatched", std::nullopt}, Outcome::withNames({"Anne"})},
        {{std::nullopt, "already_done"}, Outcome::withNames({"Anne"})},
        {{"queued_elsewhere", std::nullopt}, Outcome::none("queued_elsewhere")},
        {{"failed", "too_short"}, Outcome::none("too_short")},
        {{std::nullopt, std::nullopt}, Outcome::none("rejected")},
    };
    api->onFetchMapping = [](const std::string&) { return MeetingMappingRow{{"Anne"}, std::nullopt}; };
    for (const auto& c : cases) {
        service.resetForNewRecording();
        api->onTrigger = [&](const std::string& meetingId) {
            EXPECT_EQ(meetingId, "meeting-1");
            return c.dispatch;
        };
        EXPECT_EQ(service.runOnDemandMapping("rec-1"), c.expected) << c.expected.description();
    }
}

TEST_F(SpeakerMappingServiceTest, OnDemandPollsEveryOneAndAHalfSecondsForFifteenSeconds) {
    scriptRows({MeetingMappingRow{}});
    EXPECT_EQ(service.runOnDemandMapping("rec-1"), Outcome::none("timeout"));
    EXPECT_EQ(fetchTimes.size(), 11u); // 0, 1.5, ..., 15
    EXPECT_DOUBLE_EQ(fetchTimes.back(), 15);
}

TEST_F(SpeakerMappingServiceTest, AbortStopsEverythingUntilAReset) {
    service.abort();
    EXPECT_EQ(service.runOnDemandMapping("rec-1"), Outcome::aborted());
    EXPECT_EQ(api->resolveCalls.load(), 0);
    EXPECT_EQ(service.pollLongRecordingMapping("rec-1"), Outcome::aborted());
    EXPECT_EQ(api->fetchCalls.load(), 0);
    service.resetForNewStopFlow();
    api->onFetchMapping = [](const std::string&) { return MeetingMappingRow{{"Anne"}, std::nullopt}; };
    EXPECT_EQ(service.runOnDemandMapping("rec-1"), Outcome::withNames({"Anne"}));
}

TEST(SpeakerMappingServiceConcurrencyTest, AbortFromAnotherThreadEndsASleepingPollAtItsNextRound) {
    auto api = std::make_shared<FakeRecordingAPI>();
    auto clock = std::make_shared<SteppingClock>();
    SpeakerMappingService service(api, clock);
    std::mutex mutex;
    std::optional<Outcome> outcome;
    auto task = Task::run([&] {
        auto result = service.pollLongRecordingMapping("rec-1");
        std::lock_guard lock(mutex);
        outcome = result;
    });
    ASSERT_TRUE(clock->waitForSleepers(1));
    service.abort();
    clock->advance(2);
    task.join();
    EXPECT_EQ(outcome, Outcome::aborted());
    EXPECT_EQ(api->fetchCalls.load(), 1);

    // A cancelled task does not wait for its sleep to end.
    service.resetForNewStopFlow();
    auto cancelled = Task::run([&] {
        auto result = service.pollLongRecordingMapping("rec-1");
        std::lock_guard lock(mutex);
        outcome = result;
    });
    ASSERT_TRUE(clock->waitForSleepers(1));
    {
        std::lock_guard lock(mutex);
        outcome.reset();
    }
    cancelled.cancelAndJoin();
    EXPECT_EQ(outcome, Outcome::aborted());
}

TEST(SpeakerMappingOutcomeTest, DescriptionIsThePrintedFormOfTheLogLine) {
    EXPECT_EQ(Outcome::withNames({"Anne", "Bram \"B\""}).description(), R"(names(["Anne", "Bram \"B\""]))");
    EXPECT_EQ(Outcome::none("timeout").description(), R"(none(reason: "timeout"))");
    EXPECT_EQ(Outcome::aborted().description(), "aborted");
}
