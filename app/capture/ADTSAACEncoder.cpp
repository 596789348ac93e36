#include "app/capture/ADTSAACEncoder.h"

#include "app/capture/FFmpegLibrary.h"

#include <algorithm>
#include <cstring>

namespace kavelo {

namespace {
// An 8192-frame input buffer, the largest a capture path sends, yields at most 8 packets; an AAC-LC mono
// packet at this rate stays far below 1 KiB, so this capacity is never outgrown in practice.
constexpr std::size_t reservedOutputBytes = 8 * (1024 + ADTSAACEncoder::headerSize);
} // namespace

ADTSAACEncoder::ADTSAACEncoder(Coder coder) {
    av_ = FFmpegLibrary::get();
    if (av_ == nullptr) {
        return;
    }
    const AVCodec* codec = av_->findEncoderByName("aac");
    if (codec == nullptr) {
        return;
    }
    AVCodecContext* context = av_->allocContext(codec);
    if (context == nullptr) {
        return;
    }
    context->sample_rate = sampleRate;
    context->sample_fmt = AV_SAMPLE_FMT_FLTP;
    context->bit_rate = bitRate;
    context->profile = FF_PROFILE_AAC_LOW;
    context->time_base = AVRational{1, sampleRate};
    av_->channelLayoutDefault(&context->ch_layout, 1);
    if (av_->optSet(context->priv_data, "aac_coder", coder == Coder::fast ? "fast" : "twoloop", 0) < 0 ||
        av_->open(context, codec, nullptr) < 0 || context->frame_size != framesPerPacket) {
        av_->freeContext(&context);
        return;
    }
    AVFrame* frame = av_->frameAlloc();
    AVPacket* packet = av_->packetAlloc();
    if (frame != nullptr) {
        frame->nb_samples = framesPerPacket;
        frame->format = AV_SAMPLE_FMT_FLTP;
        frame->sample_rate = sampleRate;
        av_->channelLayoutCopy(&frame->ch_layout, &context->ch_layout);
    }
    if (frame == nullptr || packet == nullptr || av_->frameGetBuffer(frame, 0) < 0) {
        av_->frameFree(&frame);
        av_->packetFree(&packet);
        av_->freeContext(&context);
        return;
    }
    context_ = context;
    frame_ = frame;
    packet_ = packet;
    output_.reserve(reservedOutputBytes);
}

ADTSAACEncoder::~ADTSAACEncoder() {
    if (av_ == nullptr) {
        return;
    }
    av_->frameFree(&frame_);
    av_->packetFree(&packet_);
    av_->freeContext(&context_);
}

void ADTSAACEncoder::encode(const float* samples, std::size_t frameCount) {
    if (context_ == nullptr || samples == nullptr || flushed_) {
        return;
    }
    output_.clear();
    std::size_t offset = 0;
    while (offset < frameCount) {
        auto room = static_cast<std::size_t>(framesPerPacket - filled_);
        auto take = std::min(room, frameCount - offset);
        auto* target = reinterpret_cast<float*>(frame_->data[0]) + filled_;
        std::memcpy(target, samples + offset, take * sizeof(float));
        filled_ += static_cast<int>(take);
        offset += take;
        if (filled_ == framesPerPacket) {
            encodeFullFrame();
        }
    }
    if (!output_.empty() && onEncodedData_) {
        onEncodedData_(output_);
    }
}

void ADTSAACEncoder::flush() {
    if (context_ == nullptr || flushed_) {
        return;
    }
    flushed_ = true;
    output_.clear();
    // The encoder takes a short last frame: the recording ends where its audio ends, not a frame later.
    if (filled_ > 0 && av_->frameMakeWritable(frame_) >= 0) {
        frame_->nb_samples = filled_;
        frame_->pts = nextPts_;
        nextPts_ += filled_;
        if (av_->sendFrame(context_, frame_) == 0) {
            drainPackets();
        }
    }
    filled_ = 0;
    if (av_->sendFrame(context_, nullptr) == 0) {
        drainPackets();
    }
    if (!output_.empty() && onEncodedData_) {
        onEncodedData_(output_);
    }
}

void ADTSAACEncoder::encodeFullFrame() {
    filled_ = 0;
    // The encoder may still reference the previous frame's data; make it ours again before the next fill.
    if (av_->frameMakeWritable(frame_) < 0) {
        return;
    }
    frame_->pts = nextPts_;
    nextPts_ += framesPerPacket;
    if (av_->sendFrame(context_, frame_) < 0) {
        return;
    }
    drainPackets();
}

void ADTSAACEncoder::drainPackets() {
    while (av_->receivePacket(context_, packet_) == 0) {
        auto size = static_cast<std::size_t>(packet_->size);
        auto header = adtsHeader(size);
        output_.insert(output_.end(), header.begin(), header.end());
        output_.insert(output_.end(), packet_->data, packet_->data + size);
        av_->packetUnref(packet_);
    }
}

ADTSAACEncoder::Header ADTSAACEncoder::adtsHeader(std::size_t payloadLength) {
    const auto length = payloadLength + headerSize;
    return Header{
        0xFF,
        0xF1,
        0x4C,
        static_cast<std::uint8_t>(0x40 | ((length >> 11) & 0x03)),
        static_cast<std::uint8_t>((length >> 3) & 0xFF),
        static_cast<std::uint8_t>(((length & 0x07) << 5) | 0x1F),
        0xFC,
    };
}

} // namespace kavelo
