#include "AdtsDecoder.h"
#include "FakeCapture.h"
#include "app/capture/LinuxCaptureBackend.h"
#include "app/capture/LinuxNativeRecorder.h"
#include "app/capture/PipeWireAggregateDevice.h"
#include "app/capture/PulseAudioDevices.h"
#include "core/support/SystemClock.h"

#include <gtest/gtest.h>

using namespace kavelo;
using namespace kavelo::testing;

// Runs only inside a private PipeWire session (see DESIGN.md's recipe) that has a default sink playing a
// 1000 Hz tone and a default source carrying a 440 Hz tone: both must reach the chunks through one graph.
TEST(PipeWireAggregatePathTest, MicrophoneAndMonitorArriveThroughOneGraph) {
    if (std::getenv("KAVELO_TEST_PIPEWIRE") == nullptr || !PipeWireAggregateDevice::serverAnswers()) {
        GTEST_SKIP() << "set KAVELO_TEST_PIPEWIRE=1 inside a private PipeWire session";
    }
    auto clock = std::make_shared<SystemClock>();
    auto uploader = std::make_shared<FakeUploadWorker>();
    auto logger = std::make_shared<CoreLogger>(clock, 500);
    RecordedEvents events;
    LinuxNativeRecorder::Dependencies deps{uploader,
                                           logger,
                                           clock,
                                           std::make_shared<LinuxCaptureBackend>(clock),
                                           std::make_shared<PulseAudioDevices>(),
                                           [](const std::string&) { return std::optional<std::string>(); }};
    auto recorder = LinuxNativeRecorder::make(deps);
    recorder->setEventHandlers(events.handlers());
    StartRecordingInput input;
    input.systemAudioMode = SystemAudioMode::system;
    recorder->start(input);
    EXPECT_EQ(recorder->diagnosticsSnapshot().at("engine"), "PipeWireAggregate");
    EXPECT_TRUE(events.waitFor([&] { return recorder->runtimeState().totalBytesEncoded >= 36000; }));
    recorder->stop();
    Bytes all;
    for (const auto& chunk : uploader->snapshot()) {
        all.insert(all.end(), chunk.data.begin(), chunk.data.end());
    }
    auto decoded = decodeAdts(all);
    for (const auto& e : logger->allEntries()) {
        std::fprintf(stderr, "log: %s\n", e.message.c_str());
    }
    ASSERT_TRUE(decoded.ok);
    EXPECT_GT(decoded.toneLevel(440), 0.1);
    EXPECT_GT(decoded.toneLevel(1000), 0.1);
}
