#pragma once

#include "app/audiotest/AudioTestEngines.h"
#include "app/capture/CaptureBackend.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kavelo {

// The audio test's streams on this machine's audio server. The microphone and the monitor fallback are
// the recorder's own fallback-path streams; the graph probe is a PipeWire graph of its own in which only
// the output's channels are measured. None of them is a recording's: each is opened for the test alone.
class LinuxAudioTestEngines final : public AudioTestEngines {
  public:
    using Environment = std::function<std::optional<std::string>(const std::string&)>;
    // environment reads the development switches; KAVELO_DISABLE_AUDIO_TAP=1 keeps the graph probe off.
    LinuxAudioTestEngines(std::shared_ptr<CaptureBackend> backend, Environment environment);

    std::unique_ptr<Stream> openMicrophone(const std::string& deviceId, SampleHandler onSamples) override;
    std::unique_ptr<Stream> openSystemProbe(SystemAudioMode mode, const std::optional<std::string>& sourceId,
                                            bool allowFallback, SampleHandler onSamples) override;
    void playTone(const std::string& outputId) override;

  private:
    std::unique_ptr<Stream> openGraphProbe(const SampleHandler& onSamples);

    const std::shared_ptr<CaptureBackend> backend_;
    const Environment environment_;
};

} // namespace kavelo
