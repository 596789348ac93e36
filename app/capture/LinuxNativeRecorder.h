#pragma once

#include "app/capture/AudioDeviceDirectory.h"
#include "app/capture/CaptureBackend.h"
#include "core/recording/NativeRecorder.h"
#include "core/support/Bytes.h"
#include "core/support/Clock.h"
#include "core/support/CoreLogger.h"
#include "core/support/Task.h"
#include "core/transport/UploadWorker.h"

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kavelo {

class ADTSAACEncoder;

// The recorder of the Linux desktop: owns the capture path, mixes microphone and system audio, feeds the
// AAC encoder, cuts the encoded stream into numbered chunks of at least 98304 bytes, hands each chunk to the
// upload worker, and reports levels, state changes and audio errors.
//
// Two capture paths sit behind CaptureBackend: the aggregate path (PipeWire, one graph clock, mode system
// only) and the fallback path (a microphone stream plus a system-audio stream whose samples meet the
// microphone through systemRing_). All of this class is plain logic; tests drive it with fake captures.
//
// Threads: the caller's (start, stop, pause, resume, switches, which the coordinator calls one at a time);
// the capture worker that delivers microphone buffers (and with them encoding, chunk cutting and uploads,
// which may be slow: the capture paths buffer seconds of audio in front of that worker);
// the capture worker that delivers system samples; the health-check task; the restart task. mutex_ guards
// every field and is never held across a handler, encoder, upload or capture call. Handlers may be called
// on any of these threads.
class LinuxNativeRecorder final : public NativeRecorder,
                                  public std::enable_shared_from_this<LinuxNativeRecorder> {
  public:
    using Environment = std::function<std::optional<std::string>(const std::string& name)>;

    struct Dependencies {
        std::shared_ptr<UploadWorker> uploader;
        std::shared_ptr<CoreLogger> logger;
        std::shared_ptr<Clock> clock;
        std::shared_ptr<CaptureBackend> backend;
        std::shared_ptr<AudioDeviceDirectory> devices;
        Environment environment; // empty: the process environment
    };

    static constexpr std::size_t chunkCutBytes = 98304;
    static constexpr double levelGain = 12.0;
    static constexpr double micSilenceLimit = 0.001;
    static constexpr double systemSilenceLimit = 0.01;
    static constexpr int silentBuffersBeforeAlarm = 500;
    static constexpr std::size_t systemRingCapacity = 192000;
    static constexpr double healthTickSeconds = 30;
    static constexpr int staleTicksBeforeRestart = 2;
    static constexpr int forcedRestartLimit = 3;
    static constexpr double restartPauseSeconds = 0.5;
    static constexpr double firstAudioWaitSeconds = 2.5;
    static constexpr double journalIntervalSeconds = 1.0;

    static std::shared_ptr<LinuxNativeRecorder> make(Dependencies dependencies);
    ~LinuxNativeRecorder() override;
    LinuxNativeRecorder(const LinuxNativeRecorder&) = delete;
    LinuxNativeRecorder& operator=(const LinuxNativeRecorder&) = delete;

    void setEventHandlers(RecorderEventHandlers handlers) override;
    PermissionState checkMicrophonePermission() override;
    PermissionState requestMicrophonePermission() override;
    PermissionState checkSystemAudioPermission() override;
    PermissionState requestSystemAudioPermission() override;
    PermissionState checkAudioCapturePermission() override;
    PermissionState requestAudioCapturePermission() override;
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

    // The capture paths' entries. Public so that tests can feed buffers as a capture worker would.
    void handleMicBuffer(const float* samples, std::size_t frames);
    void handleAggregateSystemBuffer(const float* samples, std::size_t frames);
    void appendSystemSamples(const float* samples, std::size_t frames, double rms);
    void appendEncodedData(const Bytes& data);
    void healthCheckTick();
    // Adds the oldest ring samples into buffer, sample by sample with a hard clip at ±1, and drops them.
    void mixInSystemAudio(float* buffer, std::size_t frames);

    // Samples waiting in the system ring (for tests and diagnostics).
    [[nodiscard]] std::vector<float> systemRingSnapshot() const;

    static double rms(const float* samples, std::size_t frames);

  private:
    explicit LinuxNativeRecorder(Dependencies dependencies);

    void startCapture(const StartRecordingInput& input);
    bool startAggregateCapture(const std::string& microphoneId);
    void stopAggregateCapture();
    void startEngineGraph(const std::string& microphoneId);
    void teardownEngine();
    void awaitFirstMicrophoneSamples();
    void startSystemAudioCapture(SystemAudioMode mode, const std::optional<std::string>& targetId);
    void stopSystemAudioCapture();
    void tearDownCapture(); // stopAggregateCapture, stopSystemAudioCapture, teardownEngine
    std::shared_ptr<ADTSAACEncoder> makeEncoder();
    void retireEncoder(); // flushes and drops the encoder; its capture must have stopped
    // Cancels a forced restart that has not brought capture back yet; true when capture is down for it.
    bool cancelPendingRestart();

    void startHealthCheck();
    void stopHealthCheck();
    void forceRestart(int count);
    void emitChunk(const Bytes& data, int sequence, bool isFinal);
    void primeAudioCaptureTap();
    bool audioTapDisabled() const;
    std::string displayName(const std::string& deviceId);

    void sendState(RecorderStateChange change);
    void sendError(std::string code, std::string message);
    void sendLevel();

    const std::shared_ptr<UploadWorker> uploader_;
    const std::shared_ptr<CoreLogger> logger_;
    const std::shared_ptr<Clock> clock_;
    const std::shared_ptr<CaptureBackend> backend_;
    const std::shared_ptr<AudioDeviceDirectory> devices_;
    const Environment environment_;

    mutable std::mutex mutex_;
    RecorderEventHandlers handlers_;                    // guarded by mutex_
    std::unique_ptr<MicrophoneCapture> microphone_;     // guarded by mutex_; the fallback's microphone
    std::unique_ptr<SystemAudioCapture> systemAudio_;   // guarded by mutex_; the fallback's system stream
    std::shared_ptr<AggregateCapture> aggregateEngine_; // guarded by mutex_; set: the aggregate path runs
    std::shared_ptr<ADTSAACEncoder> encoder_;           // guarded by mutex_; new at every capture start
    Bytes chunkBuffer_;                                 // guarded by mutex_
    int sequence_ = 0;                                  // guarded by mutex_
    bool recordingActive_ = false;                      // guarded by mutex_
    bool userPaused_ = false;                           // guarded by mutex_
    bool stoppingOrRestarting_ = false;                 // guarded by mutex_
    long long totalBytesEncoded_ = 0;                   // guarded by mutex_
    std::optional<StartRecordingInput> startInput_;     // guarded by mutex_
    double systemLevel_ = 0;                            // guarded by mutex_
    double micLevel_ = 0;                               // guarded by mutex_
    Task healthTask_;                                   // guarded by mutex_
    Task restartTask_;                                  // guarded by mutex_
    long long buffersDelivered_ = 0;                    // guarded by mutex_; microphone buffers taken
    long long lastHealthBuffers_ = 0;                   // guarded by mutex_
    long long droppedCycles_ = 0;                       // guarded by mutex_; of stopped captures
    int consecutiveStaleChecks_ = 0;                    // guarded by mutex_
    int forceRestartCount_ = 0;                         // guarded by mutex_
    int silentBufferCount_ = 0;                         // guarded by mutex_
    std::deque<float> systemRing_;                      // guarded by mutex_
    struct Journaled {
        int sequence = 0;      // the chunk being filled whose journal was last fed
        std::size_t bytes = 0; // how much of chunkBuffer_ that journal holds
        TimePoint at{};
    } journaled_; // guarded by mutex_
};

} // namespace kavelo
