#include "app/audiotest/LinuxAudioTestEngines.h"

#include "app/audiotest/TestTone.h"
#include "app/capture/PipeWireAggregateDevice.h"

#include <stdexcept>
#include <vector>

namespace kavelo {

namespace {

template <class Capture> class HeldStream final : public AudioTestEngines::Stream {
  public:
    explicit HeldStream(std::unique_ptr<Capture> capture) : capture_(std::move(capture)) {}

  private:
    std::unique_ptr<Capture> capture_;
};

class GraphProbe final : public AudioTestEngines::Stream {
  public:
    explicit GraphProbe(std::unique_ptr<PipeWireAggregateDevice> device) : device_(std::move(device)) {}
    ~GraphProbe() override { device_->teardown(); }

  private:
    std::unique_ptr<PipeWireAggregateDevice> device_;
};

// A graph cycle larger than this is not one PipeWire sends; such a buffer is cut, not followed.
constexpr std::size_t maxCycleSamples = 48000;

} // namespace

LinuxAudioTestEngines::LinuxAudioTestEngines(std::shared_ptr<CaptureBackend> backend, Environment environment)
    : backend_(std::move(backend)), environment_(std::move(environment)) {}

std::unique_ptr<AudioTestEngines::Stream> LinuxAudioTestEngines::openMicrophone(const std::string& deviceId,
                                                                                SampleHandler onSamples) {
    return std::make_unique<HeldStream<MicrophoneCapture>>(
        backend_->startMicrophone(deviceId, std::move(onSamples)));
}

std::unique_ptr<AudioTestEngines::Stream>
LinuxAudioTestEngines::openSystemProbe(SystemAudioMode mode, const std::optional<std::string>& sourceId,
                                       bool allowFallback, SampleHandler onSamples) {
    if (mode == SystemAudioMode::off) {
        return nullptr;
    }
    // The graph measures the whole output; one application's sound only the monitor of its stream gives.
    const bool graphAllowed = environment_("KAVELO_DISABLE_AUDIO_TAP") != std::optional<std::string>("1");
    if (graphAllowed && mode == SystemAudioMode::system && backend_->aggregatePathSupported()) {
        try {
            return openGraphProbe(onSamples);
        } catch (const std::exception&) {
            // Dropped, as a failed probe is: the fallback may still show a level.
        }
    }
    if (!allowFallback) {
        return nullptr;
    }
    auto result = backend_->startSystemAudio(mode, sourceId, std::move(onSamples));
    if (result.outcome != SystemAudioStartResult::Outcome::started || !result.capture) {
        return nullptr;
    }
    return std::make_unique<HeldStream<SystemAudioCapture>>(std::move(result.capture));
}

std::unique_ptr<AudioTestEngines::Stream>
LinuxAudioTestEngines::openGraphProbe(const SampleHandler& onSamples) {
    auto device = std::make_unique<PipeWireAggregateDevice>();
    const auto info = device->build(std::nullopt);
    const int microphoneChannels = info.microphoneChannels;
    auto systemSamples = std::make_shared<std::vector<float>>();
    systemSamples->reserve(maxCycleSamples);
    // On the device's worker thread: gathers the output's channels of each cycle, all of them, so the level
    // is that of everything the system plays.
    device->startIO([onSamples, microphoneChannels, systemSamples](const IOBufferList& list) {
        systemSamples->clear();
        int channel = 0;
        for (const auto& buffer : list.buffers) {
            const int channels = buffer.channels > 0 ? buffer.channels : 1;
            if (buffer.data != nullptr) {
                const std::size_t frames =
                    buffer.byteSize / sizeof(float) / static_cast<std::size_t>(channels);
                for (std::size_t f = 0; f < frames && systemSamples->size() < maxCycleSamples; ++f) {
                    for (int c = 0; c < channels; ++c) {
                        if (channel + c >= microphoneChannels) {
                            systemSamples->push_back(buffer.data[f * static_cast<std::size_t>(channels) +
                                                                 static_cast<std::size_t>(c)]);
                        }
                    }
                }
            }
            channel += channels;
        }
        if (!systemSamples->empty()) {
            onSamples(systemSamples->data(), systemSamples->size());
        }
    });
    return std::make_unique<GraphProbe>(std::move(device));
}

void LinuxAudioTestEngines::playTone(const std::string& outputId) {
    TestTone::play(outputId);
}

} // namespace kavelo
