#pragma once

#include "core/accounts/AuthUser.h"
#include "core/recording/SystemAudioMode.h"

#include <optional>
#include <string>

namespace kavelo {

// What the application hands over for one start: who records, where it goes, and which devices.
struct PreflightContext {
    AuthUser user; // id and email are used
    std::string userName;
    std::optional<std::string> organizationId;
    std::optional<std::string> meetingName;
    std::string microphoneDeviceId;
    SystemAudioMode systemAudioMode = SystemAudioMode::system;
    std::optional<std::string> systemAudioTargetId;
    std::optional<std::string> outputDeviceId;
    std::string outputLanguage = "nl"; // language of the report

    bool operator==(const PreflightContext&) const = default;
};

} // namespace kavelo
