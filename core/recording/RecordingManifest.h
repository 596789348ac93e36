#pragma once

#include "core/backend/FinalizePayload.h"
#include "core/support/CoreJSON.h"
#include "core/support/RawEnum.h"
#include "core/support/Time.h"

#include <optional>
#include <string>

namespace kavelo {

// What survives the process about one recording: that it exists, how far it got, and its secret. The
// audio itself lies in the chunk files. Stored as JSON under exactly the field names below, optional
// fields left out when absent, dates in ISO 8601.
struct RecordingManifest {
    enum class Stage { active, stopped };

    int version = 1;
    std::string recordingId;
    std::optional<std::string> recordingSecret; // in the clear, as the backend gave it; never logged
    Stage stage = Stage::active;
    TimePoint startedAt;
    bool isPaused = false;
    std::optional<TimePoint> pausedAt;
    double totalPausedMs = 0;
    std::optional<std::string> meetingName;
    std::optional<int> lastSequence;   // only written at stage stopped
    std::optional<int> elapsedSeconds; // only written at stage stopped
    std::optional<std::string> userId;
    // The report request exactly as it goes out, kept before it is sent: a process that dies while the
    // request is on its way sends the same one again (the server recognises the repeat) instead of
    // asking the user anew and the backend for a second report.
    std::optional<FinalizePayload> finalizeRequest;
    // The server accepted finalizeRequest; only the local clean-up may be left.
    bool finalizeAccepted = false;

    bool operator==(const RecordingManifest&) const = default;

    [[nodiscard]] Json toJson() const;
    // Throws DecodingError for a missing required key, a wrong type, an unknown stage, a bad date, or a value
    // outside RecordingLimits (id, secret, lastSequence) or a negative paused time.
    static RecordingManifest fromJson(const Json& json);
};

template <> struct RawEnumTraits<RecordingManifest::Stage> {
    static constexpr std::array<std::pair<RecordingManifest::Stage, std::string_view>, 2> table{
        {{RecordingManifest::Stage::active, "active"}, {RecordingManifest::Stage::stopped, "stopped"}}};
};

} // namespace kavelo
