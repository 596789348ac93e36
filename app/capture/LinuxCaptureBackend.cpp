#include "app/capture/LinuxCaptureBackend.h"

#include "app/capture/AggregateCaptureEngine.h"
#include "app/capture/PipeWireAggregateDevice.h"
#include "app/capture/PulseCaptureStream.h"
#include "app/capture/PulseConnection.h"
#include "app/capture/PulseServerSnapshot.h"
#include "app/capture/SystemAudioTargets.h"
#include "core/recording/RecorderError.h"

#include <pulse/pulseaudio.h>

#include <stdexcept>

namespace kavelo {

LinuxCaptureBackend::LinuxCaptureBackend(std::shared_ptr<Clock> clock) : clock_(std::move(clock)) {}

std::unique_ptr<MicrophoneCapture> LinuxCaptureBackend::startMicrophone(const std::string& deviceId,
                                                                        MonoBufferHandler onBuffer) {
    int error = 0;
    auto connection = PulseConnection::connect("Kavely microfoon", &error);
    if (!connection) {
        throw RecorderError::startFailed(std::string("audio server: ") + pa_strerror(error));
    }
    auto snapshot = PulseServerSnapshot::read(*connection);
    if (!snapshot) {
        throw RecorderError::startFailed("audio server did not answer");
    }
    // A device id that no device has quietly means the default input. The server names a monitor as its
    // default source when no real input exists; recording that would pass system audio off as the
    // microphone, so it counts as no microphone.
    const auto* source = deviceId.empty() ? nullptr : snapshot->source(deviceId);
    if (source == nullptr || source->isMonitor) {
        source = snapshot->source(snapshot->defaultSource);
    }
    if (source == nullptr || source->isMonitor || source->channels < 1) {
        throw RecorderError::noMicrophone();
    }
    try {
        return PulseCaptureStream::open(std::move(connection),
                                        {source->name, std::nullopt, true, "Kavely microfoon"},
                                        std::move(onBuffer));
    } catch (const std::exception& e) {
        throw RecorderError::startFailed(e.what());
    }
}

SystemAudioStartResult LinuxCaptureBackend::startSystemAudio(SystemAudioMode mode,
                                                             const std::optional<std::string>& targetId,
                                                             MonoBufferHandler onSamples) {
    using Outcome = SystemAudioStartResult::Outcome;
    SystemAudioStartResult result;
    int error = 0;
    auto connection = PulseConnection::connect("Kavely systeemaudio", &error);
    if (!connection) {
        result.outcome = error == PA_ERR_ACCESS ? Outcome::unavailable : Outcome::failed;
        result.errorText = std::string("audio server: ") + pa_strerror(error);
        return result;
    }
    auto snapshot = PulseServerSnapshot::read(*connection);
    if (!snapshot) {
        result.errorText = "audio server did not answer";
        return result;
    }
    const auto* sink = snapshot->sink(snapshot->defaultSink);
    if (sink == nullptr) {
        result.outcome = Outcome::noOutput;
        return result;
    }
    PulseCaptureStream::Target target{sink->monitorSource, std::nullopt, false, "Kavely systeemaudio"};
    // One application's sound: the monitor of its playback stream, on whatever output it plays. When it
    // plays nothing, everything the default output plays.
    if (auto prefix = SystemAudioTargets::appPrefix(targetId); mode == SystemAudioMode::app && prefix) {
        if (const auto* stream = SystemAudioTargets::streamOf(*snapshot, *prefix)) {
            for (const auto& s : snapshot->sinks) {
                if (s.index == stream->sink) {
                    target.source = s.monitorSource;
                    target.sinkInput = stream->index;
                }
            }
        }
    }
    if (target.source.empty() || snapshot->source(target.source) == nullptr) {
        result.outcome = Outcome::unavailable;
        return result;
    }
    try {
        result.capture = PulseCaptureStream::open(std::move(connection), target, std::move(onSamples));
        result.outcome = Outcome::started;
    } catch (const std::exception& e) {
        result.outcome = Outcome::failed;
        result.errorText = e.what();
    }
    return result;
}

bool LinuxCaptureBackend::aggregatePathSupported() {
    return PipeWireAggregateDevice::serverAnswers();
}

std::shared_ptr<AggregateCapture>
LinuxCaptureBackend::makeAggregateCapture(std::optional<std::string> preferredMicrophone, LogFunction log) {
    return AggregateCaptureEngine::make(std::make_shared<PipeWireAggregateDevice>(), clock_,
                                        std::move(preferredMicrophone), std::move(log));
}

bool LinuxCaptureBackend::probeAudioCapture() {
    return PipeWireAggregateDevice::canCaptureDefaultOutput();
}

} // namespace kavelo
