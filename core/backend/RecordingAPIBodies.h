#pragma once

#include "core/backend/DiagnosticsPayload.h"
#include "core/backend/EarlyMappingDispatch.h"
#include "core/support/CoreJSON.h"

#include <optional>
#include <string>

namespace kavelo {

// The small request and answer bodies of LiveRecordingAPI's function calls. They are here rather than inside
// LiveRecordingAPI so that test servers read them by the same keys.

// Body of list-recording-chunks.
struct ListChunksBody {
    std::string recordingId; // recording_id

    [[nodiscard]] Json toJson() const;
    static ListChunksBody fromJson(const Json& json);
    bool operator==(const ListChunksBody&) const = default;
};

// Body of finalize-recording when it only carries diagnostics: diagnostic_sync tells the server that no
// report is asked for.
struct DiagnosticSyncBody {
    std::string recordingId; // recording_id
    std::string userId;      // user_id
    bool diagnosticSync = true;
    DiagnosticsPayload diagnostics;

    [[nodiscard]] Json toJson() const;
    static DiagnosticSyncBody fromJson(const Json& json);
    bool operator==(const DiagnosticSyncBody&) const = default;
};

// Body of early-speaker-mapping.
struct EarlyMappingBody {
    std::string meetingId; // meeting_id
    bool onDemand = true;  // on_demand

    [[nodiscard]] Json toJson() const;
    static EarlyMappingBody fromJson(const Json& json);
    bool operator==(const EarlyMappingBody&) const = default;
};

// Answer of early-speaker-mapping.
struct EarlyMappingResponse {
    std::optional<std::string> status;
    std::optional<std::string> reason;

    [[nodiscard]] Json toJson() const;
    // Throws DecodingError.
    static EarlyMappingResponse fromJson(const Json& json);
    [[nodiscard]] EarlyMappingDispatch dispatch() const { return {status, reason}; }
    bool operator==(const EarlyMappingResponse&) const = default;
};

} // namespace kavelo
