#include "app/capture/CaptureStreamMonitor.h"
#include "helpers/ChildProcess.h"
#include "helpers/PrivateAudioDaemon.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <unistd.h>

using namespace kavelo;
using namespace kavelo::testing;
using namespace std::chrono_literals;

namespace {

CaptureStreamMonitor::RawStream raw(std::uint32_t index, std::uint32_t source, const std::string& name,
                                    pid_t pid) {
    CaptureStreamMonitor::RawStream stream;
    stream.owner.stream = index;
    stream.owner.applicationName = name;
    stream.owner.pid = pid;
    stream.source = source;
    return stream;
}

TEST(CaptureStreamMonitorSelectTest, KeepsOnlyOtherProgramsRecordingFromRealSources) {
    const pid_t self = 4242;
    std::vector<CaptureStreamMonitor::RawStream> streams{
        raw(1, 10, "zoom", 100),             // counts
        raw(2, 11, "obs", 101),              // records a sink's monitor
        raw(3, 10, "anything", self),        // this process
        raw(4, 10, "Kavely microfoon", 102), // another program of ours
        raw(5, 10, "pavucontrol", 103),      // level meter
        raw(6, 10, "firefox", 104),          // corked
        raw(7, 12, "ZOOM VoiceEngine", 0),   // no process id known: still another program's
        raw(8, 10, "", 0),                   // a module of the server (a remap or echo canceller)
    };
    streams[7].serverModule = true;
    streams[4].peakDetect = true;
    streams[5].corked = true;
    auto owners = CaptureStreamMonitor::select(streams, {11}, self);
    ASSERT_EQ(owners.size(), 2u);
    EXPECT_EQ(owners[0].stream, 1u);
    EXPECT_EQ(owners[1].stream, 7u);
}

// Against a private audio server (PulseAudio, or PipeWire with its PulseAudio-protocol server), with
// recorders in processes of their own.
class CaptureStreamMonitorTest : public ::testing::TestWithParam<std::string> {
  protected:
    void SetUp() override {
        daemon = GetParam() == "pipewire" ? PrivateAudioDaemon::startPipeWire()
                                          : PrivateAudioDaemon::startPulseAudio();
        if (daemon == nullptr) {
            GTEST_SKIP() << GetParam() << " is not installed (scripts/install-deps.sh installs it)";
        }
        monitor = CaptureStreamMonitor::make();
        ASSERT_TRUE(monitor->start([this](const std::vector<CaptureStreamMonitor::Owner>& owners) {
            std::lock_guard lock(mutex);
            latest = owners;
            ++changes;
            changed.notify_all();
        }));
    }

    // Waits (with a deadline, not a sleep) for a reported list that satisfies the predicate.
    template <class P> bool waitFor(P predicate) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, 10s, [&] { return predicate(latest); });
    }

    // parecord in a process of its own, named through stream properties as the application would be; its
    // client name becomes application.name.
    std::unique_ptr<ChildProcess> record(const std::string& source, const std::string& name,
                                         const std::string& properties) {
        return std::make_unique<ChildProcess>(
            "/usr/bin/env",
            std::vector<std::string>{"parecord", "--client-name=" + name, "--device=" + source,
                                     daemon->runtimeDirectory() + "/" + name + ".wav"},
            std::map<std::string, std::string>{{"PULSE_PROP", properties}});
    }

    std::unique_ptr<PrivateAudioDaemon> daemon;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<CaptureStreamMonitor::Owner> latest; // guarded by mutex
    int changes = 0;                                 // guarded by mutex
    // Last, so that it goes first: its reports use the members above.
    std::shared_ptr<CaptureStreamMonitor> monitor;
};

TEST_P(CaptureStreamMonitorTest, SeesAMeetingApplicationRecordingTheMicrophoneAndNotMonitorsOrMeters) {
    EXPECT_TRUE(monitor->current().empty());

    // A screen recorder on the system audio's monitor and a mixer's level meter on the microphone come
    // first; then the meeting application. Only the last may be reported.
    auto monitorRecorder = record("meeting.monitor", "obs", "application.process.binary=obs");
    ChildProcess meter(KAVELO_TEST_PEAK_METER, {"testmic"},
                       {{"PULSE_PROP", "application.process.binary=pavucontrol"}});
    ASSERT_EQ(meter.readLine(10s), "ready") << meter.errorOutput();

    auto zoom = record("testmic", "zoom", "application.process.binary=zoom application.id=us.zoom.Zoom");
    ASSERT_TRUE(waitFor([](const auto& owners) { return !owners.empty(); }))
        << daemon->pactl("list source-outputs");
    auto owners = monitor->current();
    ASSERT_EQ(owners.size(), 1u) << "the monitor recorder or the level meter was counted";
    EXPECT_EQ(owners[0].applicationName, "zoom");
    EXPECT_EQ(owners[0].processBinary, "zoom");
    EXPECT_EQ(owners[0].applicationId, "us.zoom.Zoom");
    EXPECT_GT(owners[0].pid, 0);
    EXPECT_NE(owners[0].pid, getpid());

    zoom.reset(); // kills parecord: its stream goes
    EXPECT_TRUE(waitFor([](const auto& owners) { return owners.empty(); }));
    EXPECT_TRUE(monitor->current().empty());
}

TEST_P(CaptureStreamMonitorTest, StopEndsTheReports) {
    monitor->stop();
    int changesAtStop = 0;
    {
        std::lock_guard lock(mutex);
        changesAtStop = changes;
    }
    auto slack = record("testmic", "Slack", "application.process.binary=slack");
    // The stream is visible to a fresh monitor, so the stopped one had something to miss.
    auto fresh = CaptureStreamMonitor::make();
    std::mutex freshMutex;
    std::condition_variable freshChanged;
    bool seen = false;
    ASSERT_TRUE(fresh->start([&](const std::vector<CaptureStreamMonitor::Owner>& owners) {
        std::lock_guard lock(freshMutex);
        seen = seen || !owners.empty();
        freshChanged.notify_all();
    }));
    {
        std::unique_lock lock(freshMutex);
        ASSERT_TRUE(seen || !fresh->current().empty() ||
                    freshChanged.wait_for(lock, 10s, [&] { return seen; }));
    }
    std::lock_guard lock(mutex);
    EXPECT_EQ(changes, changesAtStop);
}

INSTANTIATE_TEST_SUITE_P(Servers, CaptureStreamMonitorTest, ::testing::Values("pulseaudio", "pipewire"),
                         [](const auto& info) { return info.param; });

} // namespace
