#include "AdtsDecoder.h"
#include "FakeCapture.h"
#include "app/capture/AudioDeviceListWatcher.h"
#include "app/capture/LinuxCaptureBackend.h"
#include "app/capture/LinuxNativeRecorder.h"
#include "app/capture/PulseAudioDevices.h"
#include "core/support/SteppingClock.h"
#include "core/support/SystemClock.h"
#include "helpers/PrivateAudioDaemon.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

using namespace kavelo;
using namespace kavelo::testing;

namespace {

// Everything here runs against one private PulseAudio server with real generated sound.
class PulseAudioPathTest : public ::testing::Test {
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
    }

    std::shared_ptr<LinuxNativeRecorder> makeRecorder() {
        auto clock = std::make_shared<SystemClock>();
        LinuxNativeRecorder::Dependencies deps;
        deps.uploader = uploader;
        deps.logger = logger;
        deps.clock = clock;
        deps.backend = std::make_shared<LinuxCaptureBackend>(clock);
        deps.devices = devices;
        deps.environment = [](const std::string&) {
            return std::optional<std::string>("1");
        }; // fallback path
        auto recorder = LinuxNativeRecorder::make(deps);
        recorder->setEventHandlers(events.handlers());
        return recorder;
    }

    // Records for about the given time (counted in microphone buffers, not by the clock), then stops and
    // decodes all chunks as one stream.
    DecodedAudio record(StartRecordingInput input, double seconds) {
        auto recorder = makeRecorder();
        recorder->start(input);
        // 96 kbit/s is 12000 encoded bytes a second.
        auto bytes = static_cast<long long>(seconds * 12000);
        EXPECT_TRUE(events.waitFor([&] { return recorder->runtimeState().totalBytesEncoded >= bytes; }))
            << "no audio came";
        recorder->stop();
        Bytes all;
        for (const auto& chunk : uploader->snapshot()) {
            all.insert(all.end(), chunk.data.begin(), chunk.data.end());
        }
        return decodeAdts(all);
    }

    static StartRecordingInput input(SystemAudioMode mode, std::optional<std::string> target = std::nullopt) {
        StartRecordingInput in;
        in.recordingId = "rec";
        in.systemAudioMode = mode;
        in.systemAudioTargetId = std::move(target);
        return in;
    }

    static PrivateAudioDaemon* daemon;
    std::shared_ptr<PulseAudioDevices> devices = std::make_shared<PulseAudioDevices>();
    std::shared_ptr<FakeUploadWorker> uploader = std::make_shared<FakeUploadWorker>();
    std::shared_ptr<CoreLogger> logger = std::make_shared<CoreLogger>(std::make_shared<SystemClock>(), 500);
    RecordedEvents events;
};
PrivateAudioDaemon* PulseAudioPathTest::daemon = nullptr;

const AudioDevice* find(const std::vector<AudioDevice>& list, const std::string& id) {
    auto it = std::find_if(list.begin(), list.end(), [&](const auto& d) { return d.id == id; });
    return it == list.end() ? nullptr : &*it;
}

} // namespace

TEST_F(PulseAudioPathTest, DevicesAreListedByNodeNameWithoutMonitorsAndTheDefaultOutputCanBeSet) {
    auto mics = devices->listMicrophones();
    ASSERT_EQ(mics.size(), 1u) << "monitors are not microphones";
    EXPECT_EQ(mics[0],
              (AudioDevice{"testmic", "Testmicrofoon", AudioDevice::Kind::microphone, true, "virtual"}));
    auto outputs = devices->listOutputDevices();
    ASSERT_NE(find(outputs, "meeting"), nullptr);
    EXPECT_TRUE(find(outputs, "meeting")->isDefault);
    EXPECT_EQ(find(outputs, "micfeed")->name, "Micvoeding");
    EXPECT_EQ(devices->deviceName("meeting"), "Vergadering");
    EXPECT_EQ(devices->deviceName("nothing"), std::nullopt);

    EXPECT_TRUE(devices->setDefaultOutputDevice("meeting")) << "already the default";
    EXPECT_FALSE(devices->setDefaultOutputDevice("nothing"));
    EXPECT_TRUE(devices->setDefaultOutputDevice("micfeed"));
    EXPECT_TRUE(find(devices->listOutputDevices(), "micfeed")->isDefault);
    EXPECT_TRUE(devices->setDefaultOutputDevice("meeting"));

    EXPECT_EQ(devices->microphoneAccess(), PermissionState::granted);
    EXPECT_TRUE(devices->systemAudioAccess());
    EXPECT_EQ(devices->listSystemAudioSources().size(), 1u) << "no meeting application plays";
}

TEST_F(PulseAudioPathTest, MicrophoneAndSystemAudioBothReachTheChunks) {
    auto voice = daemon->play("micfeed", daemon->tone(440, 30, 0.4));
    auto meeting = daemon->play("meeting", daemon->tone(1000, 30, 0.4));
    auto decoded = record(input(SystemAudioMode::system), 4.0);
    ASSERT_TRUE(decoded.ok);
    EXPECT_GT(decoded.seconds(), 3.0);
    // Both tones arrive at about their own level: the microphone is not the monitor, nor the reverse.
    EXPECT_GT(decoded.toneLevel(440), 0.2);
    EXPECT_GT(decoded.toneLevel(1000), 0.2);
    EXPECT_LT(decoded.toneLevel(700), 0.02);
    auto chunks = uploader->snapshot();
    ASSERT_FALSE(chunks.empty());
    EXPECT_TRUE(chunks.back().isFinal);
    EXPECT_FALSE(events.errorCodes().size()) << "the fallback path chosen by the switch reports nothing";
}

// The recording's time runs from the return of start to the call of stop; the decoded audio must cover it,
// neither a start that returns before the microphone sends nor a stop that drops what is buffered costing
// any of it.
TEST_F(PulseAudioPathTest, TheDecodedAudioIsAsLongAsTheRecordingRan) {
    auto voice = daemon->play("micfeed", daemon->tone(440, 30, 0.4));
    auto recorder = makeRecorder();
    recorder->start(input(SystemAudioMode::system));
    const auto started = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(6)); // a short meeting, in real time on a real server
    const double ran = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    recorder->stop();
    Bytes all;
    for (const auto& chunk : uploader->snapshot()) {
        all.insert(all.end(), chunk.data.begin(), chunk.data.end());
    }
    auto decoded = decodeAdts(all);
    ASSERT_TRUE(decoded.ok);
    EXPECT_NEAR(decoded.seconds(), ran, 0.2);
}

TEST_F(PulseAudioPathTest, LosingTheOutputLeavesTheMicrophoneRecording) {
    auto module = daemon->pactl("load-module module-null-sink sink_name=call");
    daemon->pactl("set-default-sink call");
    auto voice = daemon->play("micfeed", daemon->tone(440, 30, 0.4));
    auto call = daemon->play("call", daemon->tone(1000, 30, 0.4));
    auto recorder = makeRecorder();
    recorder->start(input(SystemAudioMode::system));
    auto bytes = [&] { return recorder->runtimeState().totalBytesEncoded; };
    ASSERT_TRUE(events.waitFor([&] { return bytes() >= 2 * 12000; }));
    // The output whose monitor the system stream reads goes away in the middle of the recording.
    daemon->pactl("unload-module " + module.substr(0, module.find('\n')));
    daemon->pactl("set-default-sink meeting");
    const auto lostAt = bytes();
    ASSERT_TRUE(events.waitFor([&] { return bytes() >= lostAt + 3 * 12000; })) << "the recording stopped";
    const auto endAt = bytes();
    recorder->stop();

    auto words = events.stateWords();
    EXPECT_EQ(std::count(words.begin(), words.end(), RecorderState::error), 0);
    ASSERT_FALSE(uploader->snapshot().empty());
    EXPECT_TRUE(uploader->snapshot().back().isFinal);
    Bytes all;
    for (const auto& chunk : uploader->snapshot()) {
        all.insert(all.end(), chunk.data.begin(), chunk.data.end());
    }
    auto decoded = decodeAdts(all);
    ASSERT_TRUE(decoded.ok);
    auto after = decoded.encodedBetween(lostAt, endAt, bytes());
    // The server moves the call's playback and our monitor stream elsewhere; whatever system audio that
    // brings, the microphone must go on.
    EXPECT_GT(after.toneLevel(440), 0.2) << "the microphone went with the output";
}

TEST_F(PulseAudioPathTest, AppModeRecordsOnlyThatApplicationsStream) {
    auto voice = daemon->play("micfeed", daemon->speech("Goedemorgen allemaal, we beginnen met de notulen."));
    auto call = daemon->play("meeting", daemon->tone(660, 30, 0.4), "ZOOM VoiceEngine");
    auto music = daemon->play("meeting", daemon->tone(1500, 30, 0.4), "muziekspeler");
    ASSERT_TRUE(events.waitFor([&] { return devices->listSystemAudioSources().size() == 2; }));
    auto sources = devices->listSystemAudioSources();
    EXPECT_EQ(sources[1],
              (AudioDevice{"app:zoom", "Zoom", AudioDevice::Kind::systemAudioSource, false, std::nullopt}));

    auto decoded = record(input(SystemAudioMode::app, "app:zoom"), 3.0);
    ASSERT_TRUE(decoded.ok);
    EXPECT_GT(decoded.toneLevel(660), 0.2);
    EXPECT_LT(decoded.toneLevel(1500), 0.02) << "another application's sound leaked in";
}

TEST_F(PulseAudioPathTest, WithoutARealInputTheMicrophoneIsMissingRatherThanTheMonitor) {
    daemon->pactl("set-default-source meeting.monitor");
    LinuxCaptureBackend backend(std::make_shared<SystemClock>());
    try {
        backend.startMicrophone("", [](const float*, std::size_t) {});
        ADD_FAILURE() << "a monitor was taken for a microphone";
    } catch (const RecorderError& e) {
        EXPECT_EQ(e.kind(), RecorderError::Kind::noMicrophone);
    }
    daemon->pactl("set-default-source testmic");
    // An unknown device id falls back to the default input.
    EXPECT_NE(backend.startMicrophone("gone-usb-mic", [](const float*, std::size_t) {}), nullptr);
}

TEST_F(PulseAudioPathTest, TheWatcherTurnsABurstOfDeviceChangesIntoOneCall) {
    auto watcher = AudioDeviceListWatcher::make(std::make_shared<SystemClock>());
    std::atomic<int> calls{0};
    ASSERT_TRUE(watcher->start([&] {
        ++calls;
        events.add([] {});
    }));
    auto module = daemon->pactl("load-module module-null-sink sink_name=headset");
    daemon->pactl("set-default-sink headset");
    ASSERT_TRUE(events.waitFor([&] { return calls.load() >= 1; }));
    daemon->pactl("set-default-sink meeting");
    daemon->pactl("unload-module " + module.substr(0, module.find('\n')));
    ASSERT_TRUE(events.waitFor([&] { return calls.load() >= 2; }));
    watcher->stop();
    EXPECT_EQ(calls.load(), 2);
}

TEST(AudioDeviceListWatcherTest, DebounceCountsFromTheFirstNoticeOfABurst) {
    auto clock = std::make_shared<SteppingClock>();
    auto watcher = AudioDeviceListWatcher::make(clock);
    std::vector<double> callTimes;
    std::mutex mutex;
    watcher->start([&] {
        std::lock_guard lock(mutex);
        callTimes.push_back(secondsBetween(TimePoint{}, clock->now()));
    }); // may fail without a server: notices are then only what the test sends
    watcher->notify();
    ASSERT_TRUE(clock->waitForSleepers(1));
    clock->advance(0.1);
    watcher->notify();
    clock->advance(0.2);
    watcher->notify();
    clock->advance(0.1); // 0.4: the one call
    clock->advance(0.1);
    watcher->notify(); // 0.5
    ASSERT_TRUE(clock->waitForSleepers(1));
    clock->advance(0.4); // 0.9
    watcher.reset();
    EXPECT_EQ(callTimes, (std::vector<double>{0.4, 0.9}));
}
