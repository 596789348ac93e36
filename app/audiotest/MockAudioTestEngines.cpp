#include "app/audiotest/MockAudioTestEngines.h"

#include "core/support/Task.h"

#include <cmath>
#include <numbers>
#include <vector>

namespace kavelo {

namespace {

constexpr double kBlockSeconds = 0.05;
constexpr std::size_t kBlockSamples = 2400; // 50 ms at 48 kHz

// A tone whose loudness swells and falls like speech, at `loudness` of full scale at its peak.
class SyntheticStream final : public AudioTestEngines::Stream {
  public:
    SyntheticStream(std::shared_ptr<Clock> clock, double loudness, double syllablesPerSecond,
                    AudioTestEngines::SampleHandler onSamples) {
        task_ = Task::run([clock = std::move(clock), loudness, syllablesPerSecond,
                           onSamples = std::move(onSamples)] {
            std::vector<float> block(kBlockSamples);
            double t = 0;
            while (!Task::isCurrentCancelled()) {
                const double envelope = 0.5 + 0.5 * std::sin(2 * std::numbers::pi * syllablesPerSecond * t);
                for (std::size_t i = 0; i < block.size(); ++i) {
                    const double s = t + double(i) / 48000.0;
                    block[i] = float(loudness * envelope * std::sin(2 * std::numbers::pi * 220.0 * s));
                }
                onSamples(block.data(), block.size());
                t += kBlockSeconds;
                try {
                    clock->sleep(kBlockSeconds);
                } catch (...) {
                    return; // cancelled
                }
            }
        });
    }
    ~SyntheticStream() override { task_.cancelAndJoin(); }

  private:
    Task task_;
};

} // namespace

MockAudioTestEngines::MockAudioTestEngines(std::shared_ptr<Clock> clock) : clock_(std::move(clock)) {}

std::unique_ptr<AudioTestEngines::Stream> MockAudioTestEngines::openMicrophone(const std::string&,
                                                                               SampleHandler onSamples) {
    return std::make_unique<SyntheticStream>(clock_, 0.08, 2.5, std::move(onSamples));
}

std::unique_ptr<AudioTestEngines::Stream>
MockAudioTestEngines::openSystemProbe(SystemAudioMode mode, const std::optional<std::string>&, bool,
                                      SampleHandler onSamples) {
    if (mode == SystemAudioMode::off) {
        return nullptr;
    }
    return std::make_unique<SyntheticStream>(clock_, 0.05, 1.5, std::move(onSamples));
}

void MockAudioTestEngines::playTone(const std::string&) {
    clock_->sleep(0.8);
}

} // namespace kavelo
