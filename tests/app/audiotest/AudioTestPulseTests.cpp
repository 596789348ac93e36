#include "MainQueue.h"
#include "app/audiotest/AudioTestController.h"
#include "app/audiotest/LinuxAudioTestEngines.h"
#include "app/capture/LinuxCaptureBackend.h"
#include "core/support/SystemClock.h"
#include "helpers/PrivateAudioDaemon.h"

#include <gtest/gtest.h>

#include <sstream>

using namespace kavelo;
using namespace kavelo::testing;

namespace {

// The audio test against a private PulseAudio server: "micfeed" feeds the microphone "testmic", and
// "meeting" is the default output whose monitor the probe reads.
class AudioTestPulseTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { daemon = PrivateAudioDaemon::startPulseAudio().release(); }
    static void TearDownTestSuite() {
        delete daemon;
        daemon = nullptr;
    }
    void SetUp() override {
        if (daemon == nullptr) {
            GTEST_SKIP() << "pulseaudio is not installed (scripts/install-deps.sh installs it)";
        }
        auto clock = std::make_shared<SystemClock>();
        AudioTestController::Dependencies deps;
        deps.engines = std::make_shared<LinuxAudioTestEngines>(
            std::make_shared<LinuxCaptureBackend>(clock), [](const std::string&) { return std::nullopt; });
        deps.clock = clock;
        deps.postToMain = [this](std::function<void()> job) { main.post(std::move(job)); };
        controller = AudioTestController::make(deps);
        baseline = serverStreams();
    }
    void TearDown() override { controller.reset(); }

    // The record streams the server has open now beyond its own (the remapped microphone reads its sink's
    // monitor through one).
    int recordStreams() const { return serverStreams() - baseline; }
    static int serverStreams() {
        std::istringstream lines(daemon->pactl("list short source-outputs"));
        int count = 0;
        for (std::string line; std::getline(lines, line);) {
            count += line.empty() ? 0 : 1;
        }
        return count;
    }
    static AudioTestRequest request(bool allowFallback) {
        AudioTestRequest r;
        r.microphoneId = "testmic";
        r.systemAudioMode = SystemAudioMode::system;
        r.outputId = "meeting";
        r.allowFallback = allowFallback;
        return r;
    }

    static PrivateAudioDaemon* daemon;
    MainQueue main;
    std::shared_ptr<AudioTestController> controller;
    int baseline = 0;
};
PrivateAudioDaemon* AudioTestPulseTest::daemon = nullptr;

} // namespace

TEST_F(AudioTestPulseTest, TheTestToneShowsOnTheSystemMeterAndAVoiceOnTheMicrophone) {
    auto voice = daemon->play("micfeed", daemon->tone(300, 20, 0.2));
    controller->start(request(true));
    ASSERT_TRUE(main.runUntil([&] { return controller->state().micLevel > 0.5; })) << "no microphone level";
    ASSERT_TRUE(main.runUntil([&] { return controller->state().systemProbeActive; }));
    EXPECT_EQ(recordStreams(), 2) << "the microphone and the output's monitor";
    EXPECT_LT(controller->state().systemLevel, 0.05) << "nothing plays on the output yet";

    // The tone, 0.25 of full scale (rms 0.18), plays on "meeting" and comes back through its monitor.
    controller->playTestTone();
    ASSERT_TRUE(main.runUntil([&] { return controller->state().systemLevel > 0.9; }))
        << "the tone did not reach the probe";
    ASSERT_TRUE(main.runUntil([&] { return !controller->state().playingTestSound; }));
    ASSERT_TRUE(main.runUntil([&] { return controller->state().systemLevel < 0.05; }))
        << "the level falls back when the tone ends";

    controller->stop();
    controller->waitUntilIdle();
    EXPECT_EQ(recordStreams(), 0) << "stop leaves no stream behind";
    main.drain();
    EXPECT_EQ(controller->state(), AudioTestState{});
}

TEST_F(AudioTestPulseTest, WithoutTheFallbackAServerWithoutTheGraphPathGetsNoProbe) {
    controller->start(request(false));
    controller->waitUntilIdle();
    main.drain();
    EXPECT_TRUE(controller->state().micActive);
    EXPECT_FALSE(controller->state().systemProbeActive);
    EXPECT_EQ(recordStreams(), 1) << "the microphone only";
    controller->stop();
    controller->waitUntilIdle();
    EXPECT_EQ(recordStreams(), 0);
}
