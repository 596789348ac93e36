#include "app/capture/MonoResampler.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

#include <cstdint>

namespace kavelo {

MonoResampler::MonoResampler(double inputRate, std::size_t maxInputFrames) {
    AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
    SwrContext* context = nullptr;
    if (swr_alloc_set_opts2(&context, &mono, AV_SAMPLE_FMT_FLT, 48000, &mono, AV_SAMPLE_FMT_FLT,
                            static_cast<int>(inputRate + 0.5), 0, nullptr) < 0 ||
        swr_init(context) < 0) {
        swr_free(&context);
        return;
    }
    context_ = context;
    output_.resize(static_cast<std::size_t>(48000.0 / inputRate * double(maxInputFrames)) + 1024);
}

MonoResampler::~MonoResampler() {
    swr_free(&context_);
}

std::size_t MonoResampler::convert(const float* input, std::size_t frames) {
    if (context_ == nullptr) {
        return 0;
    }
    auto* out = reinterpret_cast<std::uint8_t*>(output_.data());
    const auto* in = reinterpret_cast<const std::uint8_t*>(input);
    int produced =
        swr_convert(context_, &out, static_cast<int>(output_.size()), &in, static_cast<int>(frames));
    return produced > 0 ? static_cast<std::size_t>(produced) : 0;
}

} // namespace kavelo
