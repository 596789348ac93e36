#include "app/capture/ADTSAACEncoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
}

#include <algorithm>
#include <cstring>
#include <mutex>

namespace kavelo {

namespace {
// An 8192-frame input buffer, the largest a capture path sends, yields at most 8 packets; an AAC-LC mono
// packet at this rate stays far below 1 KiB, so this capacity is never outgrown in practice.
constexpr std::size_t reservedOutputBytes = 8 * (1024 + ADTSAACEncoder::headerSize);
} // namespace

ADTSAACEncoder::ADTSAACEncoder(Coder coder) {
    // Closing an encoder that was never flushed makes FFmpeg warn about the frames it still held; that is
    // how every capture run ends here, so only FFmpeg's errors reach stderr.
    static std::once_flag quietLibrary;
    std::call_once(quietLibrary, [] { av_log_set_level(AV_LOG_ERROR); });
    const AVCodec* codec = avcodec_find_encoder_by_name("aac");
    if (codec == nullptr) {
        return;
    }
    AVCodecContext* context = avcodec_alloc_context3(codec);
    if (context == nullptr) {
        return;
    }
    context->sample_rate = sampleRate;
    context->sample_fmt = AV_SAMPLE_FMT_FLTP;
    context->bit_rate = bitRate;
    context->profile = FF_PROFILE_AAC_LOW;
    context->time_base = AVRational{1, sampleRate};
    av_channel_layout_default(&context->ch_layout, 1);
    if (av_opt_set(context->priv_data, "aac_coder", coder == Coder::fast ? "fast" : "twoloop", 0) < 0 ||
        avcodec_open2(context, codec, nullptr) < 0 || context->frame_size != framesPerPacket) {
        avcodec_free_context(&context);
        return;
    }
    AVFrame* frame = av_frame_alloc();
    AVPacket* packet = av_packet_alloc();
    if (frame != nullptr) {
        frame->nb_samples = framesPerPacket;
        frame->format = AV_SAMPLE_FMT_FLTP;
        frame->sample_rate = sampleRate;
        av_channel_layout_copy(&frame->ch_layout, &context->ch_layout);
    }
    if (frame == nullptr || packet == nullptr || av_frame_get_buffer(frame, 0) < 0) {
        av_frame_free(&frame);
        av_packet_free(&packet);
        avcodec_free_context(&context);
        return;
    }
    context_ = context;
    frame_ = frame;
    packet_ = packet;
    output_.reserve(reservedOutputBytes);
}

ADTSAACEncoder::~ADTSAACEncoder() {
    av_frame_free(&frame_);
    av_packet_free(&packet_);
    avcodec_free_context(&context_);
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
    if (filled_ > 0 && av_frame_make_writable(frame_) >= 0) {
        frame_->nb_samples = filled_;
        frame_->pts = nextPts_;
        nextPts_ += filled_;
        if (avcodec_send_frame(context_, frame_) == 0) {
            drainPackets();
        }
    }
    filled_ = 0;
    if (avcodec_send_frame(context_, nullptr) == 0) {
        drainPackets();
    }
    if (!output_.empty() && onEncodedData_) {
        onEncodedData_(output_);
    }
}

void ADTSAACEncoder::encodeFullFrame() {
    filled_ = 0;
    // The encoder may still reference the previous frame's data; make it ours again before the next fill.
    if (av_frame_make_writable(frame_) < 0) {
        return;
    }
    frame_->pts = nextPts_;
    nextPts_ += framesPerPacket;
    if (avcodec_send_frame(context_, frame_) < 0) {
        return;
    }
    drainPackets();
}

void ADTSAACEncoder::drainPackets() {
    while (avcodec_receive_packet(context_, packet_) == 0) {
        auto size = static_cast<std::size_t>(packet_->size);
        auto header = adtsHeader(size);
        output_.insert(output_.end(), header.begin(), header.end());
        output_.insert(output_.end(), packet_->data, packet_->data + size);
        av_packet_unref(packet_);
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
