#pragma once

#include "core/recording/NativeRecorder.h"
#include "core/support/Clock.h"
#include "core/support/Task.h"
#include "core/transport/UploadWorker.h"

#include <memory>
#include <mutex>
#include <random>

namespace kavelo {

// A recorder without audio hardware: every chunkInterval it cuts a chunk of chunkBytes bytes, hands it to
// the upload worker and reports it. A chunk is a run of well-formed ADTS frames whose payload bytes all
// hold sequence % 251, so recovery treats it as it treats real audio. Like the real recorder it fills the
// chunk in journalSlices steps and hands each step's bytes to the worker's journal before the cut. With it
// the whole recording road runs in mock mode and in unit tests. The scenario operations below drive
// warnings by hand.
//
// Thread-safety: any thread. Handlers are copied under the lock and called outside it, so a handler may
// call back in. The chunk loop holds the recorder weakly; create instances with std::make_shared.
class MockRecorder final : public NativeRecorder, public std::enable_shared_from_this<MockRecorder> {
  public:
    struct Behavior {
        double chunkInterval = 1.0; // seconds
        long long chunkBytes = 98304;
        int journalSlices = 4; // steps of chunkInterval / journalSlices; 1: no journal, the cut at once
        bool failStart = false;
        bool failPause = false;
        int failResumeTimes = 0;
        PermissionState micPermission = PermissionState::granted;
        PermissionState systemAudioPermission = PermissionState::granted;
    };

    MockRecorder(Behavior behavior, std::shared_ptr<Clock> clock,
                 std::shared_ptr<UploadWorker> uploader = nullptr);
    ~MockRecorder() override;
    MockRecorder(const MockRecorder&) = delete;
    MockRecorder& operator=(const MockRecorder&) = delete;

    void attachUploader(std::shared_ptr<UploadWorker> uploader);

    void setEventHandlers(RecorderEventHandlers handlers) override;
    PermissionState checkMicrophonePermission() override;
    PermissionState requestMicrophonePermission() override;
    PermissionState checkSystemAudioPermission() override;
    PermissionState requestSystemAudioPermission() override;
    std::vector<AudioDevice> listMicrophones() override;
    std::vector<AudioDevice> listOutputDevices() override;
    std::vector<AudioDevice> listSystemAudioSources() override;
    void start(const StartRecordingInput& input) override;
    int stop() override;
    void pause() override;
    void resume() override;
    void switchMicrophone(const std::string& deviceId) override;
    void switchOutputDevice(const std::string& deviceId) override;
    void switchSystemAudioSource(SystemAudioMode mode, const std::optional<std::string>& targetId) override;
    RecorderRuntimeState runtimeState() override;
    std::vector<int> uploadedSequences() override;
    std::vector<int> pendingSequences() override;
    std::vector<FailedChunk> failedChunks() override;
    std::map<std::string, std::string> diagnosticsSnapshot() override;

    // The mock audio of one chunk: whole frames of 256 bytes (the last one takes the remainder).
    static Bytes chunkContent(int sequence, std::size_t size);

    // Scenario operations.
    void simulateSilentAudio();
    void simulateDeviceLoss();
    void simulateInterruption();
    void simulateNetworkOffline();
    void simulateNetworkOnline();

    [[nodiscard]] std::string currentMicrophoneId() const;
    [[nodiscard]] std::string currentOutputId() const;
    [[nodiscard]] SystemAudioMode currentSystemAudioMode() const;

  private:
    void chunkLoopStep();
    void emitChunk(int sequence, bool isFinal);
    void reportState(const RecorderStateChange& change);
    void cancelChunkLoop();

    const Behavior behavior_;
    const std::shared_ptr<Clock> clock_;

    mutable std::mutex mutex_;
    RecorderEventHandlers handlers_;         // guarded by mutex_
    std::shared_ptr<UploadWorker> uploader_; // guarded by mutex_
    Task chunkTask_;                         // guarded by mutex_
    int sequence_ = 0;                       // guarded by mutex_
    int slicesFilled_ = 0;                   // guarded by mutex_; of the chunk being filled
    bool active_ = false;                    // guarded by mutex_
    bool paused_ = false;                    // guarded by mutex_
    int resumeFailuresLeft_;                 // guarded by mutex_
    PermissionState micPermissionState_;     // guarded by mutex_
    PermissionState systemPermissionState_;  // guarded by mutex_
    std::string currentMicrophoneId_ = "mock-mic-builtin";
    std::string currentOutputId_ = "mock-out-speakers";
    SystemAudioMode currentSystemAudioMode_ = SystemAudioMode::system;
    std::mt19937 random_{std::random_device{}()}; // guarded by mutex_
};

} // namespace kavelo
