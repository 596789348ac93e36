#pragma once

#include "app/audiotest/AudioTestEngines.h"
#include "core/support/Clock.h"

#include <memory>

namespace kavelo {

// The audio test of the mock world: no audio server is asked, yet the meters move as a voice and a meeting
// would, so the practice program shows what the real one shows. A stream delivers a short block every 50 ms
// on a task of its own; the tone only takes its time.
class MockAudioTestEngines final : public AudioTestEngines {
  public:
    explicit MockAudioTestEngines(std::shared_ptr<Clock> clock);

    std::unique_ptr<Stream> openMicrophone(const std::string& deviceId, SampleHandler onSamples) override;
    std::unique_ptr<Stream> openSystemProbe(SystemAudioMode mode, const std::optional<std::string>& sourceId,
                                            bool allowFallback, SampleHandler onSamples) override;
    void playTone(const std::string& outputId) override;

  private:
    const std::shared_ptr<Clock> clock_;
};

} // namespace kavelo
