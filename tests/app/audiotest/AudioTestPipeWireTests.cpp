#include "MainQueue.h"
#include "app/audiotest/AudioTestController.h"
#include "app/audiotest/LinuxAudioTestEngines.h"
#include "app/capture/LinuxCaptureBackend.h"
#include "app/capture/PipeWireAggregateDevice.h"
#include "core/support/SystemClock.h"
#include "helpers/PrivateAudioDaemon.h"

#include <gtest/gtest.h>

using namespace kavelo;
using namespace kavelo::testing;

namespace {

// The graph probe against a private PipeWire server. The fallback is not allowed here, so every level the
// system meter shows came through the graph, and only from the output's channels of it.
class AudioTestPipeWireTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        try {
            daemon = PrivateAudioDaemon::startPipeWire().release();
        } catch (const std::exception& e) {
            startError = e.what();
        }
    }
    static void TearDownTestSuite() {
        delete daemon;
        daemon = nullptr;
    }
    void SetUp() override {
        if (!startError.empty()) {
            GTEST_SKIP() << "the private PipeWire server did not start on this machine: " << startError;
        }
        if (daemon == nullptr) {
            GTEST_SKIP() << "pipewire, wireplumber, pipewire-pulse or dbus-daemon is not installed";
        }
        ASSERT_TRUE(PipeWireAggregateDevice::serverAnswers());
        auto clock = std::make_shared<SystemClock>();
        AudioTestController::Dependencies deps;
        deps.engines = std::make_shared<LinuxAudioTestEngines>(
            std::make_shared<LinuxCaptureBackend>(clock), [this](const std::string& name) {
                return name == "KAVELO_DISABLE_AUDIO_TAP" ? disableGraph : std::nullopt;
            });
        deps.clock = clock;
        deps.postToMain = [this](std::function<void()> job) { main.post(std::move(job)); };
        controller = AudioTestController::make(deps);
    }
    void TearDown() override { controller.reset(); }

    static AudioTestRequest request() {
        AudioTestRequest r;
        r.microphoneId = "testmic";
        r.systemAudioMode = SystemAudioMode::system;
        r.outputId = "meeting";
        r.allowFallback = false;
        return r;
    }

    static PrivateAudioDaemon* daemon;
    static std::string startError;
    std::optional<std::string> disableGraph;
    MainQueue main;
    std::shared_ptr<AudioTestController> controller;
};
PrivateAudioDaemon* AudioTestPipeWireTest::daemon = nullptr;
std::string AudioTestPipeWireTest::startError;

} // namespace

TEST_F(AudioTestPipeWireTest, TheGraphProbeMeasuresTheOutputNotTheMicrophone) {
    auto voice = daemon->play("micfeed", daemon->tone(440, 20, 0.4));
    controller->start(request());
    ASSERT_TRUE(main.runUntil([&] { return controller->state().micLevel > 0.5; })) << "no microphone level";
    ASSERT_TRUE(main.runUntil([&] { return controller->state().systemProbeActive; }))
        << "the graph probe did not start";
    // A second's worth of probe values while only the microphone sounds: none of it on the system meter.
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    double loudest = 0.0;
    main.runUntil([&] {
        loudest = std::max(loudest, controller->state().systemLevel);
        return std::chrono::steady_clock::now() > until;
    });
    EXPECT_LT(loudest, 0.05) << "the microphone leaked into the system meter";

    controller->playTestTone();
    EXPECT_TRUE(main.runUntil([&] { return controller->state().systemLevel > 0.9; }))
        << "the tone did not reach the graph probe";
    controller->stop();
    controller->waitUntilIdle();
}

TEST_F(AudioTestPipeWireTest, TheSwitchKeepsTheGraphProbeOffAndWithoutFallbackNothingRuns) {
    disableGraph = "1";
    controller->start(request());
    controller->waitUntilIdle();
    main.drain();
    EXPECT_FALSE(controller->state().systemProbeActive);
    EXPECT_TRUE(controller->state().micActive);
    controller->stop();
    controller->waitUntilIdle();
}
