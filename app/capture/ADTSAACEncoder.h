#pragma once

#include "core/support/Bytes.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

namespace kavelo {

class FFmpegLibrary;

// Turns 48 kHz mono float samples into AAC-LC at 96 kbit/s, each packet behind a 7-byte ADTS header, so the
// stream and any cut of it at a frame boundary decodes by itself. This is the recording's wire format: a
// chunk is a run of these frames and nothing else.
//
// FFmpeg's native AAC encoder does the coding. It is fed exactly its frame size (1024 samples); the frame,
// packet and output buffers are allocated once, at construction. A capture run ends with flush(), which
// hands over what the encoder still holds (the last partial frame and the encoder's delay, some 40 ms);
// a new capture run gets a new encoder.
//
// Not thread-safe: one thread encodes at a time (the capture path's worker). onEncodedData is called on
// that thread, inside encode().
class ADTSAACEncoder {
  public:
    static constexpr int sampleRate = 48000;
    static constexpr int bitRate = 96000;
    static constexpr int framesPerPacket = 1024;
    static constexpr std::size_t headerSize = 7;

    using Header = std::array<std::uint8_t, headerSize>;
    using Output = std::function<void(const Bytes&)>;

    // FFmpeg's quantisation search ("aac_coder"). twoLoop searches per band for the least audible noise
    // and is FFmpeg's default; fast takes a single pass. On speech at our bit rate fast decodes at least as
    // close to the source (SNR, segmental SNR and spectral distance; bench/coder) for half the processor
    // time, and the encoder is the larger part of what a recording costs, so fast is what we record with.
    enum class Coder { twoLoop, fast };
    static constexpr Coder defaultCoder = Coder::fast;

    // A failing codec set-up leaves the encoder inert: encode() then does nothing, and the recorder's
    // health check notices that no chunks come.
    explicit ADTSAACEncoder(Coder coder = defaultCoder);
    ~ADTSAACEncoder();
    ADTSAACEncoder(const ADTSAACEncoder&) = delete;
    ADTSAACEncoder& operator=(const ADTSAACEncoder&) = delete;

    // Set once, before the first encode.
    void setOnEncodedData(Output output) { onEncodedData_ = std::move(output); }
    [[nodiscard]] bool isReady() const { return context_ != nullptr; }

    // Encodes what is complete and hands the whole ADTS frames of this call to onEncodedData in one byte
    // string; calls nothing when no packet came out (the encoder has a start-up delay). Errors cost only
    // the samples in hand and are not reported.
    void encode(const float* samples, std::size_t frameCount);
    // Encodes the samples still waiting and drains the encoder, handing the frames to onEncodedData like
    // encode(). The encoder takes nothing more afterwards.
    void flush();

    // The 7 header bytes for a raw AAC payload of this length: MPEG-4, AAC LC, 48 kHz, mono, no CRC,
    // buffer fullness 0x7FF (variable bit rate), one raw data block.
    static Header adtsHeader(std::size_t payloadLength);

  private:
    void encodeFullFrame();
    void drainPackets();

    const FFmpegLibrary* av_ = nullptr;
    AVCodecContext* context_ = nullptr;
    AVFrame* frame_ = nullptr;
    AVPacket* packet_ = nullptr;
    int filled_ = 0; // samples waiting in frame_
    bool flushed_ = false;
    std::int64_t nextPts_ = 0; // in samples
    Bytes output_;             // reused for every call; capacity reserved once
    Output onEncodedData_;
};

} // namespace kavelo
