#include "CoordinatorFixture.h"

#include <thread>

using namespace kavelo;
using namespace kavelo::testing;
using P = RecordingPhase;

class CoordinatorReviewTest : public CoordinatorFixture {
  public:
    // Remembers the clock's time when the speaker review opened.
    void watchOpening() {
        coordinator->onPhaseChange([this](RecordingPhase p) {
            if (p == P::speakerReview) {
                openedAt = clock->now();
            }
        });
    }
    // Stops and steps through the processing screen; answers how long it stood, in clock seconds.
    double processingSeconds(std::size_t sleepers, double advance) {
        auto stoppedAt = clock->now();
        coordinator->stopTapped();
        coordinator->stopConfirmed();
        waitForSleepersExactly(sleepers);
        clock->advance(advance);
        waitForPhase(P::speakerReview);
        return openedAt ? secondsBetween(stoppedAt, *openedAt) : -1;
    }

    std::optional<TimePoint> openedAt;
};

TEST_F(CoordinatorReviewTest, ASilentRecordingSkipsTheMappingWait) {
    timings.onDemandUploadWait = 100; // the mapping would keep the screen for its whole maximum
    build();
    watchOpening();
    startRecording();
    deliverFirstChunk();
    coordinator->ingest(AudioErrorEvent{"SILENT_AUDIO_DETECTED", "stil"});
    recorder->holdBackFinalChunk = true; // a final chunk would count as audio again
    // Processing sequence, reconciliation, and the mapping's upload wait.
    EXPECT_NEAR(processingSeconds(3, 2.3), 2.3, 1e-6);
    EXPECT_TRUE(logged("processing: opname eindigde zonder audio — mapping-wachttijd overgeslagen"));
    EXPECT_TRUE(coordinator->isMappingInFlight()) << "the mapping task started all the same";
}

TEST_F(CoordinatorReviewTest, AMappingThatNeverEndsHoldsTheScreenUntilItsMaximum) {
    timings.onDemandUploadWait = 100;
    timings.processingMax = 4.0;
    build();
    watchOpening();
    startRecording();
    deliverFirstChunk();
    EXPECT_NEAR(processingSeconds(3, 4.8), 4.8, 1e-6);
    EXPECT_FALSE(logged("processing failsafe: chunk completion not done after 8s"));
}

TEST_F(CoordinatorReviewTest, AFinalChunkThatNeverArrivesEndsTheWaitAtTheFailsafe) {
    timings.onDemandUploadWait = 100;
    timings.processingMax = 10.0;
    timings.processingChunkFailsafe = 2.0;
    build();
    watchOpening();
    startRecording();
    deliverFirstChunk();
    recorder->stopAnswersBeyondTheLastChunk = true;
    double seconds = processingSeconds(3, 3.05);
    // The wait checks every quarter second and leaves on the first check past the failsafe.
    EXPECT_GT(seconds, 2.0 + 0.8);
    EXPECT_LE(seconds, 2.0 + 0.25 + 0.8 + 1e-6);
    EXPECT_TRUE(logged("processing failsafe: chunk completion not done after 8s"));
}

TEST_F(CoordinatorReviewTest, NamesFromTheMappingJoinTheHostInTheSpeakerList) {
    api->meetingId = "meeting-1";
    api->mappingRow.participants = {"Anne", "host", "Bram"};
    build();
    watchOpening();
    startRecording();
    deliverFirstChunk();
    uploader->setUploaded({1});
    // The mapping answers at once, so the screen lasts its minimum: 1.5 + 0.45 + 0.35 seconds.
    EXPECT_NEAR(processingSeconds(2, 2.3), 2.3, 1e-6);
    EXPECT_EQ(api->triggerCalls(), 1);
    EXPECT_TRUE(logged("mapping outcome: names([\"Anne\", \"host\", \"Bram\"])"));

    auto list = coordinator->speakerList();
    ASSERT_EQ(list.speakers.size(), 3u);
    EXPECT_EQ(list.speakers[0].name, "Host");
    EXPECT_TRUE(list.speakers[0].isHost);
    EXPECT_EQ(list.speakers[1].name, "Anne");
    EXPECT_EQ(list.speakers[1].source, SpeakerListModel::Speaker::Source::mapping);
    EXPECT_EQ(coordinator->processingLine(), ProcessingLine::ready);

    coordinator->updateSpeakers([](SpeakerListModel& l) { l.addManual("Cees"); });
    EXPECT_EQ(coordinator->speakerList().speakers.size(), 4u);
    coordinator->confirmSpeakers();
    EXPECT_EQ(coordinator->phase(), P::shareReview);
    coordinator->backToSpeakerReview();
    EXPECT_EQ(coordinator->phase(), P::speakerReview);
}

TEST_F(CoordinatorReviewTest, ReconciliationRequeuesWhatTheServerLacksAndDropsWhatItHolds) {
    behavior.chunkInterval = 10;
    build();
    startRecording();
    clock->advance(20); // two loop chunks; the stop adds the final third
    ASSERT_EQ(coordinator->receivedSequences(), (std::vector<int>{1, 2}));
    for (int s = 1; s <= 3; ++s) {
        chunkStore->store("rec-1", s, Bytes(8, 1));
    }
    api->chunkAnswer = ChunkReconciliation{{1, 2, 99}, {}, true};
    coordinator->stopTapped();
    coordinator->stopConfirmed();
    ASSERT_EQ(coordinator->lastSequence(), 3);
    for (int i = 0; i < 2000 && uploader->requeues().empty(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_FALSE(uploader->requeues().empty());
    EXPECT_EQ(uploader->requeues()[0], (std::vector<int>{3}));
    ASSERT_FALSE(uploader->acks().empty());
    EXPECT_EQ(uploader->acks()[0], (std::vector<int>{1, 2}))
        << "the queue, not the coordinator, deletes them";
    EXPECT_EQ(coordinator->uploadedSequences(), (std::vector<int>{1, 2}));

    api->chunkAnswer = ChunkReconciliation{{1, 2, 3}, {}, true};
    waitForSleepersExactly(3); // processing sequence, reconciliation, the mapping's upload wait
    clock->advance(2.0);
    for (int i = 0; i < 2000 && !logged("pre-verificatie compleet: alle 3 chunks op de server"); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(logged("pre-verificatie compleet: alle 3 chunks op de server"));
}

TEST_F(CoordinatorReviewTest, ShareCommitsTypedAddressesThenFinalizesAndErasesTheRecording) {
    std::atomic<int> hookCalls{0};
    std::vector<FinalizeRecipient> hookRecipients;
    hooks.onFinalizeSuccess = [&](const std::optional<std::string>& name,
                                  const std::vector<std::string>& people,
                                  const std::vector<FinalizeRecipient>& recipients) {
        EXPECT_EQ(name, "Weekstart");
        EXPECT_EQ(people, (std::vector<std::string>{"Host"}));
        hookRecipients = recipients;
        ++hookCalls;
    };
    build();
    reachSpeakerReview();
    coordinator->confirmSpeakers();
    chunkStore->store("rec-1", 1, Bytes(8, 1));

    coordinator->updateShare([](ShareComposer& s) { s.pendingInput = "Anne@Example.nl; nope"; });
    EXPECT_EQ(coordinator->submitShare(true), RecordingCoordinator::SubmitOutcome::invalidPendingInput);
    EXPECT_EQ(coordinator->share().pendingInput, "Anne@Example.nl; nope");
    coordinator->updateShare([](ShareComposer& s) { s.pendingInput = "Anne@Example.nl host@example.com"; });
    EXPECT_EQ(coordinator->submitShare(false), RecordingCoordinator::SubmitOutcome::committedPendingInput);
    EXPECT_EQ(coordinator->submitShare(false), RecordingCoordinator::SubmitOutcome::offline);
    EXPECT_EQ(coordinator->phase(), P::shareReview);

    api->chunkAnswer = ChunkReconciliation{{1}, {}, true};
    EXPECT_EQ(coordinator->submitShare(true), RecordingCoordinator::SubmitOutcome::started);
    EXPECT_EQ(coordinator->phase(), P::success);
    auto finalizes = api->finalizes();
    ASSERT_EQ(finalizes.size(), 1u);
    EXPECT_EQ(finalizes[0].recordingId, "rec-1");
    EXPECT_EQ(finalizes[0].meetingName, "Weekstart");
    EXPECT_EQ(finalizes[0].outputLanguage, "en");
    EXPECT_EQ(finalizes[0].diagnostics.lastSequence, 1);
    ASSERT_EQ(finalizes[0].recipients.size(), 1u);
    EXPECT_EQ(finalizes[0].recipients[0].email, "anne@example.nl");

    auto summary = coordinator->successSummary();
    ASSERT_TRUE(summary.has_value());
    EXPECT_EQ(summary->meetingName, "Weekstart");
    EXPECT_EQ(summary->externalRecipientCount, 1);
    EXPECT_EQ(summary->durationSeconds, 2) << "the active clock ran on through the processing screen";
    EXPECT_FALSE(recovery->load().has_value());
    EXPECT_FALSE(std::filesystem::exists(chunkStore->chunkDirectory("rec-1")));
    for (int i = 0; i < 2000 && hookCalls == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(hookCalls.load(), 1);

    coordinator->dismissToIdle();
    EXPECT_EQ(coordinator->phase(), P::idle);
}

TEST_F(CoordinatorReviewTest, AFailedFinalizeKeepsEverythingAndARetryFinishes) {
    build();
    reachSpeakerReview();
    coordinator->confirmSpeakers();
    api->chunkAnswer = ChunkReconciliation{{1}, {}, true};
    api->finalizeError = APIError::http(500, std::nullopt, "boom");
    coordinator->submitShare(true);
    EXPECT_EQ(coordinator->phase(), P::errorRecoverable);
    ASSERT_TRUE(recovery->load().has_value());
    // The request as it went out stays with the manifest: a relaunch sends this one, not a second report.
    EXPECT_EQ(recovery->load()->finalizeRequest, api->finalizes().at(0));
    EXPECT_FALSE(recovery->load()->finalizeAccepted);
    EXPECT_TRUE(coordinator->canRetryFinalize());

    api->finalizeError.reset();
    coordinator->retryFinalize();
    EXPECT_EQ(coordinator->phase(), P::success);
    EXPECT_EQ(api->finalizes().size(), 2u);
    EXPECT_FALSE(recovery->load().has_value());
}

TEST_F(CoordinatorReviewTest, ChunksTheServerNeverGetsEndTheWaitAsIncomplete) {
    finalizeConfig.noProgressTimeout = 2;
    build();
    reachSpeakerReview();
    coordinator->confirmSpeakers();
    uploader->setUploaded({});
    api->chunkAnswer = ChunkReconciliation{{}, {1}, true};
    auto submit = Task::run([this] { coordinator->submitShare(true); });
    waitForPhase(P::waitingForUploads);
    for (int i = 0; i < 20 && coordinator->phase() == P::waitingForUploads; ++i) {
        ASSERT_TRUE(clock->waitForSleepers(1));
        clock->advance(0.5);
    }
    submit.join();
    EXPECT_EQ(coordinator->phase(), P::errorRecoverable);
    EXPECT_EQ(coordinator->missingChunks(), (std::vector<int>{1}));
    EXPECT_TRUE(logged("uploads incomplete; missing=[1]"));
    EXPECT_FALSE(uploader->requeues().empty()) << "the gap was kicked back into the queue";
}

TEST_F(CoordinatorReviewTest, ARetryWithoutAStopIsRefused) {
    startRecording();
    coordinator->ingest(AudioErrorEvent{"ENGINE_STALLED_PERMANENT", "vast"});
    EXPECT_EQ(coordinator->phase(), P::errorRecoverable);
    EXPECT_FALSE(coordinator->canRetryFinalize());
    coordinator->retryFinalize();
    EXPECT_EQ(coordinator->phase(), P::errorRecoverable);
    EXPECT_TRUE(logged("retry refused: no stopped recording"));
    coordinator->dismissToIdle();
    EXPECT_EQ(coordinator->phase(), P::idle);
}
