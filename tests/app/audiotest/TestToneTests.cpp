#include "app/audiotest/LevelMath.h"
#include "app/audiotest/TestTone.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace kavelo;

// The tone must be what the user is told it is: 0.8 s of 440 Hz at a quarter of full scale, continuous
// (a phase that jumps clicks), at whatever rate it is rendered.
TEST(TestTone, IsAContinuous440HertzSineAtAQuarterOfFullScale) {
    for (unsigned rate : {44100u, 48000u}) {
        const auto samples = TestTone::render(rate);
        ASSERT_EQ(samples.size(), static_cast<std::size_t>(std::lround(0.8 * rate)));
        EXPECT_NEAR(LevelMath::rms(samples.data(), samples.size()), 0.25 / std::sqrt(2.0), 1e-3);
        float peak = 0.0f;
        int rising = 0; // upward zero crossings: one per period
        float largestStep = 0.0f;
        for (std::size_t i = 1; i < samples.size(); ++i) {
            peak = std::max(peak, std::abs(samples[i]));
            rising += samples[i - 1] < 0.0f && samples[i] >= 0.0f ? 1 : 0;
            largestStep = std::max(largestStep, std::abs(samples[i] - samples[i - 1]));
        }
        EXPECT_NEAR(peak, 0.25f, 1e-3f);
        EXPECT_NEAR(rising, 352, 1) << "440 periods a second for 0.8 s, at " << rate << " Hz";
        // The steepest step of the sine itself: 2π·440/rate of the amplitude.
        EXPECT_LE(largestStep, 0.25 * 2 * M_PI * 440 / rate + 1e-4);
    }
    EXPECT_EQ(TestTone::render(48000, 60.0).size(), 60u * 48000u);
}
