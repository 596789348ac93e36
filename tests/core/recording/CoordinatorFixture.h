#pragma once

#include "FakeRecordingAPI.h"

#include "core/mock/MockRecorder.h"
#include "core/recording/ForwardingRecorder.h"
#include "core/recording/InMemoryRecoveryStore.h"
#include "core/recording/RecorderError.h"
#include "core/recording/RecordingCoordinator.h"
#include "core/support/SteppingClock.h"
#include "helpers/FakeUploadWorker.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include <unistd.h>

namespace kavelo::testing {

// A recorder that answers as the mock does, except where a test wants otherwise.
class ScriptedRecorder final : public ForwardingRecorder {
  public:
    explicit ScriptedRecorder(std::shared_ptr<MockRecorder> inner) : ForwardingRecorder(std::move(inner)) {}

    std::atomic<int> listMicrophoneCalls{0};
    std::atomic<bool> noMicrophones{false};
    std::atomic<bool> failStop{false};
    std::atomic<bool> failSwitch{false};
    std::atomic<bool> stopAnswersBeyondTheLastChunk{false}; // a final chunk that is never reported
    std::atomic<bool> holdBackFinalChunk{false};            // a final chunk reported only later
    std::atomic<long long> bytesEncoded{-1};                // set: what the encoder made so far
    std::atomic<long long> droppedCycles{0};                // audio the capture lost

    void setEventHandlers(RecorderEventHandlers handlers) override {
        auto onChunk = handlers.onAudioChunk;
        handlers.onAudioChunk = [this, onChunk](const AudioChunkEvent& e) {
            if (onChunk && !(e.isFinal && holdBackFinalChunk)) {
                onChunk(e);
            }
        };
        inner_->setEventHandlers(std::move(handlers));
    }
    std::vector<AudioDevice> listMicrophones() override {
        ++listMicrophoneCalls;
        return noMicrophones ? std::vector<AudioDevice>{} : inner_->listMicrophones();
    }
    void start(const StartRecordingInput& input) override {
        started = input;
        inner_->start(input);
    }
    int stop() override {
        if (failStop) {
            throw RecorderError::notRecording();
        }
        int last = inner_->stop();
        return stopAnswersBeyondTheLastChunk ? last + 1 : last;
    }
    void switchMicrophone(const std::string& id) override {
        if (failSwitch) {
            throw RecorderError::notRecording();
        }
        inner_->switchMicrophone(id);
    }

    RecorderRuntimeState runtimeState() override {
        auto state = inner_->runtimeState();
        if (bytesEncoded >= 0) {
            state.totalBytesEncoded = bytesEncoded;
        }
        state.droppedCycles = droppedCycles;
        return state;
    }

    std::optional<StartRecordingInput> started;
};

// The coordinator on the mock world and a stepping clock. The mock recorder's chunk interval is long by
// default, so that only the timers under test wake; tests that want chunks emit them through ingest or
// set a short interval.
struct CoordinatorWorld {
    static constexpr double kChunkInterval = 1.0e6;

    CoordinatorWorld() {
        static std::atomic<int> counter{0};
        dataDir = std::filesystem::temp_directory_path() /
                  ("kavelo-coordinator-" + std::to_string(::getpid()) + "-" + std::to_string(++counter));
        std::filesystem::remove_all(dataDir);
        behavior.chunkInterval = kChunkInterval;
        behavior.chunkBytes = 64;
    }
    CoordinatorWorld(const CoordinatorWorld&) = delete;
    CoordinatorWorld& operator=(const CoordinatorWorld&) = delete;

    ~CoordinatorWorld() {
        coordinator.reset();
        recorder.reset();
        mock.reset();
        std::filesystem::remove_all(dataDir);
    }

    void build() {
        mock = std::make_shared<MockRecorder>(behavior, clock, uploader);
        recorder = std::make_shared<ScriptedRecorder>(mock);
        auto logger = std::make_shared<CoreLogger>(clock, 2000);
        RecordingCoordinator::Services services;
        services.config.supabaseUrl = "https://backend.test";
        services.config.anonKey = "anon";
        services.config.appVersion = "2.0.0";
        services.api = api;
        services.recorder = recorder;
        services.uploader = uploader;
        services.chunkStore = std::make_shared<ChunkStore>(dataDir);
        services.recoveryStore = recovery;
        services.mapping = std::make_shared<SpeakerMappingService>(api, clock);
        services.finalizeService = std::make_shared<FinalizeService>(api, clock, finalizeConfig, logger);
        services.diagnostics = diagnostics;
        services.clock = clock;
        services.logger = logger;
        chunkStore = services.chunkStore;
        coordinator = RecordingCoordinator::create(services, hooks, timings);
        coordinator->onPhaseChange([this](RecordingPhase p) {
            std::lock_guard lock(phasesMutex);
            phases.push_back(p);
        });
    }

    static PreflightContext context(SystemAudioMode mode = SystemAudioMode::system) {
        PreflightContext ctx;
        ctx.user.id = "user-1";
        ctx.user.email = "Host@Example.com";
        ctx.userName = "Host";
        ctx.organizationId = "org-1";
        ctx.meetingName = "Weekstart";
        ctx.microphoneDeviceId = "mock-mic-airpods";
        ctx.systemAudioMode = mode;
        ctx.outputLanguage = "en";
        return ctx;
    }

    // Signs in and starts; the phase is then recording.
    void startRecording() {
        if (!coordinator) {
            build();
        }
        coordinator->sessionDidSignIn();
        coordinator->startRecording(context());
        ASSERT_EQ(coordinator->phase(), RecordingPhase::recording);
        ASSERT_TRUE(clock->waitForSleepers(2)); // the mock's chunk loop and the first-chunk watchdog
    }

    // Waits until exactly n tasks sleep on the clock and stay so for a few checks: the coordinator's tasks
    // start asynchronously, and time must not move before they sleep. A rendezvous, not a delay.
    void waitForSleepersExactly(std::size_t n) {
        int stable = 0;
        for (int i = 0; i < 5000 && stable < 3; ++i) {
            stable = clock->sleeperCount() == n ? stable + 1 : 0;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        ASSERT_EQ(clock->sleeperCount(), n);
    }

    // A first chunk ends the watchdog, so that only the mock's chunk loop sleeps.
    void deliverFirstChunk() {
        coordinator->ingest(AudioChunkEvent{1, 64, false, 48000.0, 1});
        waitForSleepersExactly(1);
    }

    // Waits (in real time, bounded) until a task of the coordinator has moved the phase.
    void waitForPhase(RecordingPhase phase) {
        for (int i = 0; i < 5000 && coordinator->phase() != phase; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        ASSERT_EQ(coordinator->phase(), phase);
    }

    // Records, stops, and lets the processing screen run its minimum: the mapping finds no meeting, so
    // the speaker review opens after 2.3 seconds.
    void reachSpeakerReview() {
        startRecording();
        deliverFirstChunk();
        uploader->setUploaded({1});
        coordinator->stopTapped();
        coordinator->stopConfirmed();
        ASSERT_EQ(coordinator->phase(), RecordingPhase::processingMapping);
        waitForSleepersExactly(2); // the processing sequence and the reconciliation
        clock->advance(2.3);
        waitForPhase(RecordingPhase::speakerReview);
    }

    std::vector<RecordingPhase> heardPhases() {
        std::lock_guard lock(phasesMutex);
        return phases;
    }

    bool logged(const std::string& message) {
        for (const auto& line : diagnostics->payload({}).logs) {
            if (line.msg == message) {
                return true;
            }
        }
        return false;
    }

    std::shared_ptr<SteppingClock> clock =
        std::make_shared<SteppingClock>(TimePoint{std::chrono::seconds(1'800'000'000)});
    std::shared_ptr<FakeRecordingAPI> api = std::make_shared<FakeRecordingAPI>();
    std::shared_ptr<FakeUploadWorker> uploader = std::make_shared<FakeUploadWorker>();
    std::shared_ptr<InMemoryRecoveryStore> recovery = std::make_shared<InMemoryRecoveryStore>();
    std::shared_ptr<DiagnosticsCollector> diagnostics =
        std::make_shared<DiagnosticsCollector>(clock, "linux", "2.0.0");
    std::shared_ptr<ChunkStore> chunkStore;
    MockRecorder::Behavior behavior;
    RecordingCoordinatorHooks hooks{
        .isUpdateRequired = [] { return false; },
        .currentProfileName = [] { return std::optional<std::string>("Host"); },
        .currentAccessToken = [] { return std::optional<std::string>("token-1"); },
        .onFinalizeSuccess = {},
    };
    RecordingCoordinator::Timings timings;
    FinalizeService::Config finalizeConfig;
    std::filesystem::path dataDir;

    std::shared_ptr<MockRecorder> mock;
    std::shared_ptr<ScriptedRecorder> recorder;
    std::shared_ptr<RecordingCoordinator> coordinator;

    std::mutex phasesMutex;
    std::vector<RecordingPhase> phases;
};

class CoordinatorFixture : public ::testing::Test, public CoordinatorWorld {};

} // namespace kavelo::testing
