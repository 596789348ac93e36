#include "TestDisplay.h"
#include "app/detection/LinuxMeetingReadings.h"
#include "app/detection/ManualScheduler.h"
#include "app/detection/MeetingDetectionService.h"
#include "core/support/InMemoryKeyValueStore.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <unistd.h>

using namespace kavelo;
namespace fs = std::filesystem;

namespace {

using Client = LinuxMeetingReadings::CaptureClient;

Client client(pid_t pid, std::string name, std::string binary) {
    Client c;
    c.pid = pid;
    c.applicationName = std::move(name);
    c.processBinary = std::move(binary);
    return c;
}

// The service on the real Linux readings, with a /proc tree of the test's own and a manual clock.
class LinuxMeetingReadingsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fs::remove_all(procRoot);
        addProcess(100, "zoom", "app-flatpak-us.zoom.Zoom-100.scope");
        addProcess(200, "firefox", "app-gnome-firefox-200.scope");
    }
    void TearDown() override {
        if (service) {
            service->stop();
        }
        fs::remove_all(procRoot);
    }

    void addProcess(pid_t pid, const std::string& comm, const std::string& unit) {
        auto dir = procRoot / std::to_string(pid);
        fs::create_directories(dir);
        std::ofstream(dir / "comm") << comm << "\n";
        std::ofstream(dir / "cgroup") << "0::/user.slice/app.slice/" << unit << "\n";
    }

    // The X tests read the real /proc, where the window programs run.
    void startService(std::unique_ptr<EwmhWindowReader> windows, bool wayland, bool realProc = false) {
        readings = std::make_shared<LinuxMeetingReadings>(
            std::move(windows), wayland, ProcessTable(realProc ? "/proc" : procRoot.string()));
        service = MeetingDetectionService::make({readings, scheduler, clock, store, nullptr});
        service->setOnMeetingDetected([this](const std::string& name) { prompts.push_back(name); });
        service->start();
    }

    fs::path procRoot = fs::temp_directory_path() / ("kavelo-readings-" + std::to_string(getpid()));
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::shared_ptr<ManualScheduler> scheduler = std::make_shared<ManualScheduler>(clock);
    std::shared_ptr<InMemoryKeyValueStore> store = std::make_shared<InMemoryKeyValueStore>();
    std::shared_ptr<LinuxMeetingReadings> readings;
    std::shared_ptr<MeetingDetectionService> service;
    std::vector<std::string> prompts;
};

TEST_F(LinuxMeetingReadingsTest, OnWaylandTheCapturingApplicationStandsInForTheFrontOne) {
    startService(nullptr, true);
    EXPECT_FALSE(readings->anyInputDeviceInUse());
    EXPECT_EQ(readings->frontmostApplication(), std::nullopt);

    // Zoom's stream names the engine, not the application: the process's Flatpak id does.
    readings->updateCaptureClients({client(100, "ZOOM VoiceEngine", "")});
    EXPECT_TRUE(readings->anyInputDeviceInUse());
    auto front = readings->frontmostApplication();
    ASSERT_TRUE(front.has_value());
    EXPECT_EQ(front->desktopId, "us.zoom.Zoom");
    EXPECT_TRUE(readings->frontmostWindowTitles().empty());
    scheduler->advance(2);
    EXPECT_EQ(prompts, std::vector<std::string>{"Zoom"});

    readings->updateCaptureClients({});
    EXPECT_FALSE(readings->anyInputDeviceInUse());
}

TEST_F(LinuxMeetingReadingsTest, OnWaylandABrowserCallIsNotRecognisedWithoutTitles) {
    startService(nullptr, true);
    readings->updateCaptureClients({client(200, "Firefox", "firefox")});
    scheduler->advance(60);
    EXPECT_TRUE(prompts.empty());
}

TEST_F(LinuxMeetingReadingsTest, StreamPropertiesNameAProcessTheTableDoesNotKnow) {
    startService(nullptr, true);
    // A process of an unknown binary (a wrapper) whose stream says what it is.
    readings->updateCaptureClients({client(300, "zoom", "zoom")});
    scheduler->advance(2);
    EXPECT_EQ(prompts, std::vector<std::string>{"Zoom"});
}

TEST_F(LinuxMeetingReadingsTest, OnX11TheActiveWindowDecidesAndABackgroundCaptureDoesNot) {
    if (!kavelo::testing::TestDisplay::available()) {
        GTEST_SKIP() << "Xvfb is not installed";
    }
    kavelo::testing::TestDisplay display;
    ASSERT_FALSE(display.name().empty()) << display.error();
    std::unique_ptr<ChildProcess> editor;
    auto editorPid = display.windows(editor, {"Gnome-text-editor", "--active", "notes.txt"});
    ASSERT_GT(editorPid, 0);
    startService(EwmhWindowReader::connect(display.name()), false, true);

    // Zoom records in the background while the editor is in front: no prompt from either trigger.
    readings->updateCaptureClients({client(999999, "ZOOM VoiceEngine", "zoom")});
    scheduler->advance(45);
    EXPECT_TRUE(prompts.empty());
    auto front = readings->frontmostApplication();
    ASSERT_TRUE(front.has_value());
    EXPECT_EQ(front->pid, editorPid);
    EXPECT_EQ(front->binary, "kavelo_test_window");

    // A meeting window comes to the front (a window class Zoom uses): the next scan prompts.
    std::unique_ptr<ChildProcess> zoomWindow;
    ASSERT_GT(display.windows(zoomWindow, {"zoom", "--active", "Zoom Meeting"}), 0);
    scheduler->advance(20);
    EXPECT_EQ(prompts, std::vector<std::string>{"Zoom"});
}

TEST_F(LinuxMeetingReadingsTest, OnX11ABrowserTabTitleNamesTheService) {
    if (!kavelo::testing::TestDisplay::available()) {
        GTEST_SKIP() << "Xvfb is not installed";
    }
    kavelo::testing::TestDisplay display;
    ASSERT_FALSE(display.name().empty()) << display.error();
    std::unique_ptr<ChildProcess> browser;
    ASSERT_GT(display.windows(
                  browser, {"firefox", "--active", "Weekly sync - Google Meet \xE2\x80\x94 Mozilla Firefox"}),
              0);
    startService(EwmhWindowReader::connect(display.name()), false, true);
    readings->updateCaptureClients({client(999999, "Firefox", "firefox")});
    scheduler->advance(2);
    EXPECT_EQ(prompts, std::vector<std::string>{"Google Meet"});
}

} // namespace
