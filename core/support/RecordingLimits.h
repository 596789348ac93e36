#pragma once

#include <cstddef>
#include <string_view>

namespace kavelo {

// What one recording can hold, and the shape of the identity the backend gives it. Everything that comes
// from the network or the disk is held to these before it is stored, iterated or used to name a file.
class RecordingLimits {
  public:
    // A chunk closes at 98304 bytes, about 8 s of audio at 96 kbit/s (silence packs far more time into
    // one), so a day of recording is some 11,000 chunks. The bound leaves room for three such days; a
    // sequence number or a list beyond it did not come from a recording of ours.
    static constexpr int maxChunks = 32768;

    // A recording id names a folder (percent-encoded, at most three bytes per character within the 255 a
    // file name may have) and stands unescaped in upload paths, so it is short and of URL-safe letters.
    static constexpr std::size_t maxRecordingIdLength = 64;
    // The secret travels in a request header.
    static constexpr std::size_t maxRecordingSecretLength = 512;

    [[nodiscard]] static bool isSequence(long long value) { return value >= 1 && value <= maxChunks; }
    // 1 to 64 of A-Z a-z 0-9 - . _ ~, with at least one letter or digit (so never "." or "..").
    [[nodiscard]] static bool isRecordingId(std::string_view id);
    // 1 to 512 visible ASCII characters: nothing that could end a header line.
    [[nodiscard]] static bool isRecordingSecret(std::string_view secret);
};

} // namespace kavelo
