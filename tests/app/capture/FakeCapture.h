#pragma once

#include "app/capture/AudioDeviceDirectory.h"
#include "app/capture/CaptureBackend.h"
#include "core/recording/RecorderError.h"
#include "core/recording/RecorderEventHandlers.h"
#include "core/transport/UploadWorker.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <stdexcept>

namespace kavelo::testing {

// Captures that deliver only what the test pushes through them. Like the real ones, a capture's end waits
// for a push under way (pushes may come from a thread of the test's own).
struct FakeCaptureBackend final : CaptureBackend {
    struct Microphone final : MicrophoneCapture {
        Microphone(FakeCaptureBackend& owner) : owner(owner) {}
        ~Microphone() override {
            std::scoped_lock lock(owner.pushing, owner.mutex);
            owner.microphoneHandler = nullptr;
            ++owner.microphonesStopped;
        }
        FakeCaptureBackend& owner;
    };
    struct System final : SystemAudioCapture {
        System(FakeCaptureBackend& owner) : owner(owner) {}
        ~System() override {
            std::scoped_lock lock(owner.pushing, owner.mutex);
            owner.systemHandler = nullptr;
            ++owner.systemsStopped;
        }
        FakeCaptureBackend& owner;
    };
    struct Aggregate final : AggregateCapture {
        Aggregate(FakeCaptureBackend& owner) : owner(owner) {}
        void setHandlers(MonoBufferHandler system, MonoBufferHandler mic, InterruptionHandler) override {
            std::lock_guard lock(owner.mutex);
            owner.aggregateSystem = std::move(system);
            owner.aggregateMic = std::move(mic);
        }
        void start() override {
            std::lock_guard lock(owner.mutex);
            if (owner.aggregateStartError) {
                throw std::runtime_error(*owner.aggregateStartError);
            }
            ++owner.aggregatesStarted;
        }
        void startWatchdog() override {}
        void startDiagnosticLogger() override {}
        bool waitForFirstAudio(double) override {
            std::lock_guard lock(owner.mutex);
            return owner.aggregateDeliversAudio;
        }
        void stop() override {
            std::scoped_lock lock(owner.pushing, owner.mutex);
            owner.aggregateSystem = nullptr;
            owner.aggregateMic = nullptr;
            ++owner.aggregatesStopped;
        }
        long long droppedCycles() const override { return 0; }
        FakeCaptureBackend& owner;
    };

    std::unique_ptr<MicrophoneCapture> startMicrophone(const std::string& deviceId,
                                                       MonoBufferHandler onBuffer) override {
        std::lock_guard lock(mutex);
        microphoneIds.push_back(deviceId);
        if (microphoneFailures > 0) {
            --microphoneFailures;
            throw RecorderError::startFailed("device busy");
        }
        microphoneHandler = std::move(onBuffer);
        return std::make_unique<Microphone>(*this);
    }
    SystemAudioStartResult startSystemAudio(SystemAudioMode mode, const std::optional<std::string>& targetId,
                                            MonoBufferHandler onSamples) override {
        std::lock_guard lock(mutex);
        systemStarts.emplace_back(mode, targetId);
        SystemAudioStartResult result;
        result.outcome = systemOutcome;
        result.errorText = "stream refused";
        if (systemOutcome == SystemAudioStartResult::Outcome::started) {
            systemHandler = std::move(onSamples);
            result.capture = std::make_unique<System>(*this);
        }
        return result;
    }
    bool aggregatePathSupported() override { return aggregateSupported; }
    std::shared_ptr<AggregateCapture> makeAggregateCapture(std::optional<std::string> preferred,
                                                           LogFunction) override {
        std::lock_guard lock(mutex);
        aggregatePreferences.push_back(preferred);
        return std::make_shared<Aggregate>(*this);
    }
    bool probeAudioCapture() override {
        std::lock_guard lock(mutex);
        ++probes;
        return probeAnswer;
    }

    // Pushes a microphone buffer as the running capture's worker would; false when none runs.
    bool pushMicrophone(const std::vector<float>& samples) {
        std::lock_guard push(pushing);
        MonoBufferHandler handler;
        {
            std::lock_guard lock(mutex);
            handler = microphoneHandler ? microphoneHandler : aggregateMic;
        }
        if (!handler) {
            return false;
        }
        handler(samples.data(), samples.size());
        return true;
    }
    bool pushSystem(const std::vector<float>& samples) {
        std::lock_guard push(pushing);
        MonoBufferHandler handler;
        {
            std::lock_guard lock(mutex);
            handler = systemHandler ? systemHandler : aggregateSystem;
        }
        if (!handler) {
            return false;
        }
        handler(samples.data(), samples.size());
        return true;
    }
    bool microphoneRunning() {
        std::lock_guard lock(mutex);
        return microphoneHandler != nullptr;
    }

    std::recursive_mutex pushing; // held while a handler runs; a capture ends only between pushes
    std::mutex mutex;
    MonoBufferHandler microphoneHandler, systemHandler, aggregateSystem, aggregateMic;
    std::vector<std::string> microphoneIds;
    std::vector<std::pair<SystemAudioMode, std::optional<std::string>>> systemStarts;
    std::vector<std::optional<std::string>> aggregatePreferences;
    int microphoneFailures = 0;
    int microphonesStopped = 0, systemsStopped = 0, aggregatesStarted = 0, aggregatesStopped = 0, probes = 0;
    SystemAudioStartResult::Outcome systemOutcome = SystemAudioStartResult::Outcome::started;
    bool aggregateSupported = false;
    std::optional<std::string> aggregateStartError;
    bool aggregateDeliversAudio = true;
    bool probeAnswer = true;
};

struct FakeDeviceDirectory final : AudioDeviceDirectory {
    std::vector<AudioDevice> listMicrophones() override { return {}; }
    std::vector<AudioDevice> listOutputDevices() override { return {}; }
    std::vector<AudioDevice> listSystemAudioSources() override { return {}; }
    std::optional<std::string> deviceName(const std::string& id) override {
        auto it = names.find(id);
        return it == names.end() ? std::nullopt : std::optional(it->second);
    }
    bool setDefaultOutputDevice(const std::string& id) override {
        defaultOutputRequests.push_back(id);
        return outputSwitchWorks;
    }
    PermissionState microphoneAccess() override { return microphone; }
    bool systemAudioAccess() override { return systemAudio; }

    std::map<std::string, std::string> names;
    std::vector<std::string> defaultOutputRequests;
    bool outputSwitchWorks = true;
    PermissionState microphone = PermissionState::granted;
    bool systemAudio = true;
};

struct FakeUploadWorker final : UploadWorker {
    struct Enqueued {
        Bytes data;
        int sequence;
        bool isFinal;
    };
    void configure(const std::string&, const std::optional<std::string>&, const std::string&,
                   const std::string&, const std::optional<std::string>&) override {}
    void enqueue(const Bytes& data, int sequence, bool isFinal, double, int) override {
        if (beforeStore) {
            beforeStore(sequence); // a slow disk, for the tests that need one
        }
        std::lock_guard lock(mutex);
        chunks.push_back({data, sequence, isFinal});
    }
    void journal(const Bytes& appended, int sequence) override {
        std::lock_guard lock(mutex);
        journaled.push_back({appended, sequence, false});
    }
    void scheduleDrain() override {}
    void acceptServerAcks(const std::vector<int>&) override {}
    void requeue(const std::vector<int>&) override {}
    void retryFailed() override {}
    void updateAuthToken(const std::optional<std::string>&) override {}
    std::vector<int> uploadedSequences() const override { return {7}; }
    std::vector<int> pendingSequences() const override { return {8, 9}; }
    std::vector<FailedChunk> failedChunks() const override { return {{3, "gone"}}; }
    void setOnEvent(EventHandler) override {}

    std::vector<Enqueued> snapshot() const {
        std::lock_guard lock(mutex);
        return chunks;
    }
    std::vector<Enqueued> journalSnapshot() const {
        std::lock_guard lock(mutex);
        return journaled;
    }
    std::function<void(int sequence)> beforeStore; // set before the recording starts
    mutable std::mutex mutex;
    std::vector<Enqueued> chunks;
    std::vector<Enqueued> journaled;
};

// Everything the recorder reported, in order, with a way to wait for what another thread reports.
struct RecordedEvents {
    RecorderEventHandlers handlers() {
        RecorderEventHandlers h;
        h.onAudioChunk = [this](const AudioChunkEvent& e) { add([&] { chunks.push_back(e); }); };
        h.onStateChange = [this](const RecorderStateChange& e) { add([&] { states.push_back(e); }); };
        h.onAudioError = [this](const AudioErrorEvent& e) { add([&] { errors.push_back(e); }); };
        h.onLevel = [this](double mic, double system) { add([&] { levels.emplace_back(mic, system); }); };
        return h;
    }
    template <class F> void add(F f) {
        {
            std::lock_guard lock(mutex);
            f();
        }
        changed.notify_all();
    }
    // Waits (in real time, bounded) until pred holds under the lock; a rendezvous with another thread.
    template <class P> bool waitFor(P pred) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(10), pred);
    }
    std::vector<RecorderState> stateWords() {
        std::lock_guard lock(mutex);
        std::vector<RecorderState> words;
        for (const auto& s : states) {
            words.push_back(s.state);
        }
        return words;
    }
    std::vector<std::string> errorCodes() {
        std::lock_guard lock(mutex);
        std::vector<std::string> codes;
        for (const auto& e : errors) {
            codes.push_back(e.code);
        }
        return codes;
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<AudioChunkEvent> chunks;
    std::vector<RecorderStateChange> states;
    std::vector<AudioErrorEvent> errors;
    std::vector<std::pair<double, double>> levels;
};

} // namespace kavelo::testing
