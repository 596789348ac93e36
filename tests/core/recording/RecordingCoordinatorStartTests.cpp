#include "CoordinatorFixture.h"

#include "core/backend/InitRecordingError.h"

using namespace kavelo;
using namespace kavelo::testing;
using P = RecordingPhase;

class CoordinatorStartTest : public CoordinatorFixture {};

TEST_F(CoordinatorStartTest, StartRunsTheMainRoadAndWritesTheManifestAfterTheNativeStart) {
    build();
    auto startedAt = clock->now();
    startRecording();

    EXPECT_EQ(heardPhases(), (std::vector<P>{P::idle, P::preflightCheck, P::initRecording,
                                             P::startingNativeRecorder, P::recording}));
    ASSERT_EQ(api->inits().size(), 1u);
    auto request = api->inits()[0];
    EXPECT_EQ(request.userId, "user-1");
    EXPECT_EQ(request.userEmail, "Host@Example.com");
    EXPECT_EQ(request.userName, "Host");
    EXPECT_EQ(request.meetingName, "Weekstart");
    EXPECT_EQ(request.source, "linux");
    EXPECT_EQ(request.appVersion, "2.0.0");
    EXPECT_EQ(request.language, "en");
    EXPECT_EQ(request.organizationId, "org-1");
    EXPECT_EQ(request.audioMode, "system");

    auto configured = uploader->configurations();
    ASSERT_EQ(configured.size(), 1u);
    EXPECT_EQ(configured[0].recordingId, "rec-1");
    EXPECT_EQ(configured[0].recordingSecret, "secret-1");
    EXPECT_EQ(configured[0].supabaseUrl, "https://backend.test");
    EXPECT_EQ(configured[0].anonKey, "anon");
    EXPECT_EQ(configured[0].authToken, "token-1");
    ASSERT_TRUE(recorder->started.has_value());
    EXPECT_EQ(recorder->started->accessToken, "token-1");
    EXPECT_EQ(recorder->started->microphoneDeviceId, "mock-mic-airpods");
    EXPECT_EQ(mock->currentMicrophoneId(), "mock-mic-airpods");

    auto manifest = recovery->load();
    ASSERT_TRUE(manifest.has_value());
    EXPECT_EQ(manifest->stage, RecordingManifest::Stage::active);
    EXPECT_EQ(manifest->recordingId, "rec-1");
    EXPECT_EQ(manifest->recordingSecret, "secret-1");
    EXPECT_EQ(manifest->startedAt, startedAt);
    EXPECT_FALSE(manifest->isPaused);
    EXPECT_EQ(manifest->meetingName, "Weekstart");
    EXPECT_EQ(manifest->userId, "user-1");
    EXPECT_FALSE(manifest->lastSequence.has_value());

    EXPECT_EQ(coordinator->currentRecordingId(), "rec-1");
    EXPECT_EQ(coordinator->outputLanguage(), "en");
    EXPECT_EQ(coordinator->share().hostEmail(), "host@example.com");
    EXPECT_FALSE(coordinator->startBlocker().has_value());
    EXPECT_TRUE(logged("recording started mic=mock-mic-airpods systemAudio=system"));
    EXPECT_EQ(diagnostics->payload({}).recordingId, "rec-1");

    // A second start while one runs changes nothing.
    auto before = heardPhases().size();
    coordinator->startRecording(context(SystemAudioMode::off));
    EXPECT_EQ(heardPhases().size(), before);
    EXPECT_EQ(api->inits().size(), 1u);
    EXPECT_EQ(coordinator->outputLanguage(), "en");
    EXPECT_EQ(coordinator->phase(), P::recording);
}

TEST_F(CoordinatorStartTest, PreflightStopsAtTheFirstFailingCheckInItsFixedOrder) {
    struct Case {
        const char* name;
        std::function<void(CoordinatorWorld&)> arrange;
        SystemAudioMode mode;
        std::optional<StartBlocker> blocker; // absent: the start goes through
        P phase;
    };
    const std::vector<Case> cases = {
        {"update and no microphone at once",
         [](auto& t) {
             t.hooks.isUpdateRequired = [] { return true; };
             t.build();
             t.recorder->noMicrophones = true;
         },
         SystemAudioMode::system, StartBlocker::updateRequired(), P::updateRequired},
        {"microphone denied",
         [](auto& t) {
             t.behavior.micPermission = PermissionState::denied;
             t.build();
         },
         SystemAudioMode::system, StartBlocker::microphonePermission(), P::permissionMicrophoneNeeded},
        {"microphone not determined, granted on request",
         [](auto& t) {
             t.behavior.micPermission = PermissionState::notDetermined;
             t.build();
         },
         SystemAudioMode::system, std::nullopt, P::recording},
        {"system audio not determined: the check alone decides",
         [](auto& t) {
             t.behavior.systemAudioPermission = PermissionState::notDetermined;
             t.build();
         },
         SystemAudioMode::app, StartBlocker::systemAudioPermission(), P::permissionSystemAudioNeeded},
        {"system audio denied but not wanted",
         [](auto& t) {
             t.behavior.systemAudioPermission = PermissionState::denied;
             t.build();
         },
         SystemAudioMode::off, std::nullopt, P::recording},
        {"no microphone",
         [](auto& t) {
             t.build();
             t.recorder->noMicrophones = true;
         },
         SystemAudioMode::system, StartBlocker::audioDeviceMissing(), P::audioDeviceMissing},
        {"disk too full",
         [](auto& t) {
             t.timings.minDiskBytes = std::numeric_limits<std::int64_t>::max();
             t.build();
         },
         SystemAudioMode::system, StartBlocker::insufficientDiskSpace(), P::diskSpaceBlocked},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        CoordinatorWorld t;
        c.arrange(t);
        t.coordinator->sessionDidSignIn();
        t.coordinator->startRecording(t.context(c.mode));
        EXPECT_EQ(t.coordinator->phase(), c.phase);
        EXPECT_EQ(t.coordinator->startBlocker(), c.blocker);
        EXPECT_EQ(t.api->inits().size(), c.blocker ? 0u : 1u);
        EXPECT_EQ(t.recorder->listMicrophoneCalls.load(), 1) << "the device list runs with the other checks";
        if (c.blocker) {
            EXPECT_FALSE(t.recovery->load().has_value());
            // A blocker is left by a new start.
            EXPECT_EQ(t.heardPhases().back(), c.phase);
        }
    }
}

TEST_F(CoordinatorStartTest, InitAndNativeStartFailuresBecomeBlockersWithoutAManifest) {
    struct Case {
        const char* name;
        std::function<InitRecordingResponse(const InitRecordingRequest&)> init;
        bool failStart;
        StartBlocker blocker;
    };
    const std::vector<Case> cases = {
        {"backend with message",
         [](const auto&) -> InitRecordingResponse {
             throw InitRecordingError::backend(403, "no_seat", "Geen licentie");
         },
         false, StartBlocker::backend("Geen licentie")},
        {"backend without message",
         [](const auto&) -> InitRecordingResponse { throw InitRecordingError::backend(500); }, false,
         StartBlocker::backend("Opname kon niet worden gestart.")},
        {"no answer", [](const auto&) -> InitRecordingResponse { throw InitRecordingError::network(); },
         false, StartBlocker::offline()},
        {"anything else", [](const auto&) -> InitRecordingResponse { throw std::runtime_error("decoding"); },
         false, StartBlocker::backend("Opname kon niet worden gestart.")},
        {"native start", {}, true, StartBlocker::backend("De opname kon niet native worden gestart.")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        CoordinatorWorld t;
        t.behavior.failStart = c.failStart;
        t.api->onInit = c.init;
        t.build();
        t.coordinator->sessionDidSignIn();
        t.coordinator->startRecording(t.context());
        EXPECT_EQ(t.coordinator->phase(), P::errorRecoverable);
        EXPECT_EQ(t.coordinator->startBlocker(), c.blocker);
        EXPECT_FALSE(t.recovery->load().has_value());
        if (c.failStart) {
            EXPECT_EQ(t.coordinator->currentRecordingId(), "rec-1");
            EXPECT_TRUE(t.logged("native start failed: mock start failure"));
            auto syncs = t.api->syncs();
            ASSERT_EQ(syncs.size(), 1u);
            EXPECT_EQ(syncs[0].recordingId, "rec-1");
            EXPECT_EQ(syncs[0].userId, "user-1");
            EXPECT_EQ(syncs[0].diagnostics.fatalErrorCode, "NATIVE_START_FAILED");
            EXPECT_EQ(syncs[0].diagnostics.fatalErrorMessage, "mock start failure");
            EXPECT_EQ(syncs[0].diagnostics.uploadedCount, 0);
        } else {
            EXPECT_FALSE(t.coordinator->currentRecordingId().has_value());
            EXPECT_TRUE(t.uploader->configurations().empty());
        }
        // The error phase takes a new start, which resets the blocker.
        t.api->onInit = {};
        t.coordinator->dismissToIdle();
        EXPECT_FALSE(t.coordinator->startBlocker().has_value());
    }
}

TEST_F(CoordinatorStartTest, StopConfirmationAndTheStopItself) {
    startRecording();
    coordinator->ingest(AudioErrorEvent{"DEVICE_GONE", "Microfoon weg"});
    EXPECT_EQ(coordinator->phase(), P::recordingDeviceWarning);
    coordinator->stopTapped();
    EXPECT_EQ(coordinator->phase(), P::stopConfirm);
    coordinator->stopCancelled();
    EXPECT_EQ(coordinator->phase(), P::recording) << "a cancel always returns to recording";
    coordinator->stopCancelled();
    EXPECT_EQ(coordinator->phase(), P::recording);

    clock->advance(42);
    coordinator->stopTapped();
    coordinator->stopConfirmed();
    EXPECT_EQ(coordinator->phase(), P::processingMapping);
    EXPECT_EQ(coordinator->lastSequence(), 1) << "a mock that made no loop chunk ends with final chunk 1";
    EXPECT_EQ(coordinator->receivedSequences(), (std::vector<int>{1}));
    EXPECT_TRUE(logged("stopped lastSequence=1"));
    auto manifest = recovery->load();
    ASSERT_TRUE(manifest.has_value());
    EXPECT_EQ(manifest->stage, RecordingManifest::Stage::stopped);
    EXPECT_EQ(manifest->lastSequence, 1);
    EXPECT_EQ(manifest->elapsedSeconds, 42);
    EXPECT_FALSE(manifest->isPaused);
    EXPECT_EQ(manifest->userId, "user-1");
    EXPECT_EQ(manifest->recordingSecret, "secret-1");
}

TEST_F(CoordinatorStartTest, AFailingNativeStopIsFatalAndKeepsTheActiveManifest) {
    startRecording();
    recorder->failStop = true;
    coordinator->stopTapped();
    coordinator->stopConfirmed();
    EXPECT_EQ(coordinator->phase(), P::errorRecoverable);
    EXPECT_TRUE(logged("native stop failed: not recording"));
    EXPECT_EQ(recovery->load()->stage, RecordingManifest::Stage::active);
}

TEST_F(CoordinatorStartTest, ALongRecordingStartsItsMappingPollAtTheTapAndPausesDoNotCount) {
    timings.noFirstChunkWarning = 1.0e6;
    build();
    startRecording();
    clock->advance(500);
    coordinator->pauseRecording();
    clock->advance(300);
    coordinator->resumeRecording();
    clock->advance(99);
    EXPECT_EQ(coordinator->elapsedActiveSeconds(), 599);
    coordinator->stopTapped();
    coordinator->stopCancelled();
    EXPECT_EQ(api->resolveCalls(), 0);

    clock->advance(1);
    coordinator->stopTapped();
    // The poll asks for the meeting first; the fake has none, so the task ends at once.
    for (int i = 0; i < 1000 && (coordinator->isMappingInFlight() || api->resolveCalls() == 0); ++i) {
        std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(api->resolveCalls(), 1);
    EXPECT_FALSE(coordinator->isMappingInFlight());
    coordinator->stopCancelled();
    EXPECT_EQ(coordinator->phase(), P::recording);
}
