#pragma once

#include "app/capture/CaptureBackend.h"
#include "core/support/Clock.h"

#include <memory>

namespace kavelo {

// The real captures: the fallback path over the PulseAudio API (PulseAudio or pipewire-pulse) and the
// aggregate path over PipeWire's own API. Stateless apart from its clock; every capture owns its own
// server connection.
class LinuxCaptureBackend final : public CaptureBackend {
  public:
    explicit LinuxCaptureBackend(std::shared_ptr<Clock> clock);

    std::unique_ptr<MicrophoneCapture> startMicrophone(const std::string& deviceId,
                                                       MonoBufferHandler onBuffer) override;
    SystemAudioStartResult startSystemAudio(SystemAudioMode mode, const std::optional<std::string>& targetId,
                                            MonoBufferHandler onSamples) override;
    bool aggregatePathSupported() override;
    std::shared_ptr<AggregateCapture> makeAggregateCapture(std::optional<std::string> preferredMicrophone,
                                                           LogFunction log) override;
    bool probeAudioCapture() override;

  private:
    std::shared_ptr<Clock> clock_;
};

} // namespace kavelo
