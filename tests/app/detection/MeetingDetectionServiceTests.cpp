#include "app/detection/FakeMeetingReadings.h"
#include "app/detection/ManualScheduler.h"
#include "app/detection/MeetingDetectionService.h"
#include "core/support/InMemoryKeyValueStore.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace kavelo;

namespace {

ApplicationIdentity app(pid_t pid, std::string desktopId, std::string binary) {
    ApplicationIdentity identity;
    identity.pid = pid;
    identity.desktopId = std::move(desktopId);
    identity.binary = std::move(binary);
    return identity;
}

const ApplicationIdentity zoom = app(100, "us.zoom.Zoom", "zoom");
const ApplicationIdentity teams = app(200, "", "teams-for-linux");
const ApplicationIdentity slack = app(300, "slack", "slack");
const ApplicationIdentity chrome = app(400, "google-chrome", "chrome");
const ApplicationIdentity editor = app(500, "org.gnome.TextEditor", "gnome-text-editor");

class MeetingDetectionServiceTest : public ::testing::Test {
  protected:
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>();
    std::shared_ptr<ManualScheduler> scheduler = std::make_shared<ManualScheduler>(clock);
    std::shared_ptr<FakeMeetingReadings> readings = std::make_shared<FakeMeetingReadings>();
    std::shared_ptr<InMemoryKeyValueStore> store = std::make_shared<InMemoryKeyValueStore>();
    std::shared_ptr<CoreLogger> logger = std::make_shared<CoreLogger>(clock, 500);
    std::shared_ptr<MeetingDetectionService> service =
        MeetingDetectionService::make({readings, scheduler, clock, store, logger});
    std::vector<std::string> prompts;

    void SetUp() override {
        service->setOnMeetingDetected([this](const std::string& name) { prompts.push_back(name); });
    }

    void inFront(const ApplicationIdentity& app) {
        readings->addRunning(app);
        readings->setFrontmost(app);
    }

    [[nodiscard]] bool logged(const std::string& part) const {
        auto entries = logger->allEntries();
        return std::any_of(entries.begin(), entries.end(),
                           [&](const LogEntry& e) { return e.message.find(part) != std::string::npos; });
    }
};

TEST_F(MeetingDetectionServiceTest, RisingEdgeWithMeetingAppInFrontPromptsAfterTheConfirmationDelay) {
    inFront(zoom);
    service->start();
    readings->setMicrophoneInUse(true);
    scheduler->advance(1.9);
    EXPECT_TRUE(prompts.empty());
    scheduler->advance(0.1);
    EXPECT_EQ(prompts, std::vector<std::string>{"Zoom"});
    EXPECT_TRUE(logged("prompt voor Zoom"));

    // Still the same microphone session: the edge path does not prompt twice, and the scan is held by the
    // shared debounce.
    scheduler->advance(60);
    EXPECT_EQ(prompts.size(), 1u);
}

TEST_F(MeetingDetectionServiceTest, ShortProbeAtLaunchDoesNotPrompt) {
    inFront(teams);
    service->start();
    readings->setMicrophoneInUse(true);
    scheduler->advance(1.5);
    readings->setMicrophoneInUse(false);
    scheduler->advance(5);
    EXPECT_TRUE(prompts.empty());
    EXPECT_TRUE(logged("geen prompt (device-probe)"));
}

TEST_F(MeetingDetectionServiceTest, ConfirmationChecksMicrophoneAndFrontAgain) {
    inFront(zoom);
    service->start();
    readings->setMicrophoneInUse(true);
    // The editor comes to the front during the confirmation window: the name is read again.
    inFront(editor);
    scheduler->advance(2);
    EXPECT_TRUE(prompts.empty());
    EXPECT_TRUE(logged("geen frontmost meeting-app meer na bevestiging"));

    // Next session: the microphone is released without its notice reaching us; the confirmation reads it.
    readings->setMicrophoneInUse(false);
    inFront(zoom);
    readings->setMicrophoneInUse(true);
    readings->setMicrophoneInUse(false, false);
    scheduler->advance(2);
    EXPECT_TRUE(prompts.empty());
    EXPECT_TRUE(logged("mic niet meer in gebruik na bevestigingsvenster"));
}

TEST_F(MeetingDetectionServiceTest, MeetingAppBehindGetsNoEdgePromptButTheScanCatchesItInFront) {
    readings->addRunning(zoom);
    inFront(editor);
    service->start();
    readings->setMicrophoneInUse(true);
    scheduler->advance(5);
    EXPECT_TRUE(prompts.empty());
    EXPECT_TRUE(logged("geen frontmost meeting-app (frontmost: org.gnome.TextEditor)"));

    readings->setFrontmost(zoom);
    scheduler->advance(15); // the scan at 20 s
    EXPECT_EQ(prompts, std::vector<std::string>{"Zoom"});
    scheduler->advance(200);
    EXPECT_EQ(prompts.size(), 1u) << "one running meeting prompts once from the scan";
}

TEST_F(MeetingDetectionServiceTest, ScanHeldByDebounceTriesAgainAfterIt) {
    inFront(zoom);
    service->start();
    readings->setMicrophoneInUse(true);
    scheduler->advance(2); // edge prompt at 2 s
    ASSERT_EQ(prompts.size(), 1u);
    scheduler->advance(90); // scans at 20..80 s are inside the debounce and must not mark Zoom as prompted
    EXPECT_EQ(prompts.size(), 1u);
    scheduler->advance(8); // scan at 100 s: the debounce is over
    EXPECT_EQ(prompts, (std::vector<std::string>{"Zoom", "Zoom"}));
}

TEST_F(MeetingDetectionServiceTest, NewMicrophoneSessionWithinDebounceIsHeld) {
    inFront(zoom);
    service->start();
    readings->setMicrophoneInUse(true);
    scheduler->advance(2);
    readings->setMicrophoneInUse(false);
    EXPECT_TRUE(logged("prompt-guard gereset"));
    scheduler->advance(10);
    readings->setMicrophoneInUse(true);
    scheduler->advance(3);
    EXPECT_EQ(prompts.size(), 1u);
    EXPECT_TRUE(logged("debounce actief"));
}

TEST_F(MeetingDetectionServiceTest, OwnRecordingAndAudioTestSuppressBothTriggers) {
    inFront(zoom);
    service->setRecordingActive(true);
    service->start();
    readings->setMicrophoneInUse(true);
    scheduler->advance(60);
    EXPECT_TRUE(prompts.empty());
    EXPECT_TRUE(logged("onderdrukt: eigen opname/audiotest"));

    // Guard during the confirmation window: the audio test starts before the 2 s pass.
    service->setRecordingActive(false);
    readings->setMicrophoneInUse(false);
    readings->setMicrophoneInUse(true);
    service->setAudioTestActive(true);
    scheduler->advance(2.5);
    EXPECT_TRUE(prompts.empty());
}

TEST_F(MeetingDetectionServiceTest, DetectionSwitchedOffInPreferences) {
    store->setBool(false, DetectionPreferences::notifyKey);
    inFront(zoom);
    service->start();
    readings->setMicrophoneInUse(true);
    scheduler->advance(60);
    EXPECT_TRUE(prompts.empty());
    EXPECT_TRUE(logged("detectie uitgeschakeld"));

    store->setBool(true, DetectionPreferences::notifyKey);
    scheduler->advance(20);
    EXPECT_EQ(prompts, std::vector<std::string>{"Zoom"});
}

TEST_F(MeetingDetectionServiceTest, MutedAppIsSkippedAndTheNextInTheTableWins) {
    service->mute("Microsoft Teams");
    readings->addRunning(teams, true);
    readings->addRunning(zoom, true);
    service->start();
    readings->setMicrophoneInUse(true);
    scheduler->advance(2);
    EXPECT_EQ(prompts, std::vector<std::string>{"Zoom"});
}

TEST_F(MeetingDetectionServiceTest, TwoActiveMeetingAppsFollowTheTableOrder) {
    // On Wayland every capture-stream owner stands in for the front application, so both can be active.
    readings->addRunning(slack, true);
    readings->addRunning(teams, true);
    service->start();
    readings->setMicrophoneInUse(true);
    scheduler->advance(2);
    EXPECT_EQ(prompts, std::vector<std::string>{"Microsoft Teams"});
}

TEST_F(MeetingDetectionServiceTest, BrowserTabOfMeetingServicePromptsOncePerRun) {
    inFront(chrome);
    readings->setWindowTitles({"Inbox - Mail", "Meet \xE2\x80\x93 abc-defg-hij"});
    readings->setMicrophoneInUse(true);
    service->start(); // microphone already busy: no edge, the start scan prompts
    EXPECT_EQ(prompts, std::vector<std::string>{"Google Meet"});
    readings->setMicrophoneInUse(false);
    readings->setMicrophoneInUse(true);
    scheduler->advance(300);
    // The edge within the debounce is held; after it the scan remembers the service, and the edge path
    // does not prompt again in the same microphone session.
    EXPECT_EQ(prompts.size(), 1u);
}

TEST_F(MeetingDetectionServiceTest, BrowserWithoutMatchingOrReadableTitlesGivesNothing) {
    inFront(chrome);
    readings->setWindowTitles({"", "Weather forecast"});
    service->start();
    readings->setMicrophoneInUse(true);
    scheduler->advance(45);
    EXPECT_TRUE(prompts.empty());
    auto entries = logger->allEntries();
    EXPECT_EQ(
        std::count_if(entries.begin(), entries.end(),
                      [](const LogEntry& e) { return e.message.find("zonder titel") != std::string::npos; }),
        1)
        << "a missing title is logged once";
}

TEST_F(MeetingDetectionServiceTest, QuittingTheAppLetsTheScanPromptForItsNextMeeting) {
    inFront(zoom);
    readings->setMicrophoneInUse(true);
    service->start();
    ASSERT_EQ(prompts.size(), 1u);
    readings->removeRunning(zoom.pid);
    scheduler->advance(100); // scans prune Zoom
    inFront(zoom);
    scheduler->advance(20);
    EXPECT_EQ(prompts.size(), 2u);
}

TEST_F(MeetingDetectionServiceTest, StopCancelsPendingWorkAndListening) {
    inFront(zoom);
    service->start();
    EXPECT_TRUE(readings->watching());
    readings->setMicrophoneInUse(true);
    service->stop();
    EXPECT_FALSE(readings->watching());
    scheduler->advance(120);
    EXPECT_TRUE(prompts.empty());
    EXPECT_EQ(scheduler->pendingCount(), 0u);
}

TEST_F(MeetingDetectionServiceTest, DestroyedServiceLeavesNoWorkThatRuns) {
    inFront(zoom);
    service->start();
    readings->setMicrophoneInUse(true);
    service.reset();
    scheduler->advance(30);
    EXPECT_TRUE(prompts.empty());
}

TEST_F(MeetingDetectionServiceTest, DeviceListChangeReattachesWithoutEvaluating) {
    inFront(zoom);
    service->start();
    // A microphone plugged in already busy: the reattach 0.4 s after the device list changed reads it as
    // busy, so the use notice that follows is no rising edge (the scan handles that meeting).
    readings->setMicrophoneInUse(true, false);
    readings->changeDeviceList();
    scheduler->advance(0.3);
    readings->changeDeviceList(); // a burst: the reattach starts over
    scheduler->advance(0.3);
    EXPECT_EQ(scheduler->pendingCount(), 2u) << "the scan timer and the restarted reattach";
    scheduler->advance(0.1);
    EXPECT_EQ(scheduler->pendingCount(), 1u);
    readings->setMicrophoneInUse(true);
    scheduler->advance(5);
    EXPECT_TRUE(prompts.empty());
    EXPECT_FALSE(logged("mic actief geworden"));
}

TEST_F(MeetingDetectionServiceTest, ForgetPromptsClearsTheDebounce) {
    inFront(zoom);
    readings->setMicrophoneInUse(true);
    service->start();
    ASSERT_EQ(prompts.size(), 1u);
    service->forgetPrompts();
    readings->setMicrophoneInUse(false);
    readings->setMicrophoneInUse(true);
    scheduler->advance(2);
    EXPECT_EQ(prompts.size(), 2u);
}

} // namespace
