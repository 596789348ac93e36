#pragma once

#include "core/recording/SystemAudioMode.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kavelo {

// The capture-source seam of the recorder. Everything behind it talks to an audio server; everything in
// front of it (LinuxNativeRecorder) is plain logic over float buffers and byte strings, tested with fakes.
//
// Samples always cross this seam as 48 kHz mono 32-bit floats. The pointer is valid only for the call: a
// handler copies what it keeps. Handlers run on the capture's own worker thread, never on the audio
// server's real-time thread, and may take locks; they must not call back into the capture that calls them.

using MonoBufferHandler = std::function<void(const float* samples, std::size_t frames)>;

// A running microphone stream (the fallback path). Destroying it stops capture: once the destructor has
// returned, no handler call is under way or will come. Destroying it from inside its own handler is allowed
// and does not wait for itself.
class MicrophoneCapture {
  public:
    virtual ~MicrophoneCapture() = default;
    // Waits (bounded, and cut short by the calling task's cancellation) until the audio server has sent
    // the stream's first samples: a stream that is ready is not yet one that records, and a server that
    // still has to link or wake the device takes a good part of a second. True once samples came.
    virtual bool waitForFirstSamples(double timeoutSeconds) {
        (void)timeoutSeconds;
        return true;
    }
};

// A running system-audio stream (the fallback path), with the same destruction contract.
class SystemAudioCapture {
  public:
    virtual ~SystemAudioCapture() = default;
};

// How an attempt to capture system audio on the fallback path ended. Every outcome but started leaves the
// recording on the microphone alone.
struct SystemAudioStartResult {
    enum class Outcome {
        started,     // capture runs
        unavailable, // the audio server refuses us its output (no right to it)
        noOutput,    // there is no output device whose sound could be captured
        failed,      // looking up, connecting or starting the stream went wrong: see errorText
    };
    Outcome outcome = Outcome::failed;
    std::string errorText;
    std::unique_ptr<SystemAudioCapture> capture; // set when started
};

// The preferred path: microphone and system audio through one graph clock, delivered per cycle, system
// before microphone. See AggregateCaptureEngine for the real one.
class AggregateCapture {
  public:
    using InterruptionHandler = std::function<void(bool interrupted)>;
    virtual ~AggregateCapture() = default;

    // Set before start; not changed afterwards.
    virtual void setHandlers(MonoBufferHandler onSystemBuffer, MonoBufferHandler onMicBuffer,
                             InterruptionHandler onInterruptionStateChanged) = 0;
    // Builds the graph and starts it; throws std::runtime_error with a description when that fails.
    virtual void start() = 0;
    virtual void startWatchdog() = 0;
    virtual void startDiagnosticLogger() = 0;
    // True as soon as one processed cycle has come, false when the timeout passed first.
    virtual bool waitForFirstAudio(double timeoutSeconds) = 0;
    // Tears everything down; no handler runs after it has returned (unless called from a handler).
    virtual void stop() = 0;
    // Cycles the audio server produced that were lost because the handlers fell seconds behind.
    [[nodiscard]] virtual long long droppedCycles() const = 0;
};

// Opens captures. Implemented over PipeWire and the PulseAudio API by LinuxCaptureBackend.
class CaptureBackend {
  public:
    using LogFunction = std::function<void(const std::string&)>;
    virtual ~CaptureBackend() = default;

    // An empty deviceId, or one no device has, means the default input. Throws RecorderError::noMicrophone
    // when there is no input to open, RecorderError::startFailed with a description when the stream fails.
    virtual std::unique_ptr<MicrophoneCapture> startMicrophone(const std::string& deviceId,
                                                               MonoBufferHandler onBuffer) = 0;
    // Mode system: everything the default output plays. Mode app with targetId "app:<prefix>": only the
    // streams of the meeting application that prefix names, or everything when it plays nothing. Never
    // throws.
    virtual SystemAudioStartResult startSystemAudio(SystemAudioMode mode,
                                                    const std::optional<std::string>& targetId,
                                                    MonoBufferHandler onSamples) = 0;

    // Whether the aggregate path exists on this machine at all (a PipeWire server answers). When it does
    // not, the path is not tried and nothing is reported, as with an operating system that lacks it.
    virtual bool aggregatePathSupported() = 0;
    virtual std::shared_ptr<AggregateCapture>
    makeAggregateCapture(std::optional<std::string> preferredMicrophone, LogFunction log) = 0;
    // The audio-capture right: whether the aggregate path may read the default output's sound.
    virtual bool probeAudioCapture() = 0;
};

} // namespace kavelo
