#include "app/capture/CycleRing.h"

#include <stdexcept>

namespace kavelo {

CycleRing::CycleRing(std::size_t channels, std::size_t capacityFrames, std::size_t maxCycles)
    : channels_(channels) {
    if (channels == 0 || channels > maxChannels || capacityFrames == 0 || maxCycles == 0) {
        throw std::invalid_argument("cycle ring: 1 to 64 channels and a capacity are needed");
    }
    store_.assign(channels * capacityFrames, 0.0f);
    headers_.resize(maxCycles);
}

float* CycleRing::reserve(std::uint32_t frames) {
    const std::uint64_t size = std::uint64_t(frames) * channels_;
    const std::uint64_t capacity = store_.size();
    const auto written = cyclesWritten_.load(std::memory_order_relaxed);
    if (size == 0 || size > capacity ||
        written - cyclesRead_.load(std::memory_order_acquire) >= headers_.size()) {
        dropped_.fetch_add(1, std::memory_order_relaxed);
        return nullptr;
    }
    std::uint64_t start = writePosition_ % capacity;
    std::uint64_t position = writePosition_;
    if (start + size > capacity) {
        position += capacity - start; // a cycle stays in one piece: skip the store's end
        start = 0;
    }
    if (position + size - floatsRead_.load(std::memory_order_acquire) > capacity) {
        dropped_.fetch_add(1, std::memory_order_relaxed);
        return nullptr;
    }
    pendingStart_ = start;
    pendingEnd_ = position + size;
    return store_.data() + start;
}

void CycleRing::commit(std::uint32_t frames, std::uint32_t rate, std::uint64_t presentChannels) {
    const auto written = cyclesWritten_.load(std::memory_order_relaxed);
    auto& header = headers_[written % headers_.size()];
    header = Header{pendingStart_, pendingEnd_, frames, rate, presentChannels};
    writePosition_ = pendingEnd_;
    cyclesWritten_.store(written + 1, std::memory_order_release);
}

bool CycleRing::peek(Cycle& cycle) const {
    const auto read = cyclesRead_.load(std::memory_order_relaxed);
    if (read == cyclesWritten_.load(std::memory_order_acquire)) {
        return false;
    }
    const auto& header = headers_[read % headers_.size()];
    cycle = Cycle{header.frames, header.rate, header.present, store_.data() + header.start};
    return true;
}

void CycleRing::release() {
    const auto read = cyclesRead_.load(std::memory_order_relaxed);
    floatsRead_.store(headers_[read % headers_.size()].end, std::memory_order_release);
    cyclesRead_.store(read + 1, std::memory_order_release);
}

} // namespace kavelo
