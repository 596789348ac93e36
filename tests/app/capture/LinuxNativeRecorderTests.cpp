#include "AdtsDecoder.h"
#include "FakeCapture.h"
#include "app/capture/LinuxNativeRecorder.h"
#include "core/support/ManualClock.h"
#include "core/support/SteppingClock.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

using namespace kavelo;
using namespace kavelo::testing;

namespace {

RecorderStateChange change(RecorderState state, std::string reason) {
    RecorderStateChange c;
    c.state = state;
    c.reason = std::move(reason);
    return c;
}

std::vector<float> constant(float value, std::size_t frames = 1024) {
    return std::vector<float>(frames, value);
}

std::vector<float> tone(double frequency, std::size_t frames, std::size_t offset, float amplitude) {
    std::vector<float> samples(frames);
    for (std::size_t i = 0; i < frames; ++i) {
        samples[i] =
            amplitude * float(std::sin(2 * std::numbers::pi * frequency * double(offset + i) / 48000));
    }
    return samples;
}

class RecorderFixture : public ::testing::Test {
  protected:
    // The health check sleeps on the clock: a stepping clock keeps it parked until a test moves time.
    void make(std::shared_ptr<Clock> clock = std::make_shared<SteppingClock>()) {
        clock_ = clock;
        logger = std::make_shared<CoreLogger>(clock, 500);
        recorder = LinuxNativeRecorder::make({uploader, logger, clock, backend, devices,
                                              [this](const std::string& name) -> std::optional<std::string> {
                                                  auto it = environment.find(name);
                                                  if (it == environment.end()) {
                                                      return std::nullopt;
                                                  }
                                                  return it->second;
                                              }});
        recorder->setEventHandlers(events.handlers());
    }
    void SetUp() override { make(); }

    StartRecordingInput input(SystemAudioMode mode = SystemAudioMode::system, std::string mic = "mic-1") {
        StartRecordingInput in;
        in.recordingId = "rec";
        in.microphoneDeviceId = std::move(mic);
        in.systemAudioMode = mode;
        return in;
    }
    bool logged(const std::string& text) {
        for (const auto& entry : logger->allEntries()) {
            if (entry.message == text) {
                return true;
            }
        }
        return false;
    }
    Bytes bytes(std::size_t n) { return Bytes(n, 0xAB); }

    std::shared_ptr<FakeCaptureBackend> backend = std::make_shared<FakeCaptureBackend>();
    std::shared_ptr<FakeDeviceDirectory> devices = std::make_shared<FakeDeviceDirectory>();
    std::shared_ptr<FakeUploadWorker> uploader = std::make_shared<FakeUploadWorker>();
    std::map<std::string, std::string> environment;
    std::shared_ptr<Clock> clock_;
    std::shared_ptr<CoreLogger> logger;
    RecordedEvents events;
    std::shared_ptr<LinuxNativeRecorder> recorder;
};

} // namespace

TEST_F(RecorderFixture, ChunksAreCutBySizeNumberedFromOneAndTheRestIsFinalAtStop) {
    recorder->start(input());
    recorder->appendEncodedData(bytes(98303));
    EXPECT_TRUE(uploader->snapshot().empty());
    recorder->appendEncodedData(bytes(500)); // crosses the limit: the whole buffer goes
    recorder->appendEncodedData(bytes(98304));
    recorder->appendEncodedData(bytes(10));
    EXPECT_EQ(recorder->stop(), 3);

    auto chunks = uploader->snapshot();
    ASSERT_EQ(chunks.size(), 3u);
    EXPECT_EQ(chunks[0].data.size(), 98803u);
    EXPECT_EQ(chunks[1].data.size(), 98304u);
    EXPECT_EQ(chunks[2].data.size(), 10u);
    EXPECT_EQ((std::vector<bool>{chunks[0].isFinal, chunks[1].isFinal, chunks[2].isFinal}),
              (std::vector<bool>{false, false, true}));
    ASSERT_EQ(events.chunks.size(), 3u);
    EXPECT_EQ(events.chunks[2], (AudioChunkEvent{3, 10, true, 48000.0, 1}));
    EXPECT_EQ(recorder->runtimeState(), (RecorderRuntimeState{false, false, false, 3, 98803 + 98304 + 10}));
    EXPECT_EQ(events.stateWords(),
              (std::vector<RecorderState>{RecorderState::recording, RecorderState::stopping,
                                          RecorderState::stopped}));
    EXPECT_TRUE(logged("LinuxNativeRecorder stopped lastSequence=3"));
    EXPECT_EQ(backend->microphonesStopped, 1);
    EXPECT_EQ(backend->systemsStopped, 1);
}

// A crash must cost no more than about a second: what the chunk being filled gained since the last
// journal call goes to the worker's journal once a second has passed, and a cut starts a new journal.
TEST_F(RecorderFixture, TheChunkBeingFilledReachesItsJournalAboutOnceASecond) {
    auto clock = std::make_shared<SteppingClock>();
    make(clock);
    recorder->start(input());
    recorder->appendEncodedData(bytes(1000));
    clock->advance(1.0);
    recorder->appendEncodedData(bytes(2000));
    recorder->appendEncodedData(bytes(3000)); // the same second: it waits for the next call
    clock->advance(1.0);
    recorder->appendEncodedData(bytes(98304)); // the cut: the chunk itself goes to the worker
    clock->advance(1.0);
    recorder->appendEncodedData(bytes(700));
    const auto journal = uploader->journalSnapshot();
    ASSERT_EQ(journal.size(), 2u);
    EXPECT_EQ(journal[0].sequence, 1);
    EXPECT_EQ(journal[0].data.size(), 3000u) << "all of chunk 1 so far";
    EXPECT_EQ(journal[1].sequence, 2);
    EXPECT_EQ(journal[1].data.size(), 700u);
    recorder->stop();
}

TEST_F(RecorderFixture, StopRightAfterACutSendsNoChunkAndStopWhileIdleAnswersTheSequence) {
    EXPECT_EQ(recorder->stop(), 0);
    recorder->start(input());
    recorder->appendEncodedData(bytes(98304));
    EXPECT_EQ(recorder->stop(), 1);
    auto chunks = uploader->snapshot();
    ASSERT_EQ(chunks.size(), 1u);
    EXPECT_FALSE(chunks[0].isFinal);
}

TEST_F(RecorderFixture, PauseCutsAShortChunkReleasesCaptureAndResumeKeepsNumbering) {
    recorder->start(input());
    recorder->pause(); // empty buffer: no chunk, no sequence step
    EXPECT_TRUE(uploader->snapshot().empty());
    EXPECT_FALSE(backend->microphoneRunning());
    try {
        recorder->pause();
        FAIL() << "second pause must throw";
    } catch (const RecorderError& e) {
        EXPECT_EQ(e.kind(), RecorderError::Kind::notRecording);
    }
    recorder->resume();
    EXPECT_TRUE(backend->microphoneRunning());
    recorder->appendEncodedData(bytes(1000));
    recorder->pause();
    auto chunks = uploader->snapshot();
    ASSERT_EQ(chunks.size(), 1u);
    EXPECT_EQ(chunks[0].sequence, 1);
    EXPECT_FALSE(chunks[0].isFinal);
    recorder->resume();
    recorder->appendEncodedData(bytes(5));
    EXPECT_EQ(recorder->stop(), 2);

    recorder->start(input()); // a new recording counts from 0 again
    EXPECT_EQ(recorder->runtimeState().lastSequence, 0);
    EXPECT_EQ(recorder->runtimeState().totalBytesEncoded, 0);
    ASSERT_GE(events.states.size(), 3u);
    EXPECT_EQ(events.states[1], change(RecorderState::paused, "user"));
}

TEST_F(RecorderFixture, ResumeRetriesThreeTimesWithItsWaitsThenReportsAndStaysPaused) {
    auto clock = std::make_shared<SteppingClock>();
    make(clock);
    recorder->start(input(SystemAudioMode::off));
    recorder->pause();
    ASSERT_EQ(clock->sleeperCount(), 0u) << "a paused recording has no health check";
    backend->microphoneFailures = 3;
    std::optional<RecorderError> failure;
    auto resuming = Task::run([&] {
        try {
            recorder->resume();
        } catch (const RecorderError& e) {
            failure = e;
        }
    });
    for (double wait : {0.3, 0.5, 0.5}) {
        ASSERT_TRUE(clock->waitForSleepers(1));
        clock->advance(wait - 0.01);
        EXPECT_EQ(clock->sleeperCount(), 1u);
        clock->advance(0.01);
    }
    resuming.join();
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->kind(), RecorderError::Kind::resumeFailed);
    EXPECT_EQ(failure->text(), "device busy");
    EXPECT_EQ(backend->microphoneIds.size(), 4u);
    EXPECT_EQ(events.stateWords().back(), RecorderState::resumeFailed);
    EXPECT_TRUE(recorder->runtimeState().userPaused);

    backend->microphoneFailures = 1; // one failure, then success after 0.3 seconds
    resuming = Task::run([&] { recorder->resume(); });
    ASSERT_TRUE(clock->waitForSleepers(1));
    clock->advance(0.3);
    resuming.join();
    EXPECT_FALSE(recorder->runtimeState().userPaused);
    EXPECT_EQ(events.stateWords().back(), RecorderState::recording);
    recorder->stop();
}

TEST_F(RecorderFixture, StartNeedsTheMicrophoneRightAndPassesCaptureErrorsOn) {
    devices->microphone = PermissionState::denied;
    try {
        recorder->start(input());
        FAIL();
    } catch (const RecorderError& e) {
        EXPECT_EQ(e.kind(), RecorderError::Kind::permissionDenied);
    }
    devices->microphone = PermissionState::granted;
    backend->microphoneFailures = 1;
    EXPECT_THROW(recorder->start(input()), RecorderError);
    EXPECT_FALSE(recorder->runtimeState().recordingActive);
    EXPECT_TRUE(events.states.empty());
}

TEST_F(RecorderFixture, SystemRingKeepsTheNewestFourSecondsAndMixesWithAHardClip) {
    recorder->start(input());
    // 4.5 seconds of system audio without any microphone: the oldest half second goes.
    for (int i = 0; i < 45; ++i) {
        backend->pushSystem(constant(float(i), 4800));
    }
    auto ring = recorder->systemRingSnapshot();
    ASSERT_EQ(ring.size(), 192000u);
    EXPECT_EQ(ring.front(), 5.0f);
    EXPECT_EQ(ring.back(), 44.0f);
    recorder->stop();

    // The next recording starts without the last meeting's sound.
    recorder->start(input());
    EXPECT_TRUE(recorder->systemRingSnapshot().empty());
    backend->pushSystem({0.5f, -0.5f, 0.25f});
    std::vector<float> mic{0.8f, -0.8f, 0.1f, 0.3f}; // longer than the ring: its tail stays microphone only
    recorder->mixInSystemAudio(mic.data(), mic.size());
    EXPECT_EQ(mic, (std::vector<float>{1.0f, -1.0f, 0.35f, 0.3f}));
    backend->pushSystem({0.1f, 0.2f, 0.3f});
    std::vector<float> shortMic{0.0f, 0.0f}; // shorter than the ring: the surplus waits for the next buffer
    recorder->mixInSystemAudio(shortMic.data(), shortMic.size());
    EXPECT_EQ(shortMic, (std::vector<float>{0.1f, 0.2f}));
    EXPECT_EQ(recorder->systemRingSnapshot(), (std::vector<float>{0.3f}));
}

TEST_F(RecorderFixture, LevelsAreScaledRmsAndSilenceRaisesTheAlarmEvery500Buffers) {
    backend->pushMicrophone(constant(0.5f)); // before start: dropped
    EXPECT_TRUE(events.levels.empty());
    recorder->start(input());
    backend->pushSystem(constant(0.05f));
    backend->pushMicrophone(constant(0.01f));
    ASSERT_EQ(events.levels.size(), 2u);
    EXPECT_NEAR(events.levels[0].second, 0.6, 1e-6) << "system level is rms x 12";
    EXPECT_NEAR(events.levels[1].first, 0.12, 1e-6);
    backend->pushMicrophone(constant(0.2f));
    EXPECT_DOUBLE_EQ(events.levels.back().first, 1.0) << "capped at 1";

    backend->pushSystem(constant(0.0f)); // system quiet again
    for (int i = 0; i < 499; ++i) {
        backend->pushMicrophone(constant(0.0005f));
    }
    EXPECT_TRUE(events.errorCodes().empty());
    backend->pushMicrophone(constant(0.0f));
    ASSERT_EQ(events.errorCodes(), (std::vector<std::string>{"SILENT_AUDIO_DETECTED"}));
    EXPECT_EQ(events.errors[0].message, "Geen geluid gedetecteerd (~10 sec). Controleer je microfoon.");
    // The 501st silent buffer counts from one again; a buffer at the limit itself is not silent.
    for (int i = 0; i < 498; ++i) {
        backend->pushMicrophone(constant(0.0f));
    }
    backend->pushMicrophone(constant(0.0011f));
    backend->pushMicrophone(constant(0.0f));
    backend->pushMicrophone(constant(0.0f));
    EXPECT_EQ(events.errorCodes().size(), 1u);
}

TEST_F(RecorderFixture, MicrophoneAndSystemToneEndUpMixedInDecodableChunksToTheLastSample) {
    recorder->start(input(SystemAudioMode::app));
    // 16 seconds in 1000-frame cycles, system before microphone as the aggregate path delivers them. A
    // tone costs the encoder well under its 96 kbit/s, so this is what it takes to fill more than a chunk.
    std::size_t pushed = 0;
    for (; pushed < 16 * 48000; pushed += 1000) {
        backend->pushSystem(tone(440, 1000, pushed, 0.3f));
        backend->pushMicrophone(tone(440, 1000, pushed, 0.3f));
    }
    recorder->stop();
    auto chunks = uploader->snapshot();
    ASSERT_GE(chunks.size(), 2u);
    for (std::size_t i = 0; i + 1 < chunks.size(); ++i) {
        EXPECT_GE(chunks[i].data.size(), LinuxNativeRecorder::chunkCutBytes);
    }
    Bytes all;
    for (const auto& c : chunks) {
        all.insert(all.end(), c.data.begin(), c.data.end());
    }
    EXPECT_EQ(splitAdtsFrames(chunks[0].data).empty(), false) << "a chunk holds whole frames";
    auto decoded = decodeAdts(all);
    ASSERT_TRUE(decoded.ok);
    // The stop flushes the encoder: nothing short of the last sample, at most its priming frame and the
    // padding of the last one more.
    EXPECT_GE(decoded.samples.size(), pushed);
    EXPECT_LE(decoded.samples.size(), pushed + 2048);
    EXPECT_NEAR(decoded.estimatedFrequency(), 440, 10);
    // Two in-phase 0.3 tones summed: amplitude 0.6, rms 0.42.
    EXPECT_NEAR(decoded.rms(48000, decoded.samples.size() - 48000), 0.424, 0.04);
}

TEST_F(RecorderFixture, AggregatePathIsChosenForSystemModeAndFallsBackWithAReport) {
    backend->aggregateSupported = true;
    recorder->start(input(SystemAudioMode::system, ""));
    EXPECT_EQ(backend->aggregatesStarted, 1);
    EXPECT_TRUE(backend->microphoneIds.empty());
    EXPECT_EQ(backend->aggregatePreferences, (std::vector<std::optional<std::string>>{std::nullopt}));
    EXPECT_EQ(recorder->diagnosticsSnapshot().at("engine"), "PipeWireAggregate");
    EXPECT_TRUE(logged("LinuxNativeRecorder started (mic=, system=system, engine=aggregate-tap)"));
    EXPECT_TRUE(logged("[tap] aggregate capture actief (mic=default)"));
    recorder->stop();
    EXPECT_EQ(backend->aggregatesStopped, 1);

    backend->aggregateDeliversAudio = false; // no cycle within 2.5 seconds
    recorder->start(input());
    EXPECT_TRUE(logged("[tap] no IO callbacks within 2.5s — tearing down"));
    EXPECT_EQ(events.errorCodes(), (std::vector<std::string>{"SYSTEM_AUDIO_TAP_UNAVAILABLE"}));
    EXPECT_EQ(backend->microphoneIds, (std::vector<std::string>{"mic-1"}));
    EXPECT_EQ(recorder->diagnosticsSnapshot(), (std::map<std::string, std::string>{{"platform", "linux"},
                                                                                   {"engine", "PulseAudio"},
                                                                                   {"lastSequence", "0"},
                                                                                   {"bytesEncoded", "0"},
                                                                                   {"droppedCycles", "0"}}));
    recorder->stop();

    backend->aggregateDeliversAudio = true;
    backend->aggregateStartError = "no default sink";
    recorder->start(input());
    EXPECT_TRUE(logged(
        "[tap] start failed: no default sink — runs PipeWire, and may we read the output? (pw-cli info 0)"));
    EXPECT_EQ(events.errorCodes().size(), 2u);
    recorder->stop();
}

TEST_F(RecorderFixture, TheSwitchVariableOnlyListensToOneAndOtherModesAlwaysUseTheFallback) {
    backend->aggregateSupported = true;
    environment["KAVELO_DISABLE_AUDIO_TAP"] = "true";
    recorder->start(input());
    EXPECT_EQ(backend->aggregatesStarted, 1);
    recorder->stop();

    environment["KAVELO_DISABLE_AUDIO_TAP"] = "1";
    recorder->start(input());
    recorder->stop();
    recorder->start(input(SystemAudioMode::app));
    recorder->stop();
    recorder->start(input(SystemAudioMode::off));
    recorder->stop();
    EXPECT_EQ(backend->aggregatesStarted, 1);
    EXPECT_TRUE(events.errorCodes().empty()) << "a path turned off is not a failure";
    ASSERT_EQ(backend->systemStarts.size(), 2u) << "mode off opens no system stream";
    EXPECT_EQ(backend->systemStarts[1].first, SystemAudioMode::app);
}

TEST_F(RecorderFixture, SystemAudioTroubleLeavesTheMicrophoneRecordingWithARouteChange) {
    backend->systemOutcome = SystemAudioStartResult::Outcome::unavailable;
    recorder->start(input());
    backend->systemOutcome = SystemAudioStartResult::Outcome::failed;
    recorder->switchSystemAudioSource(SystemAudioMode::app, "app:zoom");
    backend->systemOutcome = SystemAudioStartResult::Outcome::noOutput;
    recorder->switchSystemAudioSource(SystemAudioMode::app, std::nullopt);

    std::vector<RecorderStateChange> routes;
    for (const auto& s : events.states) {
        if (s.state == RecorderState::routeChanged) {
            routes.push_back(s);
        }
    }
    ASSERT_EQ(routes.size(), 4u);
    EXPECT_EQ(routes[0].reason, "system_audio_unavailable");
    EXPECT_EQ(routes[0].friendlyName, "Alleen microfoon");
    EXPECT_EQ(routes[1].reason, "system_audio_failed");
    EXPECT_EQ(routes[1].friendlyName, "Alleen microfoon");
    EXPECT_EQ(routes[2].friendlyName, "app:zoom");
    EXPECT_EQ(routes[3].friendlyName, "app") << "no output: no report of its own, only the switch";
    EXPECT_TRUE(logged("system audio capture failed: stream refused — continuing mic-only"));
    EXPECT_TRUE(backend->microphoneRunning());
    EXPECT_EQ(backend->microphoneIds.size(), 1u) << "switching the system source leaves the microphone alone";
}

TEST_F(RecorderFixture, SwitchesUpdateTheStoredInputAndRestartOnlyWhatTheyMust) {
    devices->names["usb-mic"] = "USB Microfoon";
    recorder->start(input(SystemAudioMode::app));
    recorder->switchMicrophone("usb-mic");
    EXPECT_EQ(backend->microphoneIds, (std::vector<std::string>{"mic-1", "usb-mic"}));
    EXPECT_EQ(backend->systemStarts.size(), 1u);
    auto last = events.states.back();
    EXPECT_EQ(last.state, RecorderState::routeChanged);
    EXPECT_EQ(last.inputChanged, true);
    EXPECT_EQ(last.inputName, "USB Microfoon");

    backend->aggregateSupported = true;
    recorder->switchSystemAudioSource(SystemAudioMode::system,
                                      std::nullopt); // the aggregate path gets its chance
    EXPECT_EQ(backend->aggregatesStarted, 1);
    EXPECT_EQ(backend->aggregatePreferences.back(), "usb-mic");

    recorder->pause();
    auto statesBefore = events.states.size();
    recorder->switchMicrophone("other");
    EXPECT_EQ(events.states.size(), statesBefore) << "while paused only the stored input changes";
    recorder->resume();
    EXPECT_EQ(backend->aggregatePreferences.back(), "other");

    devices->outputSwitchWorks = false;
    recorder->switchOutputDevice("hdmi");
    EXPECT_TRUE(logged("kon systeemuitvoer niet omzetten naar hdmi"));
    EXPECT_EQ(events.states.back().friendlyName, "hdmi");
    EXPECT_EQ(events.states.back().inputChanged, false);
    recorder->stop();
}

TEST_F(RecorderFixture, AStalledPipelineIsRestartedThreeTimesThenGivenUp) {
    auto clock = std::make_shared<SteppingClock>();
    make(clock);
    recorder->start(input(SystemAudioMode::off));
    ASSERT_TRUE(clock->waitForSleepers(1));
    clock->advance(30); // stale 1
    EXPECT_EQ(backend->microphoneIds.size(), 1u);
    for (int restart = 1; restart <= 3; ++restart) {
        clock->advance(30); // stale 2: forced restart, capture comes back 0.5 seconds later
        ASSERT_TRUE(events.waitFor([&] { return events.states.size() >= std::size_t(2 * restart); }));
        EXPECT_EQ(events.states.back(), (change(RecorderState::restarting, "engine_stalled")));
        EXPECT_FALSE(backend->microphoneRunning());
        EXPECT_TRUE(logged("engine stalled — force restart #" + std::to_string(restart)));
        ASSERT_TRUE(clock->waitForSleepers(2)); // the health timer and the restart's pause
        clock->advance(0.5);
        ASSERT_TRUE(events.waitFor([&] { return events.states.size() >= std::size_t(1 + 2 * restart); }));
        EXPECT_EQ(events.states.back(), (change(RecorderState::recording, "restarted")));
        EXPECT_TRUE(backend->microphoneRunning());
        ASSERT_TRUE(clock->waitForSleepers(1));
        clock->advance(29.5);
    }
    clock->advance(30); // 60 seconds after the third restart: permanent
    ASSERT_TRUE(events.waitFor([&] { return !events.errors.empty(); }));
    EXPECT_EQ(events.errorCodes(), (std::vector<std::string>{"ENGINE_STALLED_PERMANENT"}));
    ASSERT_TRUE(events.waitFor([&] { return events.states.back().state == RecorderState::error; }));
    EXPECT_EQ(events.states.back().errorCode, "engine_stalled_permanent");
    EXPECT_TRUE(logged("engine stalled permanently after 3 restarts"));
    EXPECT_TRUE(backend->microphoneRunning()) << "capture is left for the coordinator to decide";
    EXPECT_TRUE(recorder->runtimeState().recordingActive);
    EXPECT_EQ(backend->microphoneIds.size(), 4u);
    recorder->stop();
}

TEST_F(RecorderFixture, AudioDuringTheRestartClearsTheCountAndAFailedRestartIsReported) {
    auto clock = std::make_shared<SteppingClock>();
    make(clock);
    recorder->start(input(SystemAudioMode::off));
    ASSERT_TRUE(clock->waitForSleepers(1));
    clock->advance(60);
    ASSERT_TRUE(events.waitFor([&] { return events.states.size() >= 2; }));
    backend->microphoneFailures = 1;
    ASSERT_TRUE(clock->waitForSleepers(2));
    clock->advance(0.5);
    ASSERT_TRUE(events.waitFor([&] { return !events.errors.empty(); }));
    EXPECT_EQ(events.errors[0], (AudioErrorEvent{"ENGINE_RESTART_FAILED", "device busy"}));
    EXPECT_FALSE(recorder->runtimeState().stoppingOrRestarting);
    EXPECT_TRUE(recorder->runtimeState().recordingActive);
    // A chunk is no sign of life (a pause cuts one from what was encoded before); audio is. Without audio
    // the ticks at 90 and 120 are stale and restart once more; audio after that restart makes 150 fresh and
    // the count begins anew, so 180 and 210 restart as the first again.
    recorder->appendEncodedData(bytes(98304));
    ASSERT_TRUE(clock->waitForSleepers(1));
    clock->advance(59.5); // 120
    ASSERT_TRUE(events.waitFor([&] { return events.states.size() >= 3; }));
    EXPECT_EQ(events.states.back(), change(RecorderState::restarting, "engine_stalled"));
    EXPECT_TRUE(logged("engine stalled — force restart #2"));
    ASSERT_TRUE(clock->waitForSleepers(2));
    clock->advance(0.5);
    ASSERT_TRUE(events.waitFor(
        [&] { return events.states.back() == change(RecorderState::recording, "restarted"); }));
    EXPECT_TRUE(backend->pushMicrophone(constant(0.0f)));
    ASSERT_TRUE(clock->waitForSleepers(1));
    clock->advance(29.5); // 150
    ASSERT_TRUE(clock->waitForSleepers(1));
    clock->advance(60); // 210
    ASSERT_TRUE(events.waitFor([&] {
        return events.states.size() >= 5 && events.states.back().state == RecorderState::restarting;
    }));
    EXPECT_FALSE(logged("engine stalled — force restart #3")) << "the audio before 150 cleared the count";

    // The restart waiting for its half second is cancelled with the pause.
    recorder->pause();
    clock->advance(1);
    EXPECT_FALSE(backend->microphoneRunning()) << "a restart after the pause would record a paused meeting";
    EXPECT_EQ(events.states.back(), change(RecorderState::paused, "user"));
    recorder->stop();
}

TEST_F(RecorderFixture, TenMinutesOfDigitalSilenceRecordWithoutARestart) {
    auto clock = std::make_shared<SteppingClock>();
    make(clock);
    recorder->start(input(SystemAudioMode::off));
    ASSERT_TRUE(clock->waitForSleepers(1));
    // Exact zeros, as a muted microphone in a quiet meeting gives them, 30 seconds between health ticks.
    const std::vector<float> silence(8000, 0.0f);
    for (int tick = 0; tick < 20; ++tick) {
        for (int i = 0; i < 180; ++i) { // 30 seconds
            ASSERT_TRUE(backend->pushMicrophone(silence));
        }
        clock->advance(30);
        ASSERT_TRUE(clock->waitForSleepers(1));
    }
    EXPECT_FALSE(logged("engine stalled — force restart #1"));
    EXPECT_EQ(backend->microphoneIds.size(), 1u);
    recorder->stop();
    for (const auto& state : events.stateWords()) {
        EXPECT_NE(state, RecorderState::restarting);
        EXPECT_NE(state, RecorderState::error);
    }
    Bytes all;
    for (const auto& c : uploader->snapshot()) {
        all.insert(all.end(), c.data.begin(), c.data.end());
    }
    auto decoded = decodeAdts(all);
    ASSERT_TRUE(decoded.ok);
    EXPECT_NEAR(decoded.seconds(), 600.0, 0.1);
}

TEST_F(RecorderFixture, AudioCaptureRightIsProbedAndRequestGivesUpAfterTenSeconds) {
    auto clock = std::make_shared<ManualClock>();
    make(clock);
    EXPECT_EQ(recorder->checkAudioCapturePermission(), PermissionState::granted) << "no aggregate path: n/a";
    EXPECT_EQ(backend->probes, 0);
    backend->aggregateSupported = true;
    backend->probeAnswer = false;
    EXPECT_EQ(recorder->checkAudioCapturePermission(), PermissionState::notDetermined);
    EXPECT_TRUE(logged("[tap] audio-capture toestemming: nee — belgesprekken worden niet opgenomen"));
    auto before = clock->now();
    EXPECT_EQ(recorder->requestAudioCapturePermission(), PermissionState::denied);
    EXPECT_DOUBLE_EQ(secondsBetween(before, clock->now()), 10.0);
    EXPECT_EQ(backend->probes, 1 + 21);
    EXPECT_TRUE(logged("[tap] audio-capture permissie niet verleend — belgesprekken worden niet opgenomen"));

    devices->systemAudio = false;
    EXPECT_EQ(recorder->checkSystemAudioPermission(), PermissionState::notDetermined);
    EXPECT_EQ(recorder->requestSystemAudioPermission(), PermissionState::denied);
    devices->systemAudio = true;
    backend->probeAnswer = true;
    EXPECT_EQ(recorder->requestSystemAudioPermission(), PermissionState::granted);
    EXPECT_TRUE(logged("[tap] audio-capture permissie geprimed: toegestaan"));
    EXPECT_EQ(recorder->uploadedSequences(), (std::vector<int>{7}));
    EXPECT_EQ(recorder->failedChunks(), (std::vector<FailedChunk>{{3, "gone"}}));
}
