#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace kavelo {

// The hand-over between the audio server's real-time thread (one producer) and the capture worker (one
// consumer): whole device cycles of `channels` planar float runs each, in a sample store sized once for
// seconds of audio, so that a worker held up by a slow disk or a slow encoder loses nothing until the
// whole store is full. A cycle that does not fit is dropped and counted.
//
// The producer side (reserve, commit) never locks, allocates or blocks; it is safe on a real-time thread.
// Cycles of different lengths share the store: a cycle never wraps, the end of the store it does not fit
// in is skipped.
class CycleRing {
  public:
    static constexpr std::size_t maxChannels = 64;

    struct Cycle {
        std::uint32_t frames = 0;
        std::uint32_t rate = 0;
        std::uint64_t presentChannels = 0; // bit i: channel i carried data
        const float* samples = nullptr;    // channel i at samples + i * frames

        [[nodiscard]] bool has(std::size_t channel) const { return (presentChannels >> channel) & 1U; }
    };

    // Channels beyond maxChannels or a capacity below one cycle throw std::invalid_argument.
    CycleRing(std::size_t channels, std::size_t capacityFrames, std::size_t maxCycles);

    [[nodiscard]] std::size_t channels() const { return channels_; }
    [[nodiscard]] std::size_t capacityFrames() const { return store_.size() / channels_; }

    // Producer: room for `frames` frames of every channel, or null when the ring is full (the cycle is then
    // counted as dropped and must not be committed).
    float* reserve(std::uint32_t frames);
    // Producer: publishes the cycle reserve() made room for.
    void commit(std::uint32_t frames, std::uint32_t rate, std::uint64_t presentChannels);

    // Consumer: the oldest cycle, valid until release(); false when none waits.
    bool peek(Cycle& cycle) const;
    void release();

    [[nodiscard]] std::uint64_t droppedCycles() const { return dropped_.load(std::memory_order_relaxed); }

  private:
    struct Header {
        std::uint64_t start = 0; // store offset in floats
        std::uint64_t end = 0;   // the write position after this cycle, in floats written ever
        std::uint32_t frames = 0;
        std::uint32_t rate = 0;
        std::uint64_t present = 0;
    };

    const std::size_t channels_;
    std::vector<float> store_;
    std::vector<Header> headers_;

    // Producer only.
    std::uint64_t writePosition_ = 0; // floats ever written or skipped
    std::uint64_t pendingStart_ = 0;
    std::uint64_t pendingEnd_ = 0;

    std::atomic<std::uint64_t> cyclesWritten_{0};
    std::atomic<std::uint64_t> cyclesRead_{0};
    std::atomic<std::uint64_t> floatsRead_{0}; // the consumer's release point in the store
    std::atomic<std::uint64_t> dropped_{0};
};

} // namespace kavelo
