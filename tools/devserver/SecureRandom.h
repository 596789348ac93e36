#pragma once

#include <cstddef>
#include <string>

namespace kavelo {

// Identifiers and secrets that an outsider must not guess, from the system's secure random source.
class SecureRandom {
  public:
    static std::string hex(std::size_t byteCount);
    static std::string uuid(); // lower-case version 4 UUID text
};

} // namespace kavelo
