#pragma once

#include "app/capture/AggregateDevice.h"
#include "app/capture/CaptureBackend.h"
#include "app/capture/MonoResampler.h"
#include "app/capture/SerialExecutor.h"
#include "core/support/Clock.h"
#include "core/support/Task.h"

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kavelo {

// The preferred capture path: microphone and everything the default output plays, in one graph under one
// clock. Each device cycle is split into a microphone and a system signal, each folded to mono by
// averaging, brought to 48 kHz and handed over, system first.
//
// Around that sits a recovery machine: a watchdog that notices a stalled graph (no cycles), rebuilds
// with delays of 1, 2, 4, 8, 8 seconds and a limit of five, default-device changes that reset the limit,
// and recovery at the first real sample.
//
// Threads: the control queue (control_) runs build, teardown, rebuilds and timer ticks, and alone touches
// the fields marked "control". The device's worker thread runs handleIO; it shares only the atomics with
// the control queue, and the mix buffers, which are made before a build starts the cycles and dropped
// only after teardown has stopped them. Timers are tasks sleeping on the clock that post their tick to
// the control queue. onInterruptionStateChanged runs on the control queue; the buffer handlers on the
// device's worker thread. start and stop must not be called from either.
class AggregateCaptureEngine final : public AggregateCapture,
                                     public std::enable_shared_from_this<AggregateCaptureEngine> {
  public:
    using Log = std::function<void(const std::string&)>;

    static constexpr double targetSampleRate = 48000.0;
    static constexpr std::size_t maxFramesPerCallback = 8192;
    static constexpr int maxRebuildAttempts = 5;
    static constexpr double stallThreshold = 6.0;
    static constexpr double startupGrace = 6.0;

    static std::shared_ptr<AggregateCaptureEngine> make(std::shared_ptr<AggregateDevice> device,
                                                        std::shared_ptr<Clock> clock,
                                                        std::optional<std::string> preferredMicrophone,
                                                        Log log);
    ~AggregateCaptureEngine() override;

    void setHandlers(MonoBufferHandler onSystemBuffer, MonoBufferHandler onMicBuffer,
                     InterruptionHandler onInterruptionStateChanged) override;
    void start() override;
    void startWatchdog() override;
    void startDiagnosticLogger() override;
    bool waitForFirstAudio(double timeoutSeconds) override;
    void stop() override;
    [[nodiscard]] long long droppedCycles() const override;

    // One device cycle (the device's worker thread). Public for tests that feed cycles by hand.
    void handleIO(const IOBufferList& list);

    struct Counters {
        long long callbackCount = 0;
        long long rawCallbackCount = 0;
        bool isRunning = false;
        long long droppedCycles = 0; // as of the last diagnostic tick or teardown
    };
    [[nodiscard]] Counters counters() const;

  private:
    AggregateCaptureEngine(std::shared_ptr<AggregateDevice> device, std::shared_ptr<Clock> clock,
                           std::optional<std::string> preferredMicrophone, Log log);

    void buildAndStart();
    void allocateBuffers();
    void teardown();
    void watchdogTick();
    void diagnosticTick();
    void noteDroppedCycles();
    void rebuild(const std::string& reason);
    void markRecovered();
    void markGivenUp(const std::string& reason);
    void onDefaultDeviceChanged();
    Task repeat(double first, double every, void (AggregateCaptureEngine::*tick)());
    [[nodiscard]] double secondsSince(const std::atomic<long long>& stamp) const;
    void stamp(std::atomic<long long>& field);

    const std::shared_ptr<AggregateDevice> device_;
    const std::shared_ptr<Clock> clock_;
    const std::optional<std::string> preferredMicrophone_;
    const Log log_;
    const std::shared_ptr<SerialExecutor> control_ = std::make_shared<SerialExecutor>();

    // Set before start, read by handleIO and the control queue.
    MonoBufferHandler onSystemBuffer_;
    MonoBufferHandler onMicBuffer_;
    InterruptionHandler onInterruptionStateChanged_;

    // Control queue; the buffers also read by handleIO while cycles run.
    int micChannelCount_ = 0;
    int totalChannelCount_ = 0;
    double aggregateSampleRate_ = 48000.0;
    std::vector<float> micMix_, sysMix_;
    std::unique_ptr<MonoResampler> micConverter_, sysConverter_;
    bool needsResample_ = false;
    bool shouldBeRunning_ = false;
    bool isRebuilding_ = false;
    int rebuildAttempts_ = 0;
    bool hasGivenUp_ = false;
    long long startedAt_ = 0; // clock time in nanoseconds since the epoch
    Task rebuildDelay_;

    // Timers: touched by start/stop on the caller's thread only.
    Task watchdog_;
    Task diagnosticTimer_;

    // Shared with handleIO.
    std::atomic<long long> lastCallbackTime_{0};
    std::atomic<long long> lastNonZeroTime_{0};
    std::atomic<long long> callbackCount_{0};
    std::atomic<long long> rawCallbackCount_{0};
    std::atomic<bool> sawNonZeroSinceBuild_{false};
    std::atomic<float> maxSystemPeakSinceLog_{0};
    std::atomic<bool> isRunning_{false};
    std::atomic<long long> droppedCycles_{0}; // written on the control queue
};

} // namespace kavelo
