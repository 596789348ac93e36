#pragma once

#include "core/support/CoreJSON.h"
#include "core/support/Time.h"
#include "core/workspace/DashboardActivityPhase.h"

#include <cstddef>
#include <optional>
#include <string>

namespace kavelo {

// One submitted recording on the dashboard. Stored as a JSON object with exactly the keys id, recordingId,
// meetingId, meetingName, submittedAt, phase, deliveredAt, recipientCount, slow and updatedAt; an absent
// optional leaves its key out. Dates are ISO 8601 text in UTC.
struct DashboardActivityItem {
    static constexpr std::size_t maxMeetingNameCharacters = 160;
    // Ids longer than this come from a damaged file, not from the backend.
    static constexpr std::size_t maxIdBytes = 256;
    static constexpr int maxRecipientCount = 10000;

    std::string id; // the meeting id if known when queued, else the recording id
    std::string recordingId;
    std::optional<std::string> meetingId;
    std::string meetingName;
    TimePoint submittedAt;
    DashboardActivityPhase phase = DashboardActivityPhase::submitted;
    std::optional<TimePoint> deliveredAt;
    std::optional<int> recipientCount;
    bool slow = false;
    TimePoint updatedAt;

    bool operator==(const DashboardActivityItem&) const = default;

    [[nodiscard]] Json toJson() const;
    // Throws DecodingError for a missing or mistyped key, an unknown phase or an oversized id. A name longer
    // than the limit is cut and a recipient count is clamped into range, since neither can hurt.
    static DashboardActivityItem fromJson(const Json& json);
};

} // namespace kavelo
