#include "app/capture/FFmpegLibrary.h"

#include <dlfcn.h>

#include <cstdio>

namespace kavelo {

namespace {

#define KAVELO_STRINGIFY_INNER(x) #x
#define KAVELO_STRINGIFY(x) KAVELO_STRINGIFY_INNER(x)

void* openLibrary(const char* name, std::string& reason) {
    // The libraries stay loaded for the life of the process: handles are never closed.
    void* handle = ::dlopen(name, RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr && reason.empty()) {
        const char* error = ::dlerror();
        reason = error ? error : name;
    }
    return handle;
}

template <class F> void resolve(void* handle, const char* symbol, F& target, std::string& reason) {
    if (handle == nullptr) {
        return;
    }
    target = reinterpret_cast<F>(::dlsym(handle, symbol));
    if (target == nullptr && reason.empty()) {
        reason = std::string("missing ") + symbol;
    }
}

} // namespace

const FFmpegLibrary* FFmpegLibrary::get(std::string* reason) {
    static const auto loaded = [] {
        auto* library = new FFmpegLibrary;
        std::string failure = library->load();
        if (!failure.empty()) {
            std::fprintf(stderr, "kavelo: the audio encoding libraries cannot be opened: %s\n",
                         failure.c_str());
            delete library;
            library = nullptr;
        }
        return std::make_pair(library, failure);
    }();
    if (reason != nullptr) {
        *reason = loaded.second;
    }
    return loaded.first;
}

std::string FFmpegLibrary::load() {
    std::string reason;
    void* util = openLibrary("libavutil.so." KAVELO_STRINGIFY(LIBAVUTIL_VERSION_MAJOR), reason);
    void* resample = openLibrary("libswresample.so." KAVELO_STRINGIFY(LIBSWRESAMPLE_VERSION_MAJOR), reason);
    void* codec = openLibrary("libavcodec.so." KAVELO_STRINGIFY(LIBAVCODEC_VERSION_MAJOR), reason);
    resolve(util, "av_log_set_level", logSetLevel, reason);
    resolve(util, "av_opt_set", optSet, reason);
    resolve(util, "av_channel_layout_default", channelLayoutDefault, reason);
    resolve(util, "av_channel_layout_copy", channelLayoutCopy, reason);
    resolve(util, "av_frame_alloc", frameAlloc, reason);
    resolve(util, "av_frame_free", frameFree, reason);
    resolve(util, "av_frame_get_buffer", frameGetBuffer, reason);
    resolve(util, "av_frame_make_writable", frameMakeWritable, reason);
    resolve(codec, "avcodec_find_encoder_by_name", findEncoderByName, reason);
    resolve(codec, "avcodec_alloc_context3", allocContext, reason);
    resolve(codec, "avcodec_free_context", freeContext, reason);
    resolve(codec, "avcodec_open2", open, reason);
    resolve(codec, "avcodec_send_frame", sendFrame, reason);
    resolve(codec, "avcodec_receive_packet", receivePacket, reason);
    resolve(codec, "av_packet_alloc", packetAlloc, reason);
    resolve(codec, "av_packet_free", packetFree, reason);
    resolve(codec, "av_packet_unref", packetUnref, reason);
    resolve(resample, "swr_alloc_set_opts2", swrAllocSetOpts, reason);
    resolve(resample, "swr_init", swrInit, reason);
    resolve(resample, "swr_free", swrFree, reason);
    resolve(resample, "swr_convert", swrConvert, reason);
    if (reason.empty()) {
        // Closing an encoder that was never flushed makes FFmpeg warn about the frames it still held; that
        // is how every capture run ends here, so only FFmpeg's errors reach stderr.
        logSetLevel(AV_LOG_ERROR);
    }
    return reason;
}

} // namespace kavelo
