#include "app/detection/MeetingAppTable.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>

namespace kavelo {

namespace {

std::string lowered(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

bool sameText(std::string_view a, std::string_view b) {
    return !a.empty() && lowered(a) == lowered(b);
}

template <class List> bool anyOf(const List& list, std::string_view value) {
    return std::any_of(list.begin(), list.end(), [&](const auto& item) { return sameText(value, item); });
}

// Ids as the packagings spell them: distribution packages, Flatpak, and the community Teams client, which
// is what Teams is on Linux since the native client was withdrawn.
const std::vector<MeetingAppTable::Entry>& table() {
    static const std::vector<MeetingAppTable::Entry> entries{
        {"Microsoft Teams",
         {"teams", "teams-for-linux", "com.github.IsmaelMartinez.teams_for_linux", "com.microsoft.Teams"},
         {"teams", "teams-for-linux"},
         {"Microsoft Teams", "teams", "teams-for-linux"}},
        {"Zoom",
         {"zoom", "Zoom", "us.zoom.Zoom"},
         {"zoom", "zoom.real", "ZoomLauncher"},
         {"ZOOM VoiceEngine", "zoom"}},
        {"Webex",
         {"webex", "com.cisco.webex", "Webex"},
         {"webex", "CiscoCollabHost"},
         {"Webex", "CiscoCollabHost"}},
        {"Slack", {"slack", "com.slack.Slack"}, {"slack"}, {"Slack"}},
    };
    return entries;
}

constexpr std::array<std::string_view, 14> browserDesktopIds{
    "firefox",       "firefox-esr",       "org.mozilla.firefox",   "google-chrome",      "com.google.Chrome",
    "chromium",      "chromium-browser",  "org.chromium.Chromium", "microsoft-edge",     "com.microsoft.Edge",
    "brave-browser", "com.brave.Browser", "vivaldi-stable",        "com.vivaldi.Vivaldi"};
constexpr std::array<std::string_view, 11> browserBinaries{
    "firefox",          "firefox-esr", "firefox-bin", "chrome",      "google-chrome", "chromium",
    "chromium-browser", "msedge",      "brave",       "vivaldi-bin", "vivaldi"};

} // namespace

std::span<const MeetingAppTable::Entry> MeetingAppTable::meetingApps() {
    return table();
}

bool MeetingAppTable::matches(const Entry& entry, const ApplicationIdentity& identity) {
    return anyOf(entry.desktopIds, identity.desktopId) || anyOf(entry.desktopIds, identity.streamId) ||
           anyOf(entry.binaries, identity.binary) || anyOf(entry.streamNames, identity.streamName);
}

bool MeetingAppTable::isBrowser(const ApplicationIdentity& identity) {
    return anyOf(browserDesktopIds, identity.desktopId) || anyOf(browserDesktopIds, identity.streamId) ||
           anyOf(browserBinaries, identity.binary);
}

std::optional<std::string> MeetingAppTable::serviceFromTitle(const std::string& title) {
    auto t = lowered(title);
    auto has = [&](std::string_view part) { return t.find(part) != std::string::npos; };
    auto startsWith = [&](std::string_view part) { return t.starts_with(part); };
    if (has("google meet") || startsWith("meet \xE2\x80\x93 ") || startsWith("meet - ")) {
        return "Google Meet";
    }
    if (has("microsoft teams")) {
        return "Microsoft Teams";
    }
    if (has("zoom meeting") || has("- zoom") || has("zoom workplace")) {
        return "Zoom";
    }
    if (has("webex")) {
        return "Webex";
    }
    return std::nullopt;
}

} // namespace kavelo
