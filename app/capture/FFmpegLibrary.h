#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

#include <string>

namespace kavelo {

// The AAC encoder and the resampler come from FFmpeg's libraries, and libavcodec brings close to a hundred
// more with it (every codec the distribution built it with). Opening them when audio is first encoded,
// instead of at exec, keeps that loading out of the program's start and out of a mock-mode run altogether.
// The headers still describe the calls, so a mismatch of types fails to compile; the libraries are the
// major versions the program was built against.
class FFmpegLibrary {
  public:
    // Loaded once per process, as the dynamic loader keeps libraries anyway; nullptr when a library or a
    // call is missing, with the loader's reason in `reason`.
    static const FFmpegLibrary* get(std::string* reason = nullptr);

    decltype(&av_log_set_level) logSetLevel = nullptr;
    decltype(&av_opt_set) optSet = nullptr;
    decltype(&av_channel_layout_default) channelLayoutDefault = nullptr;
    decltype(&av_channel_layout_copy) channelLayoutCopy = nullptr;
    decltype(&av_frame_alloc) frameAlloc = nullptr;
    decltype(&av_frame_free) frameFree = nullptr;
    decltype(&av_frame_get_buffer) frameGetBuffer = nullptr;
    decltype(&av_frame_make_writable) frameMakeWritable = nullptr;
    decltype(&avcodec_find_encoder_by_name) findEncoderByName = nullptr;
    decltype(&avcodec_alloc_context3) allocContext = nullptr;
    decltype(&avcodec_free_context) freeContext = nullptr;
    decltype(&avcodec_open2) open = nullptr;
    decltype(&avcodec_send_frame) sendFrame = nullptr;
    decltype(&avcodec_receive_packet) receivePacket = nullptr;
    decltype(&av_packet_alloc) packetAlloc = nullptr;
    decltype(&av_packet_free) packetFree = nullptr;
    decltype(&av_packet_unref) packetUnref = nullptr;
    decltype(&swr_alloc_set_opts2) swrAllocSetOpts = nullptr;
    decltype(&swr_init) swrInit = nullptr;
    decltype(&swr_free) swrFree = nullptr;
    decltype(&swr_convert) swrConvert = nullptr;

  private:
    FFmpegLibrary() = default;
    // Empty on success, else what went wrong.
    std::string load();
};

} // namespace kavelo
