#include "app/audiotest/AudioLevelsModel.h"
#include "app/audiotest/IntervalRms.h"
#include "app/audiotest/LevelMath.h"
#include "app/audiotest/LevelThrottle.h"
#include "core/support/ManualClock.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

using namespace kavelo;

namespace {

std::vector<float> constant(float value, std::size_t count) {
    return std::vector<float>(count, value);
}

} // namespace

TEST(LevelMath, RmsAndTheDisplayScale) {
    // A full-scale sine has rms 1/√2; a constant has its own magnitude whatever its sign.
    std::vector<float> sine(4800);
    for (std::size_t i = 0; i < sine.size(); ++i) {
        sine[i] = static_cast<float>(std::sin(2.0 * M_PI * 440.0 * static_cast<double>(i) / 48000.0));
    }
    EXPECT_NEAR(LevelMath::rms(sine.data(), sine.size()), 1.0 / std::sqrt(2.0), 1e-3);
    auto negative = constant(-0.25f, 100);
    EXPECT_DOUBLE_EQ(LevelMath::rms(negative.data(), negative.size()), 0.25);
    EXPECT_EQ(LevelMath::rms(nullptr, 10), 0.0);
    EXPECT_EQ(LevelMath::rms(negative.data(), 0), 0.0);

    EXPECT_NEAR(LevelMath::displayLevel(0.05), 0.6, 1e-12);
    EXPECT_EQ(LevelMath::displayLevel(0.5), 1.0) << "capped";
    EXPECT_EQ(LevelMath::displayLevel(-0.1), 0.0);
    EXPECT_EQ(LevelMath::displayLevel(std::numeric_limits<double>::quiet_NaN()), 0.0);
}

TEST(IntervalRms, ReportsTheWholeIntervalOverAllSamplesAtMostTwelveTimesASecond) {
    ManualClock clock;
    IntervalRms meter(LevelMath::publishInterval);
    auto loud = constant(0.4f, 100);
    auto quiet = constant(0.0f, 300);
    auto first = meter.add(loud.data(), loud.size(), clock.now());
    ASSERT_TRUE(first) << "the first buffer reports at once";
    EXPECT_NEAR(*first, 0.4, 1e-6);

    clock.advance(0.05);
    EXPECT_FALSE(meter.add(loud.data(), loud.size(), clock.now()));
    clock.advance(0.04); // 0.09 s since the report
    auto second = meter.add(quiet.data(), quiet.size(), clock.now());
    ASSERT_TRUE(second);
    // 100 samples of 0.4 and 300 of silence, not just the last (silent) buffer.
    EXPECT_NEAR(*second, std::sqrt(100 * 0.16 / 400.0), 1e-6);

    clock.advance(1.0);
    EXPECT_FALSE(meter.add(nullptr, 0, clock.now())) << "nothing arrived: nothing to report";
    EXPECT_TRUE(meter.add(quiet.data(), 1, clock.now()));
}

TEST(IntervalRms, AClockSetBackDoesNotSilenceTheProbe) {
    ManualClock clock(TimePoint{} + std::chrono::hours(1));
    IntervalRms meter(LevelMath::publishInterval);
    auto loud = constant(0.4f, 10);
    ASSERT_TRUE(meter.add(loud.data(), loud.size(), clock.now()));
    EXPECT_TRUE(meter.add(loud.data(), loud.size(), clock.now() - std::chrono::minutes(30)));
}

TEST(LevelThrottle, TwoCallsFiftyMillisecondsApartPublishOnce) {
    auto clock = std::make_shared<ManualClock>(TimePoint{} + std::chrono::hours(1));
    LevelThrottle throttle(clock, LevelMath::publishInterval);
    EXPECT_TRUE(throttle.admit());
    clock->advance(0.05);
    EXPECT_FALSE(throttle.admit());
    clock->advance(0.05); // 0.1 s after the admitted call, not after the refused one
    EXPECT_TRUE(throttle.admit());
    clock->advance(0.0833);
    EXPECT_FALSE(throttle.admit());
    clock->advance(0.0001);
    EXPECT_TRUE(throttle.admit());

    // Twelve a second at most, over a second of calls every 10 ms.
    int admitted = 0;
    for (int i = 0; i < 100; ++i) {
        clock->advance(0.01);
        admitted += throttle.admit() ? 1 : 0;
    }
    EXPECT_GE(admitted, 11);
    EXPECT_LE(admitted, 12);

    clock->advance(-600);
    EXPECT_TRUE(throttle.admit()) << "a clock set back lets the next level through";
}

TEST(AudioLevelsModel, TheWaveformRollsWithAFloorAndResetRestoresIt) {
    AudioLevelsModel model;
    int changes = 0;
    model.setChangeHandler([&] { ++changes; });
    EXPECT_EQ(model.waveform(), std::vector<double>(24, 0.05));

    model.publish(0.0, 0.0);
    EXPECT_EQ(model.waveform().back(), 0.05) << "silence shows the floor, never 0";
    model.publish(0.6, 0.2);
    EXPECT_DOUBLE_EQ(model.micLevel(), 0.6);
    EXPECT_DOUBLE_EQ(model.systemLevel(), 0.2);
    EXPECT_DOUBLE_EQ(model.waveform().back(), 0.4);
    for (int i = 0; i < 30; ++i) {
        model.publish(0.1 * (i % 10), 1.0);
    }
    auto wave = model.waveform();
    ASSERT_EQ(wave.size(), 24u);
    EXPECT_DOUBLE_EQ(wave.back(), (0.9 + 1.0) * 0.5) << "newest last";
    EXPECT_DOUBLE_EQ(wave.front(), (0.6 + 1.0) * 0.5) << "oldest of the last 24";

    model.publish(std::numeric_limits<double>::quiet_NaN(), 7.0);
    EXPECT_EQ(model.micLevel(), 0.0);
    EXPECT_EQ(model.systemLevel(), 1.0);

    model.reset();
    EXPECT_EQ(model.micLevel(), 0.0);
    EXPECT_EQ(model.systemLevel(), 0.0);
    EXPECT_EQ(model.waveform(), std::vector<double>(24, 0.05));
    EXPECT_EQ(changes, 34);
}
