#include "MainQueue.h"
#include "app/audiotest/AudioTestController.h"
#include "core/support/SteppingClock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <vector>

using namespace kavelo;
using kavelo::testing::MainQueue;

namespace {

// Holds a fake operation until the test lets it go, so that a start can be overtaken while it opens.
class Gate {
  public:
    void close() {
        std::lock_guard lock(mutex_);
        open_ = false;
    }
    void open() {
        {
            std::lock_guard lock(mutex_);
            open_ = true;
        }
        changed_.notify_all();
    }
    void pass() {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, std::chrono::seconds(10), [&] { return open_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = true;
};

class FakeEngines final : public AudioTestEngines {
  public:
    struct Opened {
        std::string id;
        SampleHandler handler;
        std::shared_ptr<std::atomic<int>> alive;
    };
    class FakeStream final : public Stream {
      public:
        explicit FakeStream(std::shared_ptr<std::atomic<int>> alive) : alive_(std::move(alive)) { ++*alive_; }
        ~FakeStream() override { --*alive_; }

      private:
        std::shared_ptr<std::atomic<int>> alive_;
    };

    std::unique_ptr<Stream> openMicrophone(const std::string& deviceId, SampleHandler onSamples) override {
        micGate.pass();
        if (micFails) {
            throw std::runtime_error("no input");
        }
        std::lock_guard lock(mutex);
        mics.push_back({deviceId, std::move(onSamples), std::make_shared<std::atomic<int>>(0)});
        return std::make_unique<FakeStream>(mics.back().alive);
    }
    std::unique_ptr<Stream> openSystemProbe(SystemAudioMode mode, const std::optional<std::string>& sourceId,
                                            bool allowFallback, SampleHandler onSamples) override {
        std::lock_guard lock(mutex);
        probeRequests.push_back({mode, sourceId, allowFallback});
        if (probeRefused) {
            return nullptr;
        }
        probes.push_back(
            {sourceId.value_or(""), std::move(onSamples), std::make_shared<std::atomic<int>>(0)});
        return std::make_unique<FakeStream>(probes.back().alive);
    }
    void playTone(const std::string& outputId) override {
        {
            std::lock_guard lock(mutex);
            tones.push_back(outputId);
        }
        toneGate.pass();
    }

    int liveMics() {
        std::lock_guard lock(mutex);
        int n = 0;
        for (const auto& m : mics) {
            n += *m.alive;
        }
        return n;
    }
    int liveProbes() {
        std::lock_guard lock(mutex);
        int n = 0;
        for (const auto& p : probes) {
            n += *p.alive;
        }
        return n;
    }

    struct ProbeRequest {
        SystemAudioMode mode;
        std::optional<std::string> sourceId;
        bool allowFallback;
    };
    std::mutex mutex;
    std::vector<Opened> mics;   // guarded by mutex
    std::vector<Opened> probes; // guarded by mutex
    std::vector<ProbeRequest> probeRequests;
    std::vector<std::string> tones;
    Gate micGate;
    Gate toneGate;
    std::atomic<bool> micFails{false};
    std::atomic<bool> probeRefused{false};
};

class AudioTestControllerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        AudioTestController::Dependencies deps;
        deps.engines = engines;
        deps.clock = clock;
        deps.postToMain = [this](std::function<void()> job) { main.post(std::move(job)); };
        deps.onMicrophoneTestRunning = [this](bool running) { detection.push_back(running); };
        controller = AudioTestController::make(deps);
        controller->setStateHandler([this](const AudioTestState& s) { states.push_back(s); });
    }
    void TearDown() override { controller.reset(); }

    // Lets the queue finish every open and close, then the GUI thread take in their results.
    void settle() {
        controller->waitUntilIdle();
        main.drain();
        controller->waitUntilIdle(); // closes of late streams are queued by those results
    }
    static AudioTestRequest request(std::string mic, SystemAudioMode mode = SystemAudioMode::off) {
        AudioTestRequest r;
        r.microphoneId = std::move(mic);
        r.systemAudioMode = mode;
        r.outputId = "speakers";
        return r;
    }
    void feed(const AudioTestEngines::SampleHandler& handler, float value) {
        std::vector<float> samples(1024, value);
        handler(samples.data(), samples.size());
    }

    std::shared_ptr<FakeEngines> engines = std::make_shared<FakeEngines>();
    std::shared_ptr<SteppingClock> clock =
        std::make_shared<SteppingClock>(TimePoint{} + std::chrono::hours(1));
    MainQueue main;
    std::vector<bool> detection;
    std::vector<AudioTestState> states;
    std::shared_ptr<AudioTestController> controller;
};

} // namespace

TEST_F(AudioTestControllerTest, TheMicrophoneShowsItsLevelAndStopLeavesNoStream) {
    controller->start(request("usb-mic"));
    EXPECT_TRUE(controller->state().micActive) << "active from the moment it was asked for";
    settle();
    ASSERT_EQ(engines->mics.size(), 1u);
    EXPECT_EQ(engines->mics[0].id, "usb-mic");
    EXPECT_EQ(engines->liveMics(), 1);
    EXPECT_EQ(detection, std::vector<bool>{true});
    EXPECT_EQ(engines->probeRequests.size(), 0u) << "system audio off opens no probe";

    feed(engines->mics[0].handler, 0.05f);
    main.drain();
    EXPECT_NEAR(controller->state().micLevel, 0.6, 1e-6);

    controller->start(request("usb-mic"));
    settle();
    EXPECT_EQ(engines->mics.size(), 1u) << "the same microphone is not reopened";

    controller->stop();
    EXPECT_EQ(controller->state(), AudioTestState{});
    settle();
    EXPECT_EQ(engines->liveMics(), 0);
    EXPECT_EQ(detection, (std::vector<bool>{true, false}));
    feed(engines->mics[0].handler, 0.5f); // a buffer already under way when the stream closed
    main.drain();
    EXPECT_EQ(controller->state().micLevel, 0.0);
}

TEST_F(AudioTestControllerTest, AStartOvertakenByAnotherOrByAStopTearsItselfDown) {
    engines->micGate.close();
    controller->start(request("first"));
    controller->start(request("second"));
    engines->micGate.open();
    settle();
    ASSERT_EQ(engines->mics.size(), 2u);
    EXPECT_EQ(engines->liveMics(), 1) << "one stream, not two";
    EXPECT_EQ(*engines->mics[1].alive, 1) << "and it is the one asked for last";
    feed(engines->mics[0].handler, 0.5f);
    main.drain();
    EXPECT_EQ(controller->state().micLevel, 0.0) << "the stale stream's level is not shown";

    controller->stop();
    detection.clear();
    engines->micGate.close();
    controller->start(request("third"));
    controller->stop();
    engines->micGate.open();
    settle();
    EXPECT_EQ(engines->liveMics(), 0);
    EXPECT_FALSE(controller->state().micActive);
    EXPECT_TRUE(detection.empty()) << "a stream that never ran is not reported to detection";
}

TEST_F(AudioTestControllerTest, AMicrophoneThatWillNotOpenLeavesTheFlagFalseAndMayBeTriedAgain) {
    engines->micFails = true;
    controller->start(request("gone"));
    settle();
    EXPECT_FALSE(controller->state().micActive);
    EXPECT_TRUE(detection.empty());
    engines->micFails = false;
    controller->start(request("gone"));
    settle();
    EXPECT_TRUE(controller->state().micActive);
    EXPECT_EQ(engines->liveMics(), 1);
}

TEST_F(AudioTestControllerTest, TheProbeFollowsTheSourceAndFallsSilentWithoutNews) {
    auto r = request("mic", SystemAudioMode::app);
    r.systemSourceId = "app:zoom";
    r.allowFallback = false;
    controller->start(r);
    settle();
    ASSERT_EQ(engines->probeRequests.size(), 1u);
    EXPECT_EQ(engines->probeRequests[0].mode, SystemAudioMode::app);
    EXPECT_EQ(engines->probeRequests[0].sourceId, "app:zoom");
    EXPECT_FALSE(engines->probeRequests[0].allowFallback);
    EXPECT_TRUE(controller->state().systemProbeActive);

    feed(engines->probes[0].handler, 0.02f);
    main.drain();
    EXPECT_NEAR(controller->state().systemLevel, 0.24, 1e-6);

    // No buffers while nothing plays: the level holds through one tick, then falls at the next.
    ASSERT_TRUE(clock->waitForSleepers(1));
    clock->advance(0.5);
    ASSERT_TRUE(clock->waitForSleepers(1));
    main.drain();
    EXPECT_GT(controller->state().systemLevel, 0.0) << "0.5 s without news is not yet silence";
    clock->advance(0.2);
    feed(engines->probes[0].handler, 0.0f); // nothing above silence, but news: the level goes to 0 now
    main.drain();
    EXPECT_EQ(controller->state().systemLevel, 0.0);
    feed(engines->probes[0].handler, 0.03f);
    clock->advance(0.1); // the throttle lets the next value through
    feed(engines->probes[0].handler, 0.03f);
    main.drain();
    EXPECT_NEAR(controller->state().systemLevel, 0.36, 1e-6);
    clock->advance(0.7); // 0.8 s without news by the next tick
    ASSERT_TRUE(clock->waitForSleepers(1));
    main.drain();
    EXPECT_EQ(controller->state().systemLevel, 0.0);

    controller->start(r);
    settle();
    EXPECT_EQ(engines->probeRequests.size(), 1u) << "the same source keeps its probe";
    r.systemSourceId = "app:teams";
    controller->start(r);
    settle();
    ASSERT_EQ(engines->probeRequests.size(), 2u);
    EXPECT_EQ(engines->liveProbes(), 1) << "the probe of the old source closed";
    EXPECT_EQ(*engines->probes[1].alive, 1);

    r.systemAudioMode = SystemAudioMode::off;
    controller->start(r);
    settle();
    EXPECT_EQ(engines->liveProbes(), 0);
    EXPECT_FALSE(controller->state().systemProbeActive);
    EXPECT_EQ(clock->sleeperCount(), 0u) << "no silence tick outlives its probe";
    EXPECT_TRUE(controller->state().micActive) << "the microphone is not touched";
}

TEST_F(AudioTestControllerTest, AProbeThatFindsNothingLeavesTheFlagFalse) {
    engines->probeRefused = true;
    controller->start(request("mic", SystemAudioMode::system));
    settle();
    EXPECT_EQ(engines->probeRequests.size(), 1u);
    EXPECT_FALSE(controller->state().systemProbeActive);
    EXPECT_EQ(clock->sleeperCount(), 0u);
}

TEST_F(AudioTestControllerTest, OneToneAtATimeOnTheChosenOutput) {
    controller->start(request("mic"));
    engines->toneGate.close();
    controller->playTestTone();
    EXPECT_TRUE(controller->state().playingTestSound);
    controller->playTestTone();
    engines->toneGate.open();
    ASSERT_TRUE(main.runUntil([&] { return !controller->state().playingTestSound; }));
    EXPECT_EQ(engines->tones, std::vector<std::string>{"speakers"});

    controller->playTestTone();
    ASSERT_TRUE(main.runUntil([&] { return !controller->state().playingTestSound; }));
    EXPECT_EQ(engines->tones.size(), 2u) << "a tone may play again once the last one ended";
}

TEST_F(AudioTestControllerTest, DestroyingTheControllerClosesItsStreamsAndReleasesDetection) {
    controller->start(request("mic", SystemAudioMode::system));
    settle();
    ASSERT_EQ(engines->liveMics(), 1);
    ASSERT_EQ(engines->liveProbes(), 1);
    controller.reset();
    EXPECT_EQ(engines->liveMics(), 0);
    EXPECT_EQ(engines->liveProbes(), 0);
    EXPECT_EQ(clock->sleeperCount(), 0u);
    EXPECT_EQ(detection, (std::vector<bool>{true, false}));
    main.drain(); // levels and ticks still queued for the GUI thread find nobody
}
