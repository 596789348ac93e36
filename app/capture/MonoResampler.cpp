#include "app/capture/MonoResampler.h"

#include "app/capture/FFmpegLibrary.h"

#include <cstdint>

namespace kavelo {

MonoResampler::MonoResampler(double inputRate, std::size_t maxInputFrames) {
    av_ = FFmpegLibrary::get();
    if (av_ == nullptr) {
        return;
    }
    AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
    SwrContext* context = nullptr;
    if (av_->swrAllocSetOpts(&context, &mono, AV_SAMPLE_FMT_FLT, 48000, &mono, AV_SAMPLE_FMT_FLT,
                             static_cast<int>(inputRate + 0.5), 0, nullptr) < 0 ||
        av_->swrInit(context) < 0) {
        av_->swrFree(&context);
        return;
    }
    context_ = context;
    output_.resize(static_cast<std::size_t>(48000.0 / inputRate * double(maxInputFrames)) + 1024);
}

MonoResampler::~MonoResampler() {
    if (context_ != nullptr) {
        av_->swrFree(&context_);
    }
}

std::size_t MonoResampler::convert(const float* input, std::size_t frames) {
    if (context_ == nullptr) {
        return 0;
    }
    auto* out = reinterpret_cast<std::uint8_t*>(output_.data());
    const auto* in = reinterpret_cast<const std::uint8_t*>(input);
    int produced =
        av_->swrConvert(context_, &out, static_cast<int>(output_.size()), &in, static_cast<int>(frames));
    return produced > 0 ? static_cast<std::size_t>(produced) : 0;
}

} // namespace kavelo
