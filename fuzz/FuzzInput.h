#pragma once

#include "core/support/Bytes.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace kavelo::fuzz {

// Takes a fuzzer's bytes apart: a few leading choices (which call, which status), then the rest as a body.
// Running out of bytes reads as zero, so every input is usable.
class FuzzInput {
  public:
    FuzzInput(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

    std::uint8_t byte() { return offset_ < size_ ? data_[offset_++] : 0; }
    [[nodiscard]] Bytes rest() const {
        return offset_ < size_ ? Bytes(data_ + offset_, data_ + size_) : Bytes();
    }

  private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t offset_ = 0;
};

} // namespace kavelo::fuzz
