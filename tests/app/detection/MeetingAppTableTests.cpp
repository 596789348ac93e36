#include "app/detection/DetectionPreferences.h"
#include "app/detection/MeetingAppTable.h"
#include "core/support/InMemoryKeyValueStore.h"

#include <gtest/gtest.h>

using namespace kavelo;

namespace {

std::optional<std::string> nameOf(const ApplicationIdentity& identity) {
    for (const auto& entry : MeetingAppTable::meetingApps()) {
        if (MeetingAppTable::matches(entry, identity)) {
            return entry.name;
        }
    }
    return std::nullopt;
}

TEST(MeetingAppTableTest, RecognisesApplicationsByEveryLinuxIdentifier) {
    ApplicationIdentity flatpak;
    flatpak.desktopId = "us.zoom.Zoom";
    EXPECT_EQ(nameOf(flatpak), "Zoom");

    ApplicationIdentity windowClass;
    windowClass.desktopId = "Slack"; // the X11 class, capitalised
    EXPECT_EQ(nameOf(windowClass), "Slack");

    ApplicationIdentity process;
    process.binary = "teams-for-linux";
    EXPECT_EQ(nameOf(process), "Microsoft Teams");

    ApplicationIdentity stream;
    stream.streamName = "ZOOM VoiceEngine";
    EXPECT_EQ(nameOf(stream), "Zoom");

    ApplicationIdentity streamId;
    streamId.streamId = "com.slack.Slack";
    EXPECT_EQ(nameOf(streamId), "Slack");

    ApplicationIdentity other;
    other.binary = "zoomer"; // a prefix of a known binary is another program
    other.desktopId = "org.gnome.Nautilus";
    EXPECT_EQ(nameOf(other), std::nullopt);
    EXPECT_EQ(nameOf(ApplicationIdentity{}), std::nullopt) << "empty fields match nothing";

    EXPECT_EQ(MeetingAppTable::meetingApps().front().name, "Microsoft Teams") << "order decides ties";
}

TEST(MeetingAppTableTest, RecognisesBrowsers) {
    ApplicationIdentity firefox;
    firefox.desktopId = "org.mozilla.firefox";
    EXPECT_TRUE(MeetingAppTable::isBrowser(firefox));
    ApplicationIdentity chrome;
    chrome.binary = "chrome";
    EXPECT_TRUE(MeetingAppTable::isBrowser(chrome));
    ApplicationIdentity zoom;
    zoom.binary = "zoom";
    EXPECT_FALSE(MeetingAppTable::isBrowser(zoom));
}

TEST(MeetingAppTableTest, ServiceFromTitle) {
    EXPECT_EQ(MeetingAppTable::serviceFromTitle("Meet \xE2\x80\x93 abc-defg-hij"), "Google Meet");
    EXPECT_EQ(MeetingAppTable::serviceFromTitle("Meet - abc-defg-hij - Chromium"), "Google Meet");
    EXPECT_EQ(MeetingAppTable::serviceFromTitle("Standup - Google Meet \xE2\x80\x94 Mozilla Firefox"),
              "Google Meet");
    EXPECT_EQ(MeetingAppTable::serviceFromTitle("Chat | Microsoft Teams"), "Microsoft Teams");
    EXPECT_EQ(MeetingAppTable::serviceFromTitle("Zoom Meeting"), "Zoom");
    EXPECT_EQ(MeetingAppTable::serviceFromTitle("Launch Meeting - Zoom"), "Zoom");
    EXPECT_EQ(MeetingAppTable::serviceFromTitle("Zoom Workplace"), "Zoom");
    EXPECT_EQ(MeetingAppTable::serviceFromTitle("Cisco WEBEX meeting"), "Webex");
    // First match wins: a Teams page about Zoom is Teams.
    EXPECT_EQ(MeetingAppTable::serviceFromTitle("Microsoft Teams - zoom meeting notes"), "Microsoft Teams");
    EXPECT_EQ(MeetingAppTable::serviceFromTitle("Meeting notes"), std::nullopt);
    EXPECT_EQ(MeetingAppTable::serviceFromTitle("Meetup - events"), std::nullopt);
    EXPECT_EQ(MeetingAppTable::serviceFromTitle("zoom in on a photo"), std::nullopt);
}

TEST(DetectionPreferencesTest, SwitchAndMutedList) {
    auto store = std::make_shared<InMemoryKeyValueStore>();
    DetectionPreferences preferences(store);
    EXPECT_TRUE(preferences.enabled()) << "absent means on";
    store->setBool(false, DetectionPreferences::notifyKey);
    EXPECT_FALSE(preferences.enabled());

    store->setString(" Zoom ,, ,Slack,  ", DetectionPreferences::mutedKey);
    EXPECT_EQ(preferences.mutedApps(), (std::vector<std::string>{"Zoom", "Slack"}));
    EXPECT_TRUE(preferences.isMuted("Slack"));
    EXPECT_FALSE(preferences.isMuted("slack")) << "names compare exactly";
    preferences.mute("Webex");
    preferences.mute("Zoom");
    EXPECT_EQ(store->string(DetectionPreferences::mutedKey), "Zoom, Slack, Webex");
}

TEST(DetectionPreferencesTest, StoredListIsBounded) {
    auto store = std::make_shared<InMemoryKeyValueStore>();
    std::string huge;
    for (int i = 0; i < 5000; ++i) {
        huge += "app" + std::to_string(i) + ",";
    }
    store->setString(huge, DetectionPreferences::mutedKey);
    DetectionPreferences preferences(store);
    EXPECT_EQ(preferences.mutedApps().size(), DetectionPreferences::maxMutedNames);
    EXPECT_FALSE(preferences.isMuted("app4999"));
    // Muting on a full list keeps the new name; the oldest gives way.
    preferences.mute("Zoom");
    EXPECT_TRUE(preferences.isMuted("Zoom"));
    EXPECT_FALSE(preferences.isMuted("app0"));
    EXPECT_EQ(preferences.mutedApps().size(), DetectionPreferences::maxMutedNames);
}

} // namespace
