#include "AdtsDecoder.h"
#include "FakeCapture.h"
#include "app/capture/AggregateCaptureEngine.h"
#include "app/capture/LinuxCaptureBackend.h"
#include "app/capture/LinuxNativeRecorder.h"
#include "app/capture/PipeWireAggregateDevice.h"
#include "app/capture/PulseAudioDevices.h"
#include "core/support/SystemClock.h"
#include "helpers/PrivateAudioDaemon.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <thread>
#include <tuple>

using namespace kavelo;
using namespace kavelo::testing;

namespace {

using Seconds = std::chrono::duration<double>;

// The first module number that "pactl load-module" printed.
std::string moduleNumber(const std::string& output) {
    return output.substr(0, output.find('\n'));
}

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// What an engine handed over, with the arrival time and kind of every buffer.
struct EngineTap {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<float> mic, system;
    std::string order; // 'S' for a system buffer, 'M' for a microphone buffer
    std::vector<std::chrono::steady_clock::time_point> micArrivals;
    // Where each side first carried sound: playback may start a little after the capture.
    std::optional<std::size_t> micSoundFrom, systemSoundFrom;
    bool framesDiffered = false;
    std::size_t lastSystemFrames = 0;

    void onSystem(const float* samples, std::size_t frames) {
        std::lock_guard lock(mutex);
        noteSound(systemSoundFrom, system.size(), samples, frames);
        system.insert(system.end(), samples, samples + frames);
        order += 'S';
        lastSystemFrames = frames;
    }
    void onMic(const float* samples, std::size_t frames) {
        {
            std::lock_guard lock(mutex);
            noteSound(micSoundFrom, mic.size(), samples, frames);
            mic.insert(mic.end(), samples, samples + frames);
            if (!order.empty() && order.back() == 'S' && lastSystemFrames != frames) {
                framesDiffered = true;
            }
            order += 'M';
            micArrivals.push_back(std::chrono::steady_clock::now());
        }
        changed.notify_all();
    }
    static void noteSound(std::optional<std::size_t>& from, std::size_t offset, const float* samples,
                          std::size_t frames) {
        if (!from && std::any_of(samples, samples + frames, [](float s) { return std::abs(s) > 0.1f; })) {
            from = offset;
        }
    }
    // Waits (in real time, bounded) until both sides have carried sound for `seconds`.
    bool waitForSoundOnBothSides(double seconds) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(20), [&] {
            return micSoundFrom && systemSoundFrom &&
                   double(mic.size() - std::max(*micSoundFrom, *systemSoundFrom)) >= seconds * 48000;
        });
    }
    // Waits (in real time, bounded) until the microphone has brought `seconds` of audio in all.
    bool waitForMicSeconds(double seconds) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, std::chrono::seconds(20),
                                [&] { return double(mic.size()) >= seconds * 48000; });
    }
    Seconds longestMicGap() {
        std::lock_guard lock(mutex);
        Seconds longest{0};
        for (std::size_t i = 1; i < micArrivals.size(); ++i) {
            longest = std::max<Seconds>(longest, micArrivals[i] - micArrivals[i - 1]);
        }
        return longest;
    }
};

// Everything here runs against one private PipeWire server (with its session manager and its
// PulseAudio-protocol server for playing sound) and real generated tones: 440 Hz is the microphone, what
// plays on the default output is system audio.
class PipeWireAggregatePathTest : public ::testing::Test {
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
            // Installed but unable to run here (a sandbox without the shared memory or the sockets it
            // needs): the machine cannot host the server, which says nothing about our capture code.
            GTEST_SKIP() << "the private PipeWire server did not start on this machine: " << startError;
        }
        if (daemon == nullptr) {
            GTEST_SKIP() << "pipewire, wireplumber, pipewire-pulse or dbus-daemon is not installed "
                            "(scripts/install-deps.sh installs them)";
        }
        ASSERT_TRUE(PipeWireAggregateDevice::serverAnswers());
        voice = daemon->play("micfeed", daemon->tone(440, 60, 0.4));
    }
    void TearDown() override {
        if (daemon == nullptr) {
            return;
        }
        for (auto& playback : extraPlaybacks) {
            playback.reset();
        }
        voice.reset();
        for (auto it = modules.rbegin(); it != modules.rend(); ++it) {
            daemon->pactl("unload-module " + *it);
        }
        daemon->pactl("set-default-sink meeting");
        daemon->pactl("set-default-source testmic");
        if (HasFailure()) {
            for (const auto& e : logger->allEntries()) {
                std::fprintf(stderr, "log: %s\n", e.message.c_str());
            }
        }
    }

    // A further null sink; with source set, also a source that carries what plays on the sink, as a
    // second microphone would. Removed again after the test.
    void addSink(const std::string& name, const std::optional<std::string>& source = std::nullopt) {
        modules.push_back(moduleNumber(daemon->pactl("load-module module-null-sink sink_name=" + name)));
        if (source) {
            modules.push_back(moduleNumber(daemon->pactl(
                "load-module module-remap-source source_name=" + *source + " master=" + name + ".monitor")));
        }
    }
    void play(const std::string& sink, double frequency) {
        extraPlaybacks.push_back(daemon->play(sink, daemon->tone(frequency, 60, 0.4)));
    }

    std::shared_ptr<LinuxNativeRecorder> makeRecorder() {
        auto clock = std::make_shared<SystemClock>();
        LinuxNativeRecorder::Dependencies deps;
        deps.uploader = uploader;
        deps.logger = logger;
        deps.clock = clock;
        deps.backend = std::make_shared<LinuxCaptureBackend>(clock);
        deps.devices = std::make_shared<PulseAudioDevices>();
        deps.environment = [](const std::string&) { return std::optional<std::string>(); };
        auto recorder = LinuxNativeRecorder::make(deps);
        recorder->setEventHandlers(events.handlers());
        return recorder;
    }
    static StartRecordingInput systemMode() {
        StartRecordingInput in;
        in.recordingId = "rec";
        in.systemAudioMode = SystemAudioMode::system;
        return in;
    }
    // Waits until the recorder has encoded `seconds` more audio (96 kbit/s is 12000 bytes a second).
    bool recordFor(LinuxNativeRecorder& recorder, double seconds) {
        const auto target =
            recorder.runtimeState().totalBytesEncoded + static_cast<long long>(seconds * 12000);
        return events.waitFor([&] { return recorder.runtimeState().totalBytesEncoded >= target; });
    }
    DecodedAudio decodedChunks() {
        Bytes all;
        for (const auto& chunk : uploader->snapshot()) {
            all.insert(all.end(), chunk.data.begin(), chunk.data.end());
        }
        return decodeAdts(all);
    }
    std::shared_ptr<AggregateCaptureEngine> makeEngine(EngineTap& tap,
                                                       std::optional<std::string> microphone = std::nullopt) {
        auto engine = AggregateCaptureEngine::make(std::make_shared<PipeWireAggregateDevice>(),
                                                   std::make_shared<SystemClock>(), std::move(microphone),
                                                   [this](const std::string& line) { logger->info(line); });
        engine->setHandlers([&tap](const float* s, std::size_t n) { tap.onSystem(s, n); },
                            [&tap](const float* s, std::size_t n) { tap.onMic(s, n); }, [](bool) {});
        return engine;
    }
    bool logged(const std::string& text) {
        auto entries = logger->allEntries();
        return std::any_of(entries.begin(), entries.end(),
                           [&](const auto& e) { return e.message.find(text) != std::string::npos; });
    }

    static PrivateAudioDaemon* daemon;
    static std::string startError;
    std::unique_ptr<PrivateAudioDaemon::Playback> voice;
    std::vector<std::unique_ptr<PrivateAudioDaemon::Playback>> extraPlaybacks;
    std::vector<std::string> modules;
    std::shared_ptr<FakeUploadWorker> uploader = std::make_shared<FakeUploadWorker>();
    std::shared_ptr<CoreLogger> logger = std::make_shared<CoreLogger>(std::make_shared<SystemClock>(), 2000);
    RecordedEvents events;
};
PrivateAudioDaemon* PipeWireAggregatePathTest::daemon = nullptr;
std::string PipeWireAggregatePathTest::startError;

} // namespace

TEST_F(PipeWireAggregatePathTest, OneGraphDeliversEachSourceOnItsOwnSideSystemFirst) {
    play("meeting", 1000);
    EngineTap tap;
    auto engine = makeEngine(tap);
    const double cpuBefore = cpuSeconds();
    const auto wallBefore = std::chrono::steady_clock::now();
    engine->start();
    ASSERT_TRUE(engine->waitForFirstAudio(5));
    ASSERT_TRUE(tap.waitForSoundOnBothSides(3)) << "a tone never arrived";
    engine->stop();
    const double cpu = cpuSeconds() - cpuBefore;
    const Seconds wall = std::chrono::steady_clock::now() - wallBefore;
    std::fprintf(stderr, "aggregate capture: %.1f%% of one core over %.1f s\n", 100 * cpu / wall.count(),
                 wall.count());

    std::lock_guard lock(tap.mutex);
    EXPECT_TRUE(logged("aggregate built: rate=48000Hz total=4ch (mic=2, sys=2"));
    ASSERT_FALSE(tap.order.empty());
    // Every cycle brings the system buffer first, then the microphone buffer of the same length.
    EXPECT_EQ(tap.order.front(), 'S');
    EXPECT_EQ(tap.order.find("SS"), std::string::npos);
    EXPECT_EQ(tap.order.find("MM"), std::string::npos);
    EXPECT_FALSE(tap.framesDiffered);
    EXPECT_EQ(tap.mic.size(), tap.system.size());
    // Each side carries its own tone only: the monitor is not the microphone, nor the reverse.
    const auto from = long(std::max(*tap.micSoundFrom, *tap.systemSoundFrom));
    auto mic = DecodedAudio::ofSamples({tap.mic.begin() + from, tap.mic.end()});
    auto system = DecodedAudio::ofSamples({tap.system.begin() + from, tap.system.end()});
    EXPECT_GT(mic.toneLevel(440), 0.2);
    EXPECT_LT(mic.toneLevel(1000), 0.02);
    EXPECT_GT(system.toneLevel(1000), 0.2);
    EXPECT_LT(system.toneLevel(440), 0.02);
}

TEST_F(PipeWireAggregatePathTest, APreferredMicrophoneWinsOverTheDefaultAndAnUnknownOneMeansTheDefault) {
    addSink("headsetfeed", "headsetmic");
    play("headsetfeed", 660);
    play("meeting", 1000);
    for (const auto& [preference, heard, notHeard] :
         {std::tuple{"headsetmic", 660.0, 440.0}, std::tuple{"gone-usb-mic", 440.0, 660.0}}) {
        EngineTap tap;
        auto engine = makeEngine(tap, preference);
        engine->start();
        ASSERT_TRUE(tap.waitForSoundOnBothSides(1.0)) << preference;
        engine->stop();
        std::lock_guard lock(tap.mutex);
        auto mic = DecodedAudio::ofSamples({tap.mic.begin() + long(*tap.micSoundFrom), tap.mic.end()});
        EXPECT_GT(mic.toneLevel(heard), 0.2) << preference;
        EXPECT_LT(mic.toneLevel(notHeard), 0.02) << preference;
    }
}

// The lag (in samples, positive when b trails a) at which b best matches a, within maxLag.
long bestLag(const std::vector<float>& a, const std::vector<float>& b, std::size_t from, std::size_t length,
             long maxLag) {
    long best = 0;
    double bestScore = -1;
    for (long lag = -maxLag; lag <= maxLag; ++lag) {
        double score = 0;
        for (std::size_t i = from; i < from + length; ++i) {
            const auto j = long(i) + lag;
            if (j >= 0 && std::size_t(j) < b.size()) {
                score += double(a[i]) * double(b[std::size_t(j)]);
            }
        }
        if (score > bestScore) {
            bestScore = score;
            best = lag;
        }
    }
    return best;
}

TEST_F(PipeWireAggregatePathTest, MicrophoneAndSystemAudioShareOneClock) {
    // The default output is the sink the microphone hears, so both sides carry the same speech; in one
    // graph they must stay aligned to within the microphone route's own buffering.
    voice.reset();
    daemon->pactl("set-default-sink micfeed");
    EngineTap tap;
    auto engine = makeEngine(tap);
    engine->start();
    ASSERT_TRUE(engine->waitForFirstAudio(5));
    extraPlaybacks.push_back(
        daemon->play("micfeed", daemon->speech("Goedemorgen allemaal, we beginnen met de "
                                               "notulen van de vorige vergadering.")));
    ASSERT_TRUE(tap.waitForSoundOnBothSides(2.0)) << "the speech never arrived";
    engine->stop();
    std::lock_guard lock(tap.mutex);
    const auto from = std::max(*tap.micSoundFrom, *tap.systemSoundFrom) + 4800;
    const auto length = std::min<std::size_t>(12000, tap.mic.size() - from - 4800);
    const auto lag = bestLag(tap.system, tap.mic, from, length, 4096);
    std::fprintf(stderr, "microphone trails system audio by %ld samples (%.1f ms)\n", lag, lag / 48.0);
    EXPECT_LE(std::labs(lag), 2048) << "more than two cycles apart";
}

TEST_F(PipeWireAggregatePathTest, RecorderTakesTheAggregatePathAndBothTonesReachTheChunks) {
    play("meeting", 1000);
    auto recorder = makeRecorder();
    recorder->start(systemMode());
    EXPECT_EQ(recorder->diagnosticsSnapshot().at("engine"), "PipeWireAggregate");
    ASSERT_TRUE(recordFor(*recorder, 4)) << "no audio came";
    recorder->stop();
    EXPECT_TRUE(events.errorCodes().empty()) << "the aggregate path started, nothing to report";
    auto chunks = uploader->snapshot();
    ASSERT_FALSE(chunks.empty());
    EXPECT_TRUE(chunks.back().isFinal);
    auto decoded = decodedChunks();
    ASSERT_TRUE(decoded.ok);
    EXPECT_GT(decoded.seconds(), 3.0);
    EXPECT_GT(decoded.toneLevel(440), 0.2);
    EXPECT_GT(decoded.toneLevel(1000), 0.2);
    EXPECT_LT(decoded.toneLevel(700), 0.02);
}

// A disk that stalls for two seconds while the first chunk is written holds up the capture worker; the ring
// in front of it keeps every cycle, and the decoded audio covers the whole time from start to stop.
TEST_F(PipeWireAggregatePathTest, ASlowDiskLosesNoCycleAndTheDecodedAudioIsAsLongAsTheRecordingRan) {
    std::atomic<bool> stalled{false};
    uploader->beforeStore = [&stalled](int) {
        if (!stalled.exchange(true)) {
            std::this_thread::sleep_for(std::chrono::seconds(2)); // the slow disk of this test
        }
    };
    auto recorder = makeRecorder();
    recorder->start(systemMode());
    const auto started = std::chrono::steady_clock::now();
    ASSERT_EQ(recorder->diagnosticsSnapshot().at("engine"), "PipeWireAggregate");
    std::this_thread::sleep_for(std::chrono::seconds(12)); // the first chunk is cut after about 8 seconds
    const double ran = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    recorder->stop();
    EXPECT_TRUE(stalled.load()) << "no chunk was written during the recording";
    EXPECT_EQ(recorder->runtimeState().droppedCycles, 0);
    EXPECT_EQ(recorder->diagnosticsSnapshot().at("droppedCycles"), "0");
    auto decoded = decodedChunks();
    ASSERT_TRUE(decoded.ok);
    EXPECT_NEAR(decoded.seconds(), ran, 0.2);
}

TEST_F(PipeWireAggregatePathTest, LosingTheSystemOutputNeverCostsTheMicrophone) {
    addSink("call");
    daemon->pactl("set-default-sink call");
    play("call", 1000);
    EngineTap tap;
    auto engine = makeEngine(tap);
    engine->start();
    engine->startWatchdog();
    ASSERT_TRUE(tap.waitForMicSeconds(2));
    // The output the system audio came from goes away in the middle of the recording.
    daemon->pactl("unload-module " + modules.front());
    modules.erase(modules.begin());
    std::size_t micBefore, systemBefore;
    {
        std::lock_guard lock(tap.mutex);
        micBefore = tap.mic.size();
        systemBefore = tap.system.size();
    }
    ASSERT_TRUE(tap.waitForMicSeconds(double(micBefore) / 48000 + 4)) << "the microphone stopped";
    engine->stop();
    const auto gap = tap.longestMicGap();
    std::fprintf(stderr, "longest microphone gap around the lost output: %.0f ms\n", gap.count() * 1000);

    std::lock_guard lock(tap.mutex);
    auto micAfter = DecodedAudio::ofSamples({tap.mic.begin() + long(micBefore), tap.mic.end()});
    EXPECT_GT(micAfter.toneLevel(440), 0.2);
    // The call's stream follows the new default output, and the rebuilt graph hears it there again.
    auto systemAfter = DecodedAudio::ofSamples({tap.system.begin() + long(systemBefore), tap.system.end()});
    EXPECT_GT(systemAfter.toneLevel(1000), 0.2);
    // The rebuild waits one second before it builds the graph on the new default output; that pause is
    // all the microphone loses.
    EXPECT_LT(gap.count(), 3.0);
    EXPECT_TRUE(logged("aggregate rebuild (default device changed)"));
}

TEST_F(PipeWireAggregatePathTest, RecordingOutlivesALostOutputAndDefaultDeviceChanges) {
    addSink("call");
    daemon->pactl("set-default-sink call");
    play("call", 1000);
    auto recorder = makeRecorder();
    recorder->start(systemMode());
    ASSERT_EQ(recorder->diagnosticsSnapshot().at("engine"), "PipeWireAggregate");
    ASSERT_TRUE(recordFor(*recorder, 2));

    // The system output disappears: the microphone goes on alone or with whatever is the default now.
    daemon->pactl("unload-module " + modules.front());
    modules.erase(modules.begin());
    const auto lostAt = recorder->runtimeState().totalBytesEncoded;
    ASSERT_TRUE(recordFor(*recorder, 3)) << "the recording stopped with the output";
    const auto headsetAt = recorder->runtimeState().totalBytesEncoded;

    // The user plugs in a headset: a new default microphone and a new default output.
    addSink("headsetfeed", "headsetmic");
    addSink("headset");
    play("headsetfeed", 660);
    play("headset", 1500);
    daemon->pactl("set-default-source headsetmic");
    daemon->pactl("set-default-sink headset");
    ASSERT_TRUE(recordFor(*recorder, 4)) << "the recording stopped at the device change";
    recorder->stop();

    EXPECT_EQ(events.errorCodes(), std::vector<std::string>{});
    auto words = events.stateWords();
    EXPECT_EQ(std::count(words.begin(), words.end(), RecorderState::error), 0);
    auto chunks = uploader->snapshot();
    ASSERT_FALSE(chunks.empty());
    EXPECT_TRUE(chunks.back().isFinal);
    auto decoded = decodedChunks();
    ASSERT_TRUE(decoded.ok);
    EXPECT_GT(
        decoded.encodedBetween(lostAt, headsetAt, recorder->runtimeState().totalBytesEncoded).toneLevel(440),
        0.2)
        << "the microphone was lost with the output";
    auto last = decoded.tail(1.5);
    EXPECT_GT(last.toneLevel(660), 0.2) << "the new default microphone is not recorded";
    EXPECT_GT(last.toneLevel(1500), 0.2) << "the new default output is not recorded";
    EXPECT_LT(last.toneLevel(440), 0.02) << "the old microphone is still recorded";
}
