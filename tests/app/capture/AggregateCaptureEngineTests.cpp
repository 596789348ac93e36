#include "app/capture/AggregateCaptureEngine.h"
#include "core/support/ManualClock.h"
#include "core/support/SteppingClock.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

using namespace kavelo;

namespace {

struct FakeAggregateDevice final : AggregateDevice {
    AggregateDeviceInfo build(const std::optional<std::string>& preferred) override {
        std::lock_guard lock(mutex);
        preferences.push_back(preferred);
        ++builds;
        return info;
    }
    void startIO(IOHandler h) override {
        std::lock_guard lock(mutex);
        handler = std::move(h);
    }
    void teardown() override {
        std::lock_guard lock(mutex);
        handler = nullptr;
        ++teardowns;
    }
    void setDefaultDeviceListener(std::function<void()> l) override {
        std::lock_guard lock(mutex);
        listener = std::move(l);
    }
    std::uint64_t droppedCycles() const override { return dropped; }
    // Delivers one cycle as the device's worker would; false when no cycles run.
    bool cycle(const IOBufferList& list) {
        IOHandler h;
        {
            std::lock_guard lock(mutex);
            h = handler;
        }
        if (h) {
            h(list);
        }
        return bool(h);
    }
    void changeDefaultDevice() {
        std::function<void()> l;
        {
            std::lock_guard lock(mutex);
            l = listener;
        }
        if (l) {
            l();
        }
    }

    std::mutex mutex;
    AggregateDeviceInfo info{1, 3, 48000.0, 2};
    IOHandler handler;
    std::function<void()> listener;
    std::vector<std::optional<std::string>> preferences;
    int builds = 0, teardowns = 0;
    std::atomic<std::uint64_t> dropped{0};
};

class EngineFixture : public ::testing::Test {
  protected:
    void make(std::shared_ptr<Clock> clock) {
        engine = AggregateCaptureEngine::make(device, clock, std::string("usb-mic"),
                                              [this](const std::string& line) {
                                                  {
                                                      std::lock_guard lock(mutex);
                                                      logs.push_back(line);
                                                  }
                                                  changed.notify_all();
                                              });
        engine->setHandlers(
            [this](const float* s, std::size_t n) {
                std::lock_guard lock(mutex);
                order.push_back('s');
                system.assign(s, s + n);
            },
            [this](const float* s, std::size_t n) {
                std::lock_guard lock(mutex);
                order.push_back('m');
                mic.assign(s, s + n);
            },
            [this](bool interrupted) {
                {
                    std::lock_guard lock(mutex);
                    interruptions.push_back(interrupted);
                }
                changed.notify_all();
            });
    }
    bool waitForLog(const std::string& line) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(10),
                                [&] { return std::find(logs.begin(), logs.end(), line) != logs.end(); });
    }
    std::vector<bool> interruptionsSeen(std::size_t atLeast = 0) {
        std::unique_lock lock(mutex);
        changed.wait_for(lock, std::chrono::seconds(10), [&] { return interruptions.size() >= atLeast; });
        return interruptions;
    }
    int countLogsStartingWith(const std::string& prefix) {
        std::lock_guard lock(mutex);
        return int(
            std::count_if(logs.begin(), logs.end(), [&](const auto& l) { return l.rfind(prefix, 0) == 0; }));
    }
    void TearDown() override {
        // Stopped before the fields its log and handlers write to go: a job still queued may hold the
        // engine a moment longer than this reference.
        if (engine) {
            engine->stop();
        }
        engine.reset();
    }

    std::shared_ptr<FakeAggregateDevice> device = std::make_shared<FakeAggregateDevice>();
    std::shared_ptr<AggregateCaptureEngine> engine;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> logs;
    std::string order;
    std::vector<float> system, mic;
    std::vector<bool> interruptions;
};

IOBufferList oneBuffer(const std::vector<float>& interleaved, int channels) {
    return {{{channels, interleaved.data(), interleaved.size() * sizeof(float)}}};
}

} // namespace

TEST_F(EngineFixture, ChannelsSplitIntoMicrophoneAndAveragedSystemWhicheverWayBuffersAreCut) {
    make(std::make_shared<ManualClock>());
    engine->start();
    EXPECT_EQ(device->preferences, (std::vector<std::optional<std::string>>{"usb-mic"}));
    EXPECT_TRUE(waitForLog("aggregate built: rate=48000Hz total=3ch (mic=1, sys=2, tapFmt=2ch)"));

    // One interleaved 3-channel buffer of two frames: mic, left, right.
    std::vector<float> interleaved{0.5f, 0.2f, 0.4f, -0.5f, 0.0f, -0.2f};
    device->cycle(oneBuffer(interleaved, 3));
    EXPECT_EQ(order, "sm") << "system before microphone";
    EXPECT_EQ(mic, (std::vector<float>{0.5f, -0.5f}));
    ASSERT_EQ(system.size(), 2u);
    EXPECT_FLOAT_EQ(system[0], 0.3f);
    EXPECT_FLOAT_EQ(system[1], -0.1f);

    // The same in three 1-channel buffers, the first claiming 0 channels (counts as 1).
    std::vector<float> m{0.5f, -0.5f}, l{0.2f, 0.0f}, r{0.4f, -0.2f};
    device->cycle({{{0, m.data(), 8}, {1, l.data(), 8}, {1, r.data(), 8}}});
    EXPECT_EQ(mic, (std::vector<float>{0.5f, -0.5f}));
    EXPECT_FLOAT_EQ(system[0], 0.3f);

    // A buffer without data still takes its channel: right alone, halved.
    device->cycle({{{1, m.data(), 8}, {1, nullptr, 8}, {1, r.data(), 8}}});
    EXPECT_FLOAT_EQ(system[0], 0.2f);

    // Too many frames: counted as raw only, nothing delivered.
    std::vector<float> huge(8193 * 3, 0.1f);
    order.clear();
    device->cycle(oneBuffer(huge, 3));
    EXPECT_TRUE(order.empty());
    auto counters = engine->counters();
    EXPECT_EQ(counters.rawCallbackCount, 4);
    EXPECT_EQ(counters.callbackCount, 3);
}

TEST_F(EngineFixture, WithoutSystemChannelsOnlyTheMicrophoneFlowsAndOtherRatesAreConverted) {
    device->info = {2, 2, 48001.0, 2}; // the output's monitor is gone; 48001 Hz is close enough to pass
    make(std::make_shared<ManualClock>());
    engine->start();
    std::vector<float> stereo(2 * 1000, 0.25f);
    device->cycle(oneBuffer(stereo, 2));
    EXPECT_EQ(order, "m");
    EXPECT_EQ(mic.size(), 1000u);
    engine->stop();

    device->info = {1, 3, 44100.0, 2};
    make(std::make_shared<ManualClock>());
    engine->start();
    std::vector<float> cycle(3 * 441, 0.5f);
    std::size_t micFrames = 0;
    for (int i = 0; i < 100; ++i) { // one second at 44.1 kHz
        device->cycle(oneBuffer(cycle, 3));
        micFrames += mic.size();
        mic.clear();
    }
    EXPECT_NEAR(double(micFrames), 48000, 100);
}

TEST_F(EngineFixture, FirstAudioCountsProcessedCyclesNotRawOnes) {
    auto clock = std::make_shared<ManualClock>();
    make(clock);
    engine->start();
    std::vector<float> huge(8193 * 3, 0.1f);
    device->cycle(oneBuffer(huge, 3));
    EXPECT_FALSE(engine->waitForFirstAudio(2.5));
    std::vector<float> small(3 * 64, 0.1f);
    device->cycle(oneBuffer(small, 3));
    EXPECT_TRUE(engine->waitForFirstAudio(2.5));
}

TEST_F(EngineFixture, StalledGraphIsRebuiltFiveTimesThenGivenUpUntilAudioReturns) {
    auto clock = std::make_shared<SteppingClock>();
    make(clock);
    engine->start();
    engine->startWatchdog();
    ASSERT_TRUE(clock->waitForSleepers(1));
    clock->advance(6);
    EXPECT_EQ(countLogsStartingWith("aggregate rebuild"), 0) << "within the start-up grace nothing happens";
    // No cycles at all: each build stalls. Delays 1, 2, 4, 8, 8 plus grace and stall time take about 70 s of
    // the clock. The rebuilds run on the engine's own queue, which the clock does not wait for, so on a
    // loaded machine they may trail it: time goes on until the engine has given up, within a bound.
    for (int second = 6; second < 3000 && countLogsStartingWith("aggregate engine gave up") == 0; ++second) {
        clock->advance(1);
    }
    ASSERT_TRUE(
        waitForLog("aggregate engine gave up after 5 attempts (io stalled) — audio device unavailable"));
    for (int n = 1; n <= 5; ++n) {
        EXPECT_TRUE(waitForLog("aggregate rebuild (io stalled) — attempt " + std::to_string(n) + "/5"));
    }
    EXPECT_EQ(countLogsStartingWith("aggregate rebuild (io stalled)"), 5);
    EXPECT_EQ(device->builds, 6);
    EXPECT_EQ(interruptionsSeen(1), (std::vector<bool>{true}));

    // The last graph stays up; the first real sample clears the interruption.
    std::vector<float> sound(3 * 64, 0.1f);
    ASSERT_TRUE(device->cycle(oneBuffer(sound, 3)));
    EXPECT_EQ(interruptionsSeen(2), (std::vector<bool>{true, false}));
    EXPECT_TRUE(waitForLog("aggregate audio flowing again — clearing interruption state"));

    // A change of default device starts the count anew.
    device->changeDefaultDevice();
    EXPECT_TRUE(waitForLog("aggregate rebuild (default device changed) — attempt 1/5"));
}

TEST_F(EngineFixture, AMinuteOfExactZerosKeepsTheGraphAndOnlyMissingCyclesRebuildIt) {
    auto clock = std::make_shared<SteppingClock>();
    make(clock);
    engine->start();
    engine->startWatchdog();
    ASSERT_TRUE(clock->waitForSleepers(1));
    // A muted microphone in a quiet meeting: nothing but zeros, and no data at all on one port.
    std::vector<float> zeros(3 * 64, 0.0f);
    std::vector<float> one(64, 0.0f);
    for (int second = 0; second < 60; second += 3) {
        ASSERT_TRUE(device->cycle(oneBuffer(zeros, 3)));
        ASSERT_TRUE(device->cycle({{{1, one.data(), 256}, {1, nullptr, 256}, {1, one.data(), 256}}}));
        clock->advance(3);
    }
    EXPECT_EQ(countLogsStartingWith("aggregate rebuild"), 0);
    EXPECT_EQ(device->builds, 1);
    for (int second = 0; second < 9; second += 3) {
        clock->advance(3);
    }
    EXPECT_TRUE(waitForLog("aggregate rebuild (io stalled) — attempt 1/5"));
}

TEST_F(EngineFixture, CyclesTheDeviceLostAreCountedAndLogged) {
    auto clock = std::make_shared<SteppingClock>();
    make(clock);
    engine->start();
    engine->startDiagnosticLogger();
    ASSERT_TRUE(clock->waitForSleepers(1));
    device->dropped = 7;
    clock->advance(5);
    EXPECT_TRUE(waitForLog("aggregate lost 7 cycles (7 in all): the capture worker fell behind"));
    EXPECT_EQ(engine->droppedCycles(), 7);
    device->dropped = 9;
    engine->stop();
    EXPECT_EQ(engine->counters().droppedCycles, 9) << "counted once more at the teardown";
}
