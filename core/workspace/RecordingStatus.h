#pragma once

#include "core/support/Time.h"
#include "core/workspace/RecordingStatusPhase.h"

#include <optional>

namespace kavelo {

// One answer of the backend about a submitted recording.
struct RecordingStatus {
    RecordingStatusPhase phase = RecordingStatusPhase::recording;
    std::optional<TimePoint> deliveredAt;
    std::optional<int> recipientCount;
    bool slow = false; // the backend says it is taking longer than usual

    bool operator==(const RecordingStatus&) const = default;
};

} // namespace kavelo
