#include "CoordinatorFixture.h"

#include "core/mock/MockRecorder.h"

using namespace kavelo;
using namespace kavelo::testing;
using P = RecordingPhase;
using Decision = RecordingCoordinator::RecoveryDecision;

class CoordinatorRecoveryTest : public CoordinatorFixture {
  public:
    void SetUp() override {
        build();
        coordinator->sessionDidSignIn();
    }

    RecordingManifest manifest(RecordingManifest::Stage stage) {
        RecordingManifest m;
        m.version = 7; // not compared
        m.recordingId = "rec-old";
        m.recordingSecret = "secret-old";
        m.stage = stage;
        m.startedAt = addSeconds(clock->now(), -600);
        m.totalPausedMs = 1000;
        m.meetingName = "Oud overleg";
        m.userId = "someone-else"; // not compared either
        return m;
    }

    AuthUser user() {
        AuthUser u;
        u.id = "user-1";
        u.email = "host@example.com";
        return u;
    }
};

TEST_F(CoordinatorRecoveryTest, NothingToRecoverOrNotIdleLeavesEverythingAlone) {
    EXPECT_EQ(coordinator->recoverIfNeeded(user(), "Host"), Decision::none());
    EXPECT_TRUE(uploader->configurations().empty());

    recovery->save(manifest(RecordingManifest::Stage::active));
    coordinator->sessionDidSignOut();
    EXPECT_EQ(coordinator->recoverIfNeeded(user(), "Host"), Decision::none());
    EXPECT_TRUE(recovery->load().has_value()) << "the manifest waits for the next sign-in";
    EXPECT_TRUE(uploader->configurations().empty());
}

TEST_F(CoordinatorRecoveryTest, AnActiveRecordingComesBackRunningWithItsChunksRequeued) {
    // The recorder still captures in this process (a sign-out does not stop it).
    StartRecordingInput input;
    input.recordingId = "rec-old";
    mock->start(input);
    recovery->save(manifest(RecordingManifest::Stage::active));
    chunkStore->store("rec-old", 2, Bytes(8, 1));
    chunkStore->store("rec-old", 3, Bytes(8, 1));

    EXPECT_EQ(coordinator->recoverIfNeeded(user(), "Host"), Decision::resumedActive(false));
    EXPECT_EQ(coordinator->phase(), P::recording);
    EXPECT_EQ(coordinator->currentRecordingId(), "rec-old");
    EXPECT_EQ(coordinator->outputLanguage(), "nl");
    // The time since the crash counts as active: ten minutes less the second of pause.
    EXPECT_EQ(coordinator->elapsedActiveSeconds(), 599);
    auto configured = uploader->configurations();
    ASSERT_EQ(configured.size(), 1u);
    EXPECT_EQ(configured[0].recordingSecret, "secret-old");
    EXPECT_EQ(configured[0].authToken, "token-1");
    EXPECT_EQ(uploader->requeues(), (std::vector<std::vector<int>>{{2, 3}}));
    auto syncs = api->syncs();
    ASSERT_EQ(syncs.size(), 1u);
    EXPECT_EQ(syncs[0].diagnostics.recoveryMarker, "relaunch_active");
    EXPECT_EQ(syncs[0].diagnostics.recordingId, "rec-old");
    EXPECT_EQ(syncs[0].userId, "user-1");

    EXPECT_EQ(coordinator->recoverIfNeeded(user(), "Host"), Decision::none())
        << "a second call finds no idle";
}

TEST_F(CoordinatorRecoveryTest, APauseOfAnyAgeKeepsTheRecordingForReview) {
    // A machine that slept for three days: the capture is gone, the chunks are not.
    auto m = manifest(RecordingManifest::Stage::active);
    m.isPaused = true;
    m.pausedAt = addSeconds(clock->now(), -3 * 86400);
    recovery->save(m);
    chunkStore->store("rec-old", 1, Bytes(8, 1));
    chunkStore->store("rec-old", 2, Bytes(8, 1));
    api->chunkAnswer = ChunkReconciliation{{}, {}, true};

    EXPECT_EQ(coordinator->recoverIfNeeded(user(), "Host"), Decision::openedFinalizeFlow());
    EXPECT_EQ(coordinator->phase(), P::processingMapping);
    EXPECT_EQ(coordinator->lastSequence(), 2);
    EXPECT_EQ(recovery->load()->stage, RecordingManifest::Stage::stopped);
    EXPECT_TRUE(chunkStore->exists("rec-old", 1));
    EXPECT_TRUE(chunkStore->exists("rec-old", 2));
}

TEST_F(CoordinatorRecoveryTest, ARecorderPausedInThisProcessComesBackWithAFreshLimitHoweverOld) {
    auto m = manifest(RecordingManifest::Stage::active);
    m.isPaused = true;
    m.pausedAt = addSeconds(clock->now(), -30000);
    recovery->save(m);
    StartRecordingInput input;
    input.recordingId = "rec-old";
    mock->start(input);
    mock->pause();
    EXPECT_EQ(coordinator->recoverIfNeeded(user(), "Host"), Decision::resumedActive(true));
    EXPECT_EQ(coordinator->phase(), P::pausedUser);
    EXPECT_EQ(coordinator->timerAnchor()->pausedAt, m.pausedAt);
    // The heartbeat and a fresh maximum pause run again, beside the paused recorder's chunk loop.
    waitForSleepersExactly(3);
    clock->advance(60);
    EXPECT_EQ(api->syncs().size(), 2u) << "the relaunch's own sync, then one heartbeat";
}

TEST_F(CoordinatorRecoveryTest, AChunkFileNoRecordingCanHaveIsNotCountedUpTo) {
    recovery->save(manifest(RecordingManifest::Stage::active));
    chunkStore->store("rec-old", 3, Bytes(8, 1));
    chunkStore->store("rec-old", 2147483647, Bytes(8, 1)); // a file planted under a hostile name
    api->chunkAnswer = ChunkReconciliation{{1, 2}, {}, true};
    EXPECT_EQ(coordinator->recoverIfNeeded(user(), "Host"), Decision::openedFinalizeFlow());
    EXPECT_EQ(coordinator->lastSequence(), 3);
    EXPECT_EQ(uploader->requeues(), (std::vector<std::vector<int>>{{3}}));
}

TEST_F(CoordinatorRecoveryTest, ARecorderStillPausedInThisProcessDecidesWithoutAddingPauseTime) {
    StartRecordingInput input;
    input.recordingId = "rec-old";
    mock->start(input);
    mock->pause();
    recovery->save(manifest(RecordingManifest::Stage::active));
    EXPECT_EQ(coordinator->recoverIfNeeded(user(), "Host"), Decision::resumedActive(true));
    EXPECT_EQ(coordinator->phase(), P::pausedUser);
    EXPECT_FALSE(coordinator->timerAnchor()->pausedAt.has_value());
}

TEST_F(CoordinatorRecoveryTest, AStoppedRecordingGoesToTheReviewWithMissingFilesCountedAsUploaded) {
    auto m = manifest(RecordingManifest::Stage::stopped);
    m.lastSequence = 5;
    m.elapsedSeconds = 300;
    recovery->save(m);
    chunkStore->store("rec-old", 4, Bytes(8, 1));
    chunkStore->store("rec-old", 5, Bytes(8, 1));

    EXPECT_EQ(coordinator->recoverIfNeeded(user(), "Host"), Decision::openedFinalizeFlow());
    EXPECT_EQ(coordinator->phase(), P::processingMapping);
    EXPECT_EQ(coordinator->lastSequence(), 5);
    EXPECT_EQ(uploader->requeues(), (std::vector<std::vector<int>>{{4, 5}}));
    EXPECT_EQ(uploader->acks(), (std::vector<std::vector<int>>{{1, 2, 3}}));
    EXPECT_EQ(coordinator->uploadedSequences(), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(coordinator->share().hostEmail(), "host@example.com");
    auto syncs = api->syncs();
    ASSERT_EQ(syncs.size(), 1u);
    EXPECT_EQ(syncs[0].diagnostics.recoveryMarker, "relaunch_stopped");
    EXPECT_EQ(syncs[0].diagnostics.lastSequence, 5);
    EXPECT_TRUE(recovery->load().has_value());

    // The processing screen runs as after a stop; the final chunk was never seen in this process, so the
    // mapping's upload wait (chunks 4 and 5 are not on the server) holds it until the chunk failsafe.
    waitForSleepersExactly(2); // the processing sequence and the mapping's upload wait
    clock->advance(9.05);
    waitForPhase(P::speakerReview);
    EXPECT_EQ(coordinator->speakerList().speakers.size(), 1u);
    EXPECT_TRUE(logged("processing failsafe: chunk completion not done after 8s"));
}

TEST_F(CoordinatorRecoveryTest, AStoppedRecordingWithoutALastSequenceAcknowledgesNothingAndCannotStick) {
    recovery->save(manifest(RecordingManifest::Stage::stopped));
    EXPECT_EQ(coordinator->recoverIfNeeded(user(), "Host"), Decision::openedFinalizeFlow());
    EXPECT_TRUE(uploader->acks().empty());
    EXPECT_EQ(coordinator->phase(), P::processingMapping);

    // Without a last chunk there is nothing to wait for: the send must end in an error the user can leave,
    // not in a wait that no event ends.
    waitForSleepersExactly(2);
    clock->advance(9.05);
    waitForPhase(P::speakerReview);
    coordinator->confirmSpeakers();
    ASSERT_EQ(coordinator->phase(), P::shareReview);
    EXPECT_EQ(coordinator->submitShare(true), RecordingCoordinator::SubmitOutcome::started);
    EXPECT_EQ(coordinator->phase(), P::errorRecoverable);
    EXPECT_FALSE(coordinator->canRetryFinalize());
    EXPECT_TRUE(api->finalizes().empty());
    coordinator->dismissToIdle();
    EXPECT_EQ(coordinator->phase(), P::idle);
    EXPECT_TRUE(recovery->load().has_value()) << "the recording stays for the next sign-in";
}

TEST_F(CoordinatorRecoveryTest, ACaptureThatDiedWithTheEarlierProcessIsSettledAtTheHighestChunkKnown) {
    // The recorder of this process never ran: its last sequence would be 0.
    auto m = manifest(RecordingManifest::Stage::active);
    m.isPaused = true;
    m.pausedAt = addSeconds(clock->now(), -60);
    recovery->save(m);
    chunkStore->store("rec-old", 4, Bytes(8, 1));

    // Without the server's list the end is unknown (uploaded chunks left this disk): try again later.
    EXPECT_EQ(coordinator->recoverIfNeeded(user(), "Host"), Decision::deferred());
    EXPECT_EQ(coordinator->phase(), P::idle);
    EXPECT_EQ(recovery->load()->stage, RecordingManifest::Stage::active);
    EXPECT_TRUE(uploader->configurations().empty());

    // Chunks 1 to 6 reached the server before the crash; 4 is still on disk as well.
    api->chunkAnswer = ChunkReconciliation{{1, 2, 3, 5, 6}, {4}, true};
    EXPECT_EQ(coordinator->recoverIfNeeded(user(), "Host"), Decision::openedFinalizeFlow());
    EXPECT_EQ(coordinator->phase(), P::processingMapping);
    EXPECT_EQ(coordinator->lastSequence(), 6);
    auto settled = recovery->load().value();
    EXPECT_EQ(settled.stage, RecordingManifest::Stage::stopped);
    EXPECT_EQ(settled.lastSequence, 6);
    EXPECT_FALSE(settled.isPaused);
    EXPECT_EQ(settled.totalPausedMs, 61000) << "the running pause ends at the recovery";
    EXPECT_EQ(settled.elapsedSeconds, 539);
    EXPECT_EQ(uploader->requeues(), (std::vector<std::vector<int>>{{4}}));
    EXPECT_EQ(uploader->acks(), (std::vector<std::vector<int>>{{1, 2, 3, 5, 6}}));
}

TEST_F(CoordinatorRecoveryTest, ACaptureThatDiedBeforeItsFirstChunkLeavesNothingBehind) {
    recovery->save(manifest(RecordingManifest::Stage::active));
    api->chunkAnswer = ChunkReconciliation{{}, {}, true};
    EXPECT_EQ(coordinator->recoverIfNeeded(user(), "Host"), Decision::discardedEmpty());
    EXPECT_FALSE(recovery->load().has_value());
    EXPECT_EQ(coordinator->phase(), P::idle);
    EXPECT_TRUE(api->finalizes().empty());
}

class CoordinatorInterruptedFinalizeTest : public CoordinatorRecoveryTest {
  public:
    RecordingManifest sentManifest(bool accepted) {
        auto m = manifest(RecordingManifest::Stage::stopped);
        m.lastSequence = 2;
        FinalizePayload request;
        request.recordingId = "rec-old";
        request.userId = "user-1";
        request.meetingName = "Oud overleg";
        request.recipients = {{"bram@example.test", "Bram"}};
        request.outputLanguage = "en";
        m.finalizeRequest = request;
        m.finalizeAccepted = accepted;
        chunkStore->store("rec-old", 2, Bytes(8, 1));
        return m;
    }
};

TEST_F(CoordinatorInterruptedFinalizeTest, ARequestThatWasOnItsWayIsSentAgainOnceAndTheRecordingEnds) {
    int hookCalls = 0;
    hooks.onFinalizeSuccess = [&](const std::optional<std::string>& name, const std::vector<std::string>&,
                                  const std::vector<FinalizeRecipient>& recipients) {
        EXPECT_EQ(name, "Oud overleg");
        EXPECT_EQ(recipients.size(), 1u);
        ++hookCalls;
    };
    build();
    coordinator->sessionDidSignIn();
    const auto m = sentManifest(false);
    recovery->save(m);
    EXPECT_EQ(coordinator->recoverIfNeeded(user(), "Host"), Decision::finishedFinalize());
    // The same request, not one built anew from an empty review.
    EXPECT_EQ(api->finalizes(), (std::vector<FinalizePayload>{*m.finalizeRequest}));
    EXPECT_EQ(coordinator->phase(), P::idle);
    EXPECT_FALSE(recovery->load().has_value());
    EXPECT_FALSE(chunkStore->exists("rec-old", 2));
    EXPECT_EQ(hookCalls, 1);
}

TEST_F(CoordinatorInterruptedFinalizeTest, AnAcceptedRequestIsNotSentAgain) {
    recovery->save(sentManifest(true));
    EXPECT_EQ(coordinator->recoverIfNeeded(user(), "Host"), Decision::finishedFinalize());
    EXPECT_TRUE(api->finalizes().empty());
    EXPECT_FALSE(recovery->load().has_value());
    EXPECT_FALSE(chunkStore->exists("rec-old", 2));
}

TEST_F(CoordinatorInterruptedFinalizeTest, NoAnswerWaitsAndARefusalGoesBackToTheReview) {
    const auto m = sentManifest(false);
    recovery->save(m);
    api->finalizeError = APIError::network("offline");
    EXPECT_EQ(coordinator->recoverIfNeeded(user(), "Host"), Decision::deferred());
    EXPECT_EQ(recovery->load(), m) << "kept whole for the next sign-in";
    EXPECT_TRUE(chunkStore->exists("rec-old", 2));

    api->finalizeError = APIError::http(400, std::nullopt, "recipients invalid");
    EXPECT_EQ(coordinator->recoverIfNeeded(user(), "Host"), Decision::openedFinalizeFlow());
    EXPECT_EQ(coordinator->phase(), P::processingMapping);
    EXPECT_FALSE(recovery->load()->finalizeRequest.has_value());
    EXPECT_EQ(api->finalizes().size(), 2u);
}

TEST_F(CoordinatorRecoveryTest, TheJournalOfTheChunkBeingFilledBecomesTheLastChunk) {
    // Killed seconds into the recording, before its first cut: the journal holds what was captured.
    recovery->save(manifest(RecordingManifest::Stage::active));
    api->chunkAnswer = ChunkReconciliation{{}, {}, true};
    const Bytes audio = MockRecorder::chunkContent(1, 30000);
    chunkStore->appendJournal("rec-old", 1, audio);
    EXPECT_EQ(coordinator->recoverIfNeeded(user(), "Host"), Decision::openedFinalizeFlow());
    EXPECT_EQ(coordinator->lastSequence(), 1);
    EXPECT_EQ(chunkStore->read("rec-old", 1), audio);
    EXPECT_TRUE(chunkStore->journalSequences("rec-old").empty());
    EXPECT_EQ(uploader->requeues(), (std::vector<std::vector<int>>{{1}}));
}

TEST_F(CoordinatorRecoveryTest, TheJournalOfTheFinalChunkOfAStopThatDiedBecomesThatChunk) {
    // The stop was saved with its last chunk, but the process died before that chunk reached the disk:
    // only its journal holds the end of the recording. Chunks 1 and 2 were uploaded and left the disk.
    auto m = manifest(RecordingManifest::Stage::stopped);
    m.lastSequence = 3;
    recovery->save(m);
    const Bytes audio = MockRecorder::chunkContent(3, 30000);
    chunkStore->appendJournal("rec-old", 3, audio);

    EXPECT_EQ(coordinator->recoverIfNeeded(user(), "Host"), Decision::openedFinalizeFlow());
    EXPECT_EQ(chunkStore->read("rec-old", 3), audio);
    EXPECT_TRUE(chunkStore->journalSequences("rec-old").empty());
    EXPECT_EQ(uploader->requeues(), (std::vector<std::vector<int>>{{3}}));
    EXPECT_EQ(uploader->acks(), (std::vector<std::vector<int>>{{1, 2}})) << "chunk 3 is not counted as sent";
    EXPECT_TRUE(logged("recovered recording: journal sealed as chunk 3"));
}
