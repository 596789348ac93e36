#include "core/transport/AdtsFrames.h"

#include <algorithm>

namespace kavelo {

namespace {

constexpr std::size_t kShortHeader = 7; // without the checksum
constexpr std::size_t kLongHeader = 9;  // with it
constexpr unsigned kSamplingIndexes = 13;

} // namespace

std::size_t AdtsFrames::frameLengthAt(const Bytes& data, std::size_t offset) {
    if (offset > data.size() || data.size() - offset < kShortHeader) {
        return 0;
    }
    const auto* p = data.data() + offset;
    // Sync word 0xFFF and layer 0.
    if (p[0] != 0xFF || (p[1] & 0xF6) != 0xF0) {
        return 0;
    }
    if (((p[2] >> 2) & 0x0F) >= kSamplingIndexes) {
        return 0;
    }
    const std::size_t header = (p[1] & 0x01) ? kShortHeader : kLongHeader;
    const std::size_t length = (std::size_t(p[3] & 0x03) << 11) | (std::size_t(p[4]) << 3) | (p[5] >> 5);
    if (length <= header || length > data.size() - offset) {
        return 0;
    }
    return length;
}

std::size_t AdtsFrames::wholeFramesLength(const Bytes& data) {
    std::size_t offset = 0;
    while (offset < data.size()) {
        const std::size_t length = frameLengthAt(data, offset);
        if (length == 0) {
            break;
        }
        // Every frame of one stream repeats the first one's fixed fields (profile, rate, channels): a
        // header that differs is noise that happens to look like a sync word.
        if (offset > 0 && (data[offset + 1] != data[1] || data[offset + 2] != data[2] ||
                           (data[offset + 3] & 0xF0) != (data[3] & 0xF0))) {
            break;
        }
        offset += length;
    }
    return offset;
}

std::vector<Bytes> AdtsFrames::cut(const Bytes& data, std::size_t cutBytes) {
    const std::size_t whole = wholeFramesLength(data);
    std::vector<Bytes> chunks;
    std::size_t chunkStart = 0;
    std::size_t offset = 0;
    while (offset < whole) {
        offset += frameLengthAt(data, offset);
        if (offset - chunkStart >= std::max<std::size_t>(cutBytes, 1) || offset == whole) {
            chunks.emplace_back(data.begin() + long(chunkStart), data.begin() + long(offset));
            chunkStart = offset;
        }
    }
    return chunks;
}

} // namespace kavelo
