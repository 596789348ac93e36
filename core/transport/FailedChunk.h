#pragma once

#include <string>

namespace kavelo {

// A chunk parked after its last attempt, with the last failure text.
struct FailedChunk {
    int sequence = 0;
    std::string message;
    bool operator==(const FailedChunk&) const = default;
};

} // namespace kavelo
