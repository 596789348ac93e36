#pragma once

#include "core/support/CoreJSON.h"

#include <optional>
#include <string>

namespace kavelo {

// The answer of init-recording: the identity of everything that follows. camelCase fields over
// snake_case keys.
struct InitRecordingResponse {
    std::string recordingId;                    // recording_id, required
    std::optional<std::string> recordingSecret; // recording_secret: the credential for upload URLs
    std::optional<bool> deduplicated;           // deduplicated: kept, never acted on

    [[nodiscard]] Json toJson() const;
    // Throws DecodingError, also when recording_id is missing or either the id or the secret falls outside
    // RecordingLimits.
    static InitRecordingResponse fromJson(const Json& json);
    bool operator==(const InitRecordingResponse&) const = default;
};

} // namespace kavelo
