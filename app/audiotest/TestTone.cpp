#include "app/audiotest/TestTone.h"

#include <pulse/error.h>
#include <pulse/simple.h>

#include <cmath>
#include <memory>
#include <numbers>
#include <stdexcept>

namespace kavelo {

std::vector<float> TestTone::render(unsigned rate, double length) {
    const auto frames = static_cast<std::size_t>(std::lround(length * rate));
    std::vector<float> samples(frames);
    const double step = 2.0 * std::numbers::pi * frequency / rate;
    double phase = 0.0;
    for (auto& sample : samples) {
        sample = static_cast<float>(amplitude * std::sin(phase));
        phase += step;
        if (phase >= 2.0 * std::numbers::pi) { // keeps sin's argument small and exact over long tones
            phase -= 2.0 * std::numbers::pi;
        }
    }
    return samples;
}

void TestTone::play(const std::string& outputId) {
    const pa_sample_spec format{PA_SAMPLE_FLOAT32NE, sampleRate, 1};
    int error = 0;
    std::unique_ptr<pa_simple, decltype(&pa_simple_free)> stream(
        pa_simple_new(nullptr, "Kavely", PA_STREAM_PLAYBACK, outputId.empty() ? nullptr : outputId.c_str(),
                      "Testtoon", &format, nullptr, nullptr, &error),
        &pa_simple_free);
    if (!stream) {
        throw std::runtime_error(std::string("test tone: ") + pa_strerror(error));
    }
    const auto samples = render();
    if (pa_simple_write(stream.get(), samples.data(), samples.size() * sizeof(float), &error) < 0 ||
        pa_simple_drain(stream.get(), &error) < 0) {
        throw std::runtime_error(std::string("test tone: ") + pa_strerror(error));
    }
}

} // namespace kavelo
