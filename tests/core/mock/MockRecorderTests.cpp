#include "core/mock/MockRecorder.h"
#include "core/recording/RecorderError.h"
#include "core/support/SteppingClock.h"
#include "helpers/FakeUploadWorker.h"

#include <gtest/gtest.h>

#include <mutex>

using namespace kavelo;
using kavelo::testing::FakeUploadWorker;

namespace {

RecorderStateChange change(RecorderState state, const std::function<void(RecorderStateChange&)>& fill = {}) {
    RecorderStateChange c;
    c.state = state;
    if (fill) {
        fill(c);
    }
    return c;
}

// Collects what the recorder reports, from whatever thread it reports on.
struct Heard {
    std::mutex mutex;
    std::vector<AudioChunkEvent> chunks;
    std::vector<RecorderStateChange> states;
    std::vector<AudioErrorEvent> errors;
    std::vector<std::pair<double, double>> levels;

    RecorderEventHandlers handlers() {
        RecorderEventHandlers h;
        h.onAudioChunk = [this](const AudioChunkEvent& e) { add(chunks, e); };
        h.onStateChange = [this](const RecorderStateChange& e) { add(states, e); };
        h.onAudioError = [this](const AudioErrorEvent& e) { add(errors, e); };
        h.onLevel = [this](double mic, double sys) { add(levels, std::make_pair(mic, sys)); };
        return h;
    }
    template <class T> void add(std::vector<T>& list, T value) {
        std::lock_guard lock(mutex);
        list.push_back(std::move(value));
    }
    template <class T> std::vector<T> get(const std::vector<T>& list) {
        std::lock_guard lock(mutex);
        return list;
    }
};

class MockRecorderTest : public ::testing::Test {
  protected:
    std::shared_ptr<MockRecorder> make(MockRecorder::Behavior behavior = {}) {
        auto recorder = std::make_shared<MockRecorder>(behavior, clock, uploader);
        recorder->setEventHandlers(heard.handlers());
        return recorder;
    }
    // One loop step: the loop is parked in its sleep, time passes one interval, it parks again.
    void step(double seconds = 1.0) {
        ASSERT_TRUE(clock->waitForSleepers(1));
        clock->advance(seconds);
        ASSERT_TRUE(clock->waitForSleepers(1));
    }
    static StartRecordingInput input(std::string mic = "mock-mic-airpods") {
        StartRecordingInput in;
        in.recordingId = "rec-1";
        in.microphoneDeviceId = std::move(mic);
        in.systemAudioMode = SystemAudioMode::app;
        return in;
    }

    std::shared_ptr<SteppingClock> clock = std::make_shared<SteppingClock>();
    std::shared_ptr<FakeUploadWorker> uploader = std::make_shared<FakeUploadWorker>();
    Heard heard;
};

} // namespace

TEST_F(MockRecorderTest, NumbersChunksThroughAPauseAndEndsWithTheFinalOne) {
    auto recorder = make();
    recorder->start(input());
    EXPECT_EQ(recorder->currentMicrophoneId(), "mock-mic-airpods");
    EXPECT_EQ(recorder->currentSystemAudioMode(), SystemAudioMode::app);
    step();
    step();
    EXPECT_EQ(recorder->runtimeState(), (RecorderRuntimeState{true, false, false, 2, 2 * 98304, 0}));

    recorder->pause();
    step();
    step();
    EXPECT_EQ(heard.get(heard.chunks).size(), 2u) << "a paused loop emits nothing";
    EXPECT_EQ(heard.get(heard.levels).size(), 2u);
    recorder->resume();
    step();
    EXPECT_EQ(recorder->stop(), 4);

    auto chunks = heard.get(heard.chunks);
    ASSERT_EQ(chunks.size(), 4u);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(chunks[i], (AudioChunkEvent{i + 1, 98304, i == 3, 48000.0, 1}));
    }
    auto enqueued = uploader->enqueued();
    ASSERT_EQ(enqueued.size(), 4u);
    EXPECT_EQ(enqueued[2].sequence, 3);
    EXPECT_EQ(enqueued[2].data, MockRecorder::chunkContent(3, 98304));
    EXPECT_TRUE(enqueued[3].isFinal);
    // Before each cut the chunk being filled went to the journal in three steps, whole frames each time.
    Bytes journaled;
    for (const auto& entry : uploader->journaled()) {
        if (entry.sequence == 3) {
            journaled.insert(journaled.end(), entry.data.begin(), entry.data.end());
        }
    }
    const auto third = MockRecorder::chunkContent(3, 98304);
    EXPECT_EQ(journaled, Bytes(third.begin(), third.begin() + 3 * 98304 / 4));
    EXPECT_EQ(uploader->journaled().size(), 9u) << "three per loop chunk; the final one is cut at the stop";
    for (auto [mic, sys] : heard.get(heard.levels)) {
        EXPECT_TRUE(mic >= 0.1 && mic <= 0.7 && sys >= 0.05 && sys <= 0.5);
    }
    auto states = heard.get(heard.states);
    ASSERT_EQ(states.size(), 4u);
    EXPECT_EQ(states[0], change(RecorderState::recording));
    EXPECT_EQ(states[1], change(RecorderState::paused, [](auto& c) { c.reason = "user"; }));
    EXPECT_EQ(states[2].state, RecorderState::recording);
    EXPECT_EQ(states[3], change(RecorderState::stopped));
    EXPECT_FALSE(recorder->runtimeState().recordingActive);
    EXPECT_EQ(recorder->pendingSequences(), (std::vector<int>{1, 2, 3, 4}));
}

TEST_F(MockRecorderTest, StopWithoutStartAnswersTheCurrentSequence) {
    auto recorder = make();
    EXPECT_EQ(recorder->stop(), 0);
    EXPECT_EQ(heard.get(heard.chunks), (std::vector<AudioChunkEvent>{{0, 98304, true, 48000.0, 1}}));
    EXPECT_EQ(heard.get(heard.states).back().state, RecorderState::stopped);
}

TEST_F(MockRecorderTest, ConfiguredFailuresAndPermissions) {
    MockRecorder::Behavior behavior;
    behavior.failResumeTimes = 2;
    behavior.micPermission = PermissionState::notDetermined;
    behavior.systemAudioPermission = PermissionState::denied;
    auto recorder = make(behavior);
    EXPECT_EQ(recorder->checkMicrophonePermission(), PermissionState::notDetermined);
    EXPECT_EQ(recorder->requestMicrophonePermission(), PermissionState::granted);
    EXPECT_EQ(recorder->checkMicrophonePermission(), PermissionState::granted);
    EXPECT_EQ(recorder->requestSystemAudioPermission(), PermissionState::denied);
    EXPECT_EQ(recorder->checkAudioCapturePermission(), PermissionState::granted);

    recorder->start(input(""));
    EXPECT_EQ(recorder->currentMicrophoneId(), "mock-mic-builtin") << "an empty id keeps the current one";
    recorder->pause();
    for (int i = 0; i < 2; ++i) {
        try {
            recorder->resume();
            ADD_FAILURE() << "resume " << i << " should fail";
        } catch (const RecorderError& e) {
            EXPECT_EQ(e, RecorderError::resumeFailed("mock resume failure"));
        }
    }
    EXPECT_TRUE(recorder->runtimeState().userPaused);
    recorder->resume();
    recorder->pause();
    recorder->resume();
    EXPECT_FALSE(recorder->runtimeState().userPaused);
    recorder->stop();

    behavior = {};
    behavior.failStart = true;
    behavior.failPause = true;
    auto failing = make(behavior);
    EXPECT_THROW(failing->start(input()), RecorderError);
    EXPECT_THROW(failing->pause(), RecorderError);
    EXPECT_FALSE(failing->runtimeState().recordingActive);
}

TEST_F(MockRecorderTest, SwitchesAndScenariosReportWhatTheCoordinatorReads) {
    auto recorder = make();
    Heard first;
    recorder->setEventHandlers(first.handlers());
    recorder->setEventHandlers(heard.handlers()); // replaces the first record whole

    recorder->switchMicrophone("mock-mic-airpods");
    recorder->switchOutputDevice("mock-out-airpods");
    recorder->switchSystemAudioSource(SystemAudioMode::app, "app-zoom");
    recorder->switchSystemAudioSource(SystemAudioMode::system, std::nullopt);
    recorder->simulateDeviceLoss();
    recorder->simulateInterruption();
    recorder->simulateNetworkOffline();
    recorder->simulateNetworkOnline();
    recorder->simulateSilentAudio();

    EXPECT_TRUE(first.get(first.states).empty());
    auto states = heard.get(heard.states);
    ASSERT_EQ(states.size(), 8u);
    EXPECT_EQ(states[0], change(RecorderState::routeChanged, [](auto& c) {
                  c.inputChanged = true;
                  c.inputName = "mock-mic-airpods";
                  c.friendlyName = "mock-mic-airpods";
              }));
    EXPECT_EQ(states[1], change(RecorderState::routeChanged, [](auto& c) { c.inputChanged = false; }));
    EXPECT_EQ(states[2].route, "app-zoom");
    EXPECT_EQ(states[3].route, "system");
    EXPECT_EQ(states[4], change(RecorderState::error, [](auto& c) {
                  c.reason = "device_disconnected";
                  c.errorCode = "DEVICE_DISCONNECTED";
              }));
    EXPECT_EQ(states[5], change(RecorderState::interrupted, [](auto& c) { c.reason = "system"; }));
    EXPECT_EQ(states[6], change(RecorderState::networkOffline));
    EXPECT_EQ(states[7], change(RecorderState::networkOnline));
    EXPECT_EQ(heard.get(heard.errors),
              (std::vector<AudioErrorEvent>{
                  {"SILENT_AUDIO_DETECTED", "No audio detected for ~10 seconds. Check microphone."}}));
    EXPECT_EQ(recorder->currentOutputId(), "mock-out-airpods");
    EXPECT_EQ(recorder->listMicrophones().size(), 2u);
    EXPECT_EQ(recorder->listSystemAudioSources()[0].id, "system");
    EXPECT_EQ(recorder->diagnosticsSnapshot().at("platform"), "linux-mock");
}

TEST_F(MockRecorderTest, DroppingARunningRecorderEndsItsLoop) {
    auto recorder = make();
    recorder->start(input());
    step();
    std::weak_ptr<MockRecorder> weak = recorder;
    recorder.reset();
    EXPECT_TRUE(weak.expired());
    EXPECT_EQ(clock->sleeperCount(), 0u);
}
