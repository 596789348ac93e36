#pragma once

#include "core/support/CoreJSON.h"
#include "core/support/Time.h"

#include <optional>
#include <string>
#include <vector>

namespace kavelo {

// What the stand-in remembers of one recording and of the `meetings` row that belongs to it. Mapping
// results are stored as a due time and are read lazily: the row shows them from that moment on.
struct Recording {
    std::string id;
    std::string secret;
    std::string userId;
    std::string userEmail;
    std::string userName;
    std::optional<std::string> meetingName;
    std::string source;
    std::string appVersion;
    std::string language;
    std::optional<std::string> organizationId;
    std::optional<std::string> audioMode;
    TimePoint createdAt;

    std::string meetingId;
    TimePoint meetingVisibleAt;
    std::vector<std::string> participants;
    std::optional<std::string> mappingStatus;
    // A dispatched mapping: from mappingDueAt on the row reads mappingResultStatus and mappingResultNames.
    std::optional<TimePoint> mappingDueAt;
    std::string mappingResultStatus;
    std::vector<std::string> mappingResultNames;

    std::vector<Json> finalizeRequests;
    std::optional<TimePoint> finalizedAt;  // when the first report request came
    std::vector<std::string> finalizeKeys; // the idempotency keys of finalizeRequests, where one came
    int finalizeRepeats = 0;               // requests answered again under a key already taken
    std::vector<Json> diagnosticSyncs;

    bool operator==(const Recording&) const = default;

    // The row's participants and status as they read at `now`.
    [[nodiscard]] std::vector<std::string> participantsAt(TimePoint now) const;
    [[nodiscard]] std::optional<std::string> mappingStatusAt(TimePoint now) const;
    // The `meetings` row as the table shows it at `now`.
    [[nodiscard]] Json meetingRow(TimePoint now) const;
    // The pipeline's progress as get_recording_status reports it at `now`: recording until finalized,
    // then processing, completed and sent, each after `step` seconds.
    [[nodiscard]] Json statusRow(TimePoint now, double step) const;

    [[nodiscard]] Json toJson() const;
    static Recording fromJson(const Json& json); // throws Json::exception on a malformed state file
};

} // namespace kavelo
