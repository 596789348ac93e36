#pragma once

#include <cstddef>
#include <vector>

struct SwrContext;

namespace kavelo {

class FFmpegLibrary;

// Converts a mono float stream from one rate to 48 kHz, keeping its filter state between calls (one per
// stream: microphone and system each have their own). Output memory is allocated once, for the largest
// input the caller announces.
class MonoResampler {
  public:
    MonoResampler(double inputRate, std::size_t maxInputFrames);
    ~MonoResampler();
    MonoResampler(const MonoResampler&) = delete;
    MonoResampler& operator=(const MonoResampler&) = delete;

    [[nodiscard]] bool isReady() const { return context_ != nullptr; }
    // Converts and returns the number of output frames now in output(); 0 on error or when the filter is
    // still filling.
    std::size_t convert(const float* input, std::size_t frames);
    [[nodiscard]] const float* output() const { return output_.data(); }

  private:
    const FFmpegLibrary* av_ = nullptr;
    SwrContext* context_ = nullptr;
    std::vector<float> output_;
};

} // namespace kavelo
