#include "CoordinatorFixture.h"

#include "core/support/RecordingLimits.h"

#include <limits>

using namespace kavelo;
using namespace kavelo::testing;
using P = RecordingPhase;

namespace {

RecorderStateChange stateChange(RecorderState state,
                                const std::function<void(RecorderStateChange&)>& fill = {}) {
    RecorderStateChange change;
    change.state = state;
    if (fill) {
        fill(change);
    }
    return change;
}

NativeUploadEvent uploadEvent(NativeUploadEventKind kind, std::optional<int> sequence) {
    NativeUploadEvent event;
    event.kind = kind;
    event.sequence = sequence;
    return event;
}

} // namespace

class CoordinatorLiveSessionTest : public CoordinatorFixture {};

TEST_F(CoordinatorLiveSessionTest, FirstChunkWatchdogWarnsOnceAndTheNextChunkClearsIt) {
    startRecording();
    clock->advance(29);
    EXPECT_EQ(coordinator->phase(), P::recording);
    clock->advance(1);
    EXPECT_EQ(coordinator->phase(), P::recordingNoAudioWarning);
    EXPECT_TRUE(coordinator->warnings().noAudio);
    EXPECT_TRUE(logged("no first chunk after 30s"));

    coordinator->ingest(AudioChunkEvent{1, 64, false, 48000.0, 1});
    coordinator->ingest(AudioChunkEvent{1, 64, false, 48000.0, 1});
    EXPECT_EQ(coordinator->phase(), P::recording);
    EXPECT_FALSE(coordinator->warnings().noAudio);
    EXPECT_EQ(coordinator->receivedSequences(), (std::vector<int>{1}));
    EXPECT_EQ(diagnostics->payload({}).receivedCount, 2) << "a repeated number still counts";
    auto heard = heardPhases();
    EXPECT_EQ(std::count(heard.begin(), heard.end(), P::recording), 2) << "the repeat fired nothing";
}

TEST_F(CoordinatorLiveSessionTest, AQuietMeetingIsNoMissingAudioAndLostCyclesReachTheDiagnostics) {
    startRecording();
    recorder->bytesEncoded = 520 * 30; // silent AAC: a chunk only after some three minutes
    clock->advance(30);
    EXPECT_EQ(coordinator->phase(), P::recording);
    EXPECT_FALSE(coordinator->warnings().noAudio);

    recorder->droppedCycles = 12;
    coordinator->stopTapped();
    coordinator->stopConfirmed();
    const auto logs = diagnostics->payload({}).logs;
    EXPECT_TRUE(std::any_of(logs.begin(), logs.end(), [](const DiagnosticsLogEntry& e) {
        return e.level == "warn" && e.msg == "capture lost 12 audio cycles";
    }));
}

TEST_F(CoordinatorLiveSessionTest, ChunksFromTheMockLoopKeepTheWatchdogQuiet) {
    behavior.chunkInterval = 10.0;
    build();
    startRecording();
    clock->advance(31);
    EXPECT_EQ(coordinator->phase(), P::recording);
    EXPECT_FALSE(coordinator->warnings().noAudio);
    EXPECT_EQ(coordinator->receivedSequences(), (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(uploader->enqueued().size(), coordinator->receivedSequences().size());
}

TEST_F(CoordinatorLiveSessionTest, RecorderStatesAudioErrorsAndUploadsBecomeWarningsAndBooks) {
    startRecording();

    coordinator->ingest(stateChange(RecorderState::routeChanged, [](auto& c) {
        c.inputName = "usb-mic";
        c.friendlyName = "USB-microfoon";
    }));
    EXPECT_EQ(coordinator->phase(), P::recording) << "a route change settles before the handler returns";
    EXPECT_EQ(coordinator->warnings().routeChange, "USB-microfoon");
    auto heard = heardPhases();
    ASSERT_GE(heard.size(), 2u);
    EXPECT_EQ(heard[heard.size() - 2], P::recordingRouteChanged);
    coordinator->ingest(stateChange(RecorderState::routeChanged));
    EXPECT_EQ(coordinator->warnings().routeChange, "");

    coordinator->ingest(stateChange(RecorderState::networkOffline));
    EXPECT_EQ(coordinator->phase(), P::recordingOfflineBuffering);
    EXPECT_TRUE(coordinator->warnings().offlineBuffering);
    coordinator->ingest(AudioErrorEvent{"DEVICE_GONE", "Weg"});
    EXPECT_EQ(coordinator->phase(), P::recordingOfflineBuffering)
        << "a device problem does not override offline";
    EXPECT_EQ(coordinator->warnings().deviceWarning, "Weg");
    coordinator->ingest(stateChange(RecorderState::networkOnline));
    EXPECT_EQ(coordinator->phase(), P::recording);
    EXPECT_FALSE(coordinator->warnings().offlineBuffering);
    EXPECT_EQ(uploader->drainCount(), 1);

    coordinator->ingest(stateChange(RecorderState::error, [](auto& c) { c.reason = "device_disconnected"; }));
    EXPECT_EQ(coordinator->phase(), P::recordingDeviceWarning);
    EXPECT_EQ(coordinator->warnings().deviceWarning, "device_disconnected");
    coordinator->ingest(stateChange(RecorderState::error, [](auto& c) {
        c.reason = "x";
        c.errorCode = "DEVICE_DISCONNECTED";
    }));
    EXPECT_EQ(coordinator->warnings().deviceWarning, "DEVICE_DISCONNECTED");
    coordinator->ingest(stateChange(RecorderState::error));
    EXPECT_EQ(coordinator->warnings().deviceWarning, "Audiofout");
    EXPECT_TRUE(logged("recorder state=error reason=-"));

    coordinator->ingest(AudioErrorEvent{"NO_MICROPHONE_INPUT", "ignored"});
    EXPECT_EQ(coordinator->warnings().deviceWarning, "Geen microfooninvoer — kies een andere microfoon.");
    coordinator->ingest(AudioErrorEvent{"SILENT_AUDIO_DETECTED", "stil"});
    EXPECT_EQ(coordinator->phase(), P::recordingNoAudioWarning);
    coordinator->ingest(AudioErrorEvent{"SYSTEM_AUDIO_TAP_UNAVAILABLE", "geen tap"});
    EXPECT_EQ(coordinator->phase(), P::recordingNoAudioWarning);
    EXPECT_TRUE(coordinator->warnings().systemAudioFallback);
    EXPECT_TRUE(logged("audio error SYSTEM_AUDIO_TAP_UNAVAILABLE: geen tap"));

    coordinator->ingest(uploadEvent(NativeUploadEventKind::uploaded, 3));
    coordinator->ingest(uploadEvent(NativeUploadEventKind::uploaded, std::nullopt));
    uploader->emit(uploadEvent(NativeUploadEventKind::uploaded, 4)); // through the uploader's own callback
    EXPECT_EQ(coordinator->uploadedSequences(), (std::vector<int>{3, 4}));
    EXPECT_EQ(diagnostics->payload({}).uploadedCount, 2);
    auto failed = uploadEvent(NativeUploadEventKind::failed, 5);
    failed.message = "HTTP 500";
    coordinator->ingest(failed);
    coordinator->ingest(uploadEvent(NativeUploadEventKind::failed, 6));
    auto urlFailed = uploadEvent(NativeUploadEventKind::urlFetchFailed, std::nullopt);
    urlFailed.statusCode = 403;
    coordinator->ingest(urlFailed);
    EXPECT_TRUE(logged("chunk 5 upload failed: HTTP 500"));
    EXPECT_TRUE(logged("chunk 6 upload failed: -"));
    EXPECT_TRUE(logged("signed url fetch failed status=403"));
    EXPECT_EQ(coordinator->phase(), P::recordingNoAudioWarning) << "uploads change no phase";

    // A full disk is the user's to hear of, from the refusal until the disk takes the chunks again.
    uploader->emit(uploadEvent(NativeUploadEventKind::storeHeld, 7));
    EXPECT_TRUE(coordinator->warnings().diskFull);
    uploader->emit(uploadEvent(NativeUploadEventKind::storeResumed, 7));
    EXPECT_FALSE(coordinator->warnings().diskFull);

    coordinator->ingest(AudioErrorEvent{"ENGINE_STALLED_PERMANENT", "vast"});
    EXPECT_EQ(coordinator->phase(), P::errorRecoverable);
}

TEST_F(CoordinatorLiveSessionTest, FreeSpaceIsLookedAtWithEveryChunkWhileRecording) {
    timings.lowDiskBytes = std::numeric_limits<std::int64_t>::max(); // no disk has that much free
    build();
    startRecording();
    EXPECT_FALSE(coordinator->warnings().diskSpaceLow) << "the start's own check is another";
    coordinator->ingest(AudioChunkEvent{1, 100, false, 48000.0, 1});
    EXPECT_TRUE(coordinator->warnings().diskSpaceLow);
}

TEST_F(CoordinatorLiveSessionTest, PauseHeartbeatsEveryIntervalAndResumeAddsThePause) {
    startRecording();
    deliverFirstChunk();
    clock->advance(10);
    auto pausedAt = clock->now();
    coordinator->pauseRecording();
    waitForSleepersExactly(3); // chunk loop, heartbeat, maximum pause
    EXPECT_EQ(coordinator->phase(), P::pausedUser);
    EXPECT_TRUE(logged("user paused"));
    auto manifest = recovery->load();
    EXPECT_TRUE(manifest->isPaused);
    EXPECT_EQ(manifest->pausedAt, pausedAt);

    // An interruption or a late route change while paused moves nothing.
    coordinator->ingest(stateChange(RecorderState::interrupted, [](auto& c) { c.reason = "system"; }));
    coordinator->ingest(stateChange(RecorderState::routeChanged, [](auto& c) { c.inputName = "usb"; }));
    EXPECT_EQ(coordinator->phase(), P::pausedUser);
    EXPECT_EQ(coordinator->warnings().routeChange, "usb");

    clock->advance(150);
    EXPECT_EQ(coordinator->elapsedActiveSeconds(), 10) << "the active clock stands still in a pause";
    EXPECT_EQ(coordinator->timerAnchor()->pausedAt, pausedAt);
    auto syncs = api->syncs();
    ASSERT_EQ(syncs.size(), 3u) << "at once, at 60 and at 120 seconds";
    for (std::size_t i = 0; i < syncs.size(); ++i) {
        EXPECT_EQ(syncs[i].recordingId, "rec-1");
        EXPECT_EQ(syncs[i].userId, "user-1");
        EXPECT_EQ(syncs[i].diagnostics.isPaused, true);
        EXPECT_NEAR(*syncs[i].diagnostics.totalPausedMs, 60000.0 * static_cast<double>(i), 1.0);
    }

    coordinator->resumeRecording();
    EXPECT_EQ(coordinator->phase(), P::recording);
    waitForSleepersExactly(2); // chunk loop and the watchdog of the resume
    manifest = recovery->load();
    EXPECT_FALSE(manifest->isPaused);
    EXPECT_FALSE(manifest->pausedAt.has_value());
    EXPECT_NEAR(manifest->totalPausedMs, 150000.0, 1.0);
    clock->advance(5);
    EXPECT_EQ(coordinator->elapsedActiveSeconds(), 15);
    clock->advance(120);
    EXPECT_EQ(api->syncs().size(), 3u) << "the heartbeat ended with the pause";

    // A second, short pause adds to the total.
    coordinator->pauseRecording();
    waitForSleepersExactly(3);
    clock->advance(2);
    coordinator->resumeRecording();
    EXPECT_NEAR(recovery->load()->totalPausedMs, 152000.0, 1.0);
    auto anchor = coordinator->timerAnchor();
    ASSERT_TRUE(anchor.has_value());
    EXPECT_EQ(anchor->start, addSeconds(manifest->startedAt, 152.0));
    EXPECT_FALSE(anchor->pausedAt.has_value());

    // A resume that is not asked for in time is refused and touches nothing.
    auto before = heardPhases().size();
    coordinator->resumeRecording();
    EXPECT_EQ(heardPhases().size(), before);
}

TEST_F(CoordinatorLiveSessionTest, APauseLeftAloneStopsItselfAtTheLimit) {
    timings.maxPause = 300;
    timings.heartbeatInterval = 1000;
    build();
    startRecording();
    deliverFirstChunk();
    coordinator->pauseRecording();
    waitForSleepersExactly(3);
    clock->advance(299);
    EXPECT_EQ(coordinator->phase(), P::pausedUser);
    clock->advance(1);
    for (int i = 0; i < 2000 && coordinator->phase() == P::pausedUser; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(coordinator->phase(), P::processingMapping);
    EXPECT_TRUE(logged("max pause exceeded — auto safe stop"));
    auto manifest = recovery->load();
    EXPECT_EQ(manifest->stage, RecordingManifest::Stage::stopped);
    EXPECT_NEAR(manifest->totalPausedMs, 300000.0, 1.0);
}

TEST_F(CoordinatorLiveSessionTest, TheLastChunkARecordingCanHoldStopsItAsTheUserWould) {
    startRecording();
    deliverFirstChunk();
    coordinator->ingest(AudioChunkEvent{RecordingLimits::maxChunks - 1, 64, false, 48000.0, 1});
    EXPECT_EQ(coordinator->phase(), P::recording);
    coordinator->ingest(AudioChunkEvent{RecordingLimits::maxChunks, 64, false, 48000.0, 1});
    waitForPhase(P::processingMapping);
    const auto heard = heardPhases();
    EXPECT_NE(std::find(heard.begin(), heard.end(), P::stoppingNativeRecorder), heard.end());
    EXPECT_TRUE(logged("chunk limit reached at chunk 32768 — recording stopped"));
    EXPECT_EQ(recovery->load()->stage, RecordingManifest::Stage::stopped);
}

TEST_F(CoordinatorLiveSessionTest, TheLastChunkCutByAPauseStopsThePausedRecording) {
    startRecording();
    deliverFirstChunk();
    coordinator->pauseRecording();
    ASSERT_EQ(coordinator->phase(), P::pausedUser);
    coordinator->ingest(AudioChunkEvent{RecordingLimits::maxChunks, 64, false, 48000.0, 1});
    waitForPhase(P::processingMapping);
    EXPECT_EQ(recovery->load()->stage, RecordingManifest::Stage::stopped);
}

TEST_F(CoordinatorLiveSessionTest, FailingPauseAndResumeKeepTheRightManifestAndTimers) {
    behavior.failPause = true;
    build();
    startRecording();
    deliverFirstChunk();
    coordinator->pauseRecording();
    EXPECT_EQ(coordinator->phase(), P::recording);
    EXPECT_FALSE(recovery->load()->isPaused) << "a relaunch now finds a running recording";
    EXPECT_TRUE(logged("native pause failed: mock pause failure"));
    waitForSleepersExactly(1);
    clock->advance(200);
    EXPECT_TRUE(api->syncs().empty()) << "no heartbeat without a pause";
}

TEST_F(CoordinatorLiveSessionTest, AFailedResumeCountsAsPauseUntilTheUserMovesOn) {
    behavior.failResumeTimes = 1;
    timings.maxPause = 100;
    timings.heartbeatInterval = 60;
    build();
    startRecording();
    deliverFirstChunk();
    coordinator->pauseRecording();
    waitForSleepersExactly(3);
    clock->advance(10);
    coordinator->resumeRecording();
    EXPECT_EQ(coordinator->phase(), P::resumeFailed);
    waitForSleepersExactly(2); // chunk loop and the new heartbeat
    EXPECT_TRUE(logged("resume failed: mock resume failure"));
    auto manifest = recovery->load();
    EXPECT_TRUE(manifest->isPaused);
    EXPECT_TRUE(manifest->pausedAt.has_value());

    clock->advance(150); // past the maximum pause: its timer was not started again
    EXPECT_EQ(coordinator->phase(), P::resumeFailed);
    EXPECT_EQ(api->syncs().size(), 3u) << "the pause's own, then at 60 and 120 after the failed resume";

    coordinator->resumeRecording();
    EXPECT_EQ(coordinator->phase(), P::recording);
    EXPECT_NEAR(recovery->load()->totalPausedMs, 160000.0, 1.0);
}

TEST_F(CoordinatorLiveSessionTest, StopFromPauseClosesThePauseAndStops) {
    startRecording();
    coordinator->ingest(stateChange(RecorderState::interrupted, [](auto& c) { c.reason = "system"; }));
    EXPECT_EQ(coordinator->phase(), P::interruptedSystem);
    clock->advance(20);
    EXPECT_EQ(coordinator->elapsedActiveSeconds(), 20) << "an interruption is no pause";
    coordinator->resumeRecording();
    EXPECT_EQ(coordinator->phase(), P::recording);

    coordinator->pauseRecording();
    clock->advance(7);
    coordinator->stopFromPause();
    EXPECT_EQ(coordinator->phase(), P::processingMapping);
    auto manifest = recovery->load();
    EXPECT_EQ(manifest->stage, RecordingManifest::Stage::stopped);
    EXPECT_NEAR(manifest->totalPausedMs, 7000.0, 1.0);
    EXPECT_EQ(manifest->elapsedSeconds, 20);
}

TEST_F(CoordinatorLiveSessionTest, SwitchesLogAndTickEvenWhenTheRecorderRefuses) {
    startRecording();
    int ticks = 0;
    coordinator->onTick([&] { ++ticks; });
    coordinator->switchOutput("mock-out-airpods");
    coordinator->switchSystemAudio(SystemAudioMode::app, "app-zoom");
    recorder->failSwitch = true;
    coordinator->switchMicrophone("mock-mic-airpods");
    EXPECT_TRUE(logged("switched output to mock-out-airpods"));
    EXPECT_TRUE(logged("switched system audio to app"));
    EXPECT_TRUE(logged("switched microphone to mock-mic-airpods"));
    EXPECT_EQ(mock->currentOutputId(), "mock-out-airpods");
    // Two route changes from the recorder, each with its tick, and one tick per switch.
    EXPECT_EQ(ticks, 5);
    EXPECT_EQ(coordinator->phase(), P::recording);
}
