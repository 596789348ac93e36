#include "app/capture/CycleRing.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace kavelo;

namespace {

// Writes one cycle whose every sample of channel c is `value + c`, as the real-time thread would.
bool produce(CycleRing& ring, std::uint32_t frames, float value, std::uint64_t present = 0b11) {
    float* target = ring.reserve(frames);
    if (target == nullptr) {
        return false;
    }
    for (std::size_t c = 0; c < ring.channels(); ++c) {
        std::fill_n(target + c * frames, frames, value + float(c));
    }
    ring.commit(frames, 48000, present);
    return true;
}

// Takes the oldest cycle and checks that it is whole and unmixed with its neighbours.
float consume(CycleRing& ring, std::uint32_t expectedFrames) {
    CycleRing::Cycle cycle;
    EXPECT_TRUE(ring.peek(cycle));
    EXPECT_EQ(cycle.frames, expectedFrames);
    const float value = cycle.samples[0];
    for (std::size_t c = 0; c < ring.channels(); ++c) {
        for (std::size_t f = 0; f < cycle.frames; ++f) {
            EXPECT_EQ(cycle.samples[c * cycle.frames + f], value + float(c)) << "channel " << c;
        }
    }
    ring.release();
    return value;
}

} // namespace

TEST(CycleRingTest, AWorkerStalledForTwoSecondsLosesNoCycleOfAFourSecondRing) {
    CycleRing ring(2, 4 * 48000, 8192);
    // Two seconds of 1024-frame cycles arrive while nobody reads (a disk stalls the worker), and a little
    // more than another second while it catches up reading one cycle for every two that come.
    int produced = 0;
    for (; produced < 94; ++produced) {
        ASSERT_TRUE(produce(ring, 1024, float(produced)));
    }
    int consumed = 0;
    for (int i = 0; i < 60; ++i) {
        ASSERT_TRUE(produce(ring, 1024, float(produced++)));
        ASSERT_TRUE(produce(ring, 1024, float(produced++)));
        EXPECT_EQ(consume(ring, 1024), float(consumed++));
    }
    while (consumed < produced) {
        EXPECT_EQ(consume(ring, 1024), float(consumed++));
    }
    CycleRing::Cycle none;
    EXPECT_FALSE(ring.peek(none));
    EXPECT_EQ(ring.droppedCycles(), 0u);
}

TEST(CycleRingTest, CyclesOfMixedLengthsStayWholeAcrossTheEndAndAFullRingCountsWhatItDrops) {
    CycleRing ring(3, 1000, 8);
    // 300 + 300 + 300 fill 900 of 1000 frames; the next 300 cannot wrap and does not fit before the oldest
    // is released.
    ASSERT_TRUE(produce(ring, 300, 1));
    ASSERT_TRUE(produce(ring, 300, 2));
    ASSERT_TRUE(produce(ring, 300, 3));
    EXPECT_FALSE(produce(ring, 300, 4));
    EXPECT_EQ(ring.droppedCycles(), 1u);
    EXPECT_EQ(consume(ring, 300), 1.0f);
    ASSERT_TRUE(produce(ring, 300, 5)); // at the start of the store, the last 100 frames skipped
    EXPECT_FALSE(produce(ring, 64, 6)) << "the skipped end is not free until the cycles before it go";
    EXPECT_EQ(consume(ring, 300), 2.0f);
    ASSERT_TRUE(produce(ring, 64, 7));
    EXPECT_EQ(consume(ring, 300), 3.0f);
    EXPECT_EQ(consume(ring, 300), 5.0f);
    EXPECT_EQ(consume(ring, 64), 7.0f);
    // Presence of channels travels with the cycle; a cycle larger than the store never fits.
    ASSERT_TRUE(produce(ring, 10, 8, 0b101));
    CycleRing::Cycle cycle;
    ASSERT_TRUE(ring.peek(cycle));
    EXPECT_TRUE(cycle.has(0));
    EXPECT_FALSE(cycle.has(1));
    EXPECT_TRUE(cycle.has(2));
    ring.release();
    EXPECT_FALSE(produce(ring, 1001, 9));
    // More cycles than headers: the ninth waits even though samples would fit.
    for (int i = 0; i < 8; ++i) {
        ASSERT_TRUE(produce(ring, 1, float(i)));
    }
    EXPECT_FALSE(produce(ring, 1, 99));
    EXPECT_EQ(ring.droppedCycles(), 4u);
}
