#pragma once

#include "app/detection/ApplicationIdentity.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kavelo {

// What meeting detection reads from the machine. Every read that fails answers in the negative (no
// application, no title, no microphone use): detection never fails visibly. All calls come from the
// thread that owns the detection service, and the watch callbacks must be delivered there too.
class MeetingReadings {
  public:
    struct RunningApplication {
        ApplicationIdentity identity;
        bool active = false; // the application in front
    };

    virtual ~MeetingReadings() = default;

    // Whether another program captures from a real input device (not a monitor, not a level meter).
    [[nodiscard]] virtual bool anyInputDeviceInUse() = 0;
    [[nodiscard]] virtual std::vector<RunningApplication> runningApplications() = 0;
    [[nodiscard]] virtual std::optional<ApplicationIdentity> frontmostApplication() = 0;
    // Titles of the front application's normal windows, front to back. An empty string is a window whose
    // title could not be read.
    [[nodiscard]] virtual std::vector<std::string> frontmostWindowTitles() = 0;

    // onInputUse: input use may have changed. onDeviceList: input devices came or went. Replaces any
    // earlier watch; unwatch ends it.
    virtual void watchInputDevices(std::function<void()> onInputUse, std::function<void()> onDeviceList) = 0;
    virtual void unwatchInputDevices() = 0;
};

} // namespace kavelo
