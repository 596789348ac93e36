#pragma once

#include "core/support/Bytes.h"

#include <string>
#include <vector>

namespace kavelo::testing {

// Decodes an ADTS stream with the ffmpeg and ffprobe programs, the way a third party would read a chunk.
struct DecodedAudio {
    bool ok = false;
    std::string codec;
    int sampleRate = 0;
    int channels = 0;
    std::vector<float> samples; // mono float at the stream's rate

    [[nodiscard]] double seconds() const { return sampleRate > 0 ? double(samples.size()) / sampleRate : 0; }
    [[nodiscard]] double rms(std::size_t from = 0, std::size_t to = SIZE_MAX) const;
    // Zero crossings per second over the middle half: twice the frequency of a clean tone.
    [[nodiscard]] double estimatedFrequency() const;
    // Amplitude of one frequency (Goertzel) over the middle half: 0.5 for a sine of amplitude 0.5.
    [[nodiscard]] double toneLevel(double frequency) const;

    // 48 kHz mono samples as they came from a capture, to be analysed like a decoded stream.
    static DecodedAudio ofSamples(std::vector<float> samples);
    // The last `seconds`.
    [[nodiscard]] DecodedAudio tail(double seconds) const;
    // What was encoded while a recorder's byte count went from `from` to `to` (of `total` at the end),
    // less half a second at either end for the encoder's delay and any capture rebuild's pause.
    [[nodiscard]] DecodedAudio encodedBetween(long long from, long long to, long long total) const;
};

DecodedAudio decodeAdts(const Bytes& stream);

// Splits an ADTS stream into its frames by the length field; an empty result means it did not parse.
std::vector<Bytes> splitAdtsFrames(const Bytes& stream);

} // namespace kavelo::testing
