#pragma once

#include "app/detection/ApplicationIdentity.h"

#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kavelo {

// The meeting applications we offer to record, in the order that decides when two are in front at once,
// and the browsers whose tab titles may name a meeting service. Every comparison ignores case: window
// classes, .desktop ids and stream names differ in case between distributions and packagings.
class MeetingAppTable {
  public:
    struct Entry {
        std::string name; // shown to the user and stored in the muted list
        std::vector<std::string> desktopIds;
        std::vector<std::string> binaries;
        std::vector<std::string> streamNames; // application.name values the application's streams use
    };

    [[nodiscard]] static std::span<const Entry> meetingApps();
    [[nodiscard]] static bool matches(const Entry& entry, const ApplicationIdentity& identity);
    [[nodiscard]] static bool isBrowser(const ApplicationIdentity& identity);
    // The meeting service a browser window title names, or none.
    [[nodiscard]] static std::optional<std::string> serviceFromTitle(const std::string& title);
};

} // namespace kavelo
