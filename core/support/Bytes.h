#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kavelo {

// The one byte-buffer type of the program: chunk contents, HTTP bodies, stored values.
using Bytes = std::vector<std::uint8_t>;

inline Bytes bytesFromString(std::string_view text) {
    return Bytes(text.begin(), text.end());
}
inline std::string stringFromBytes(const Bytes& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

} // namespace kavelo
