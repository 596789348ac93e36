#pragma once

#include "core/support/Bytes.h"

#include <cstddef>
#include <vector>

namespace kavelo {

// The framing of the recorder's audio stream (AAC in ADTS frames), as far as a chunk needs it: where
// whole frames end. A file that was being appended when the process died may end in a torn frame, and
// a chunk must hold whole frames only, or the server's decoder stops at the tear.
class AdtsFrames {
  public:
    // The length of the longest prefix of data made of whole, well-formed frames that share the first
    // frame's fixed header. 0 when data does not start with a frame.
    static std::size_t wholeFramesLength(const Bytes& data);

    // The whole frames of data cut into chunks the way the recorder cuts them: a chunk ends at the first
    // frame boundary at or past cutBytes; the last one may be shorter. Empty for no whole frame.
    static std::vector<Bytes> cut(const Bytes& data, std::size_t cutBytes);

    // The length of the frame starting at data[offset], or 0 when none starts there.
    static std::size_t frameLengthAt(const Bytes& data, std::size_t offset);
};

} // namespace kavelo
