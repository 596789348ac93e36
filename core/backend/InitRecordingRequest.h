#pragma once

#include "core/support/CoreJSON.h"

#include <optional>
#include <string>

namespace kavelo {

// The body of init-recording. Keys on the wire are the snake_case forms of the field names.
struct InitRecordingRequest {
    std::string userId;                        // user_id
    std::string userEmail;                     // user_email
    std::string userName;                      // user_name
    std::optional<std::string> meetingName;    // meeting_name
    std::string source;                        // source: AppConfig::platform
    std::string appVersion;                    // app_version
    std::string language;                      // language: the output language
    std::optional<std::string> organizationId; // organization_id
    std::optional<std::string> audioMode;      // audio_mode: raw SystemAudioMode, "off", "system" or "app"

    [[nodiscard]] Json toJson() const;
    // Throws DecodingError.
    static InitRecordingRequest fromJson(const Json& json);
    bool operator==(const InitRecordingRequest&) const = default;
};

} // namespace kavelo
