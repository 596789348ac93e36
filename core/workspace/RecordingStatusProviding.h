#pragma once

#include "core/workspace/RecordingStatus.h"

#include <optional>
#include <string>

namespace kavelo {

// Where the dashboard learns how far the backend has come with a submitted recording. Calls block the
// calling task and throw on failure (APIError, TransportError, CancellationError); the caller treats any
// throw as "no news this time". Implementations may be called from any thread.
class RecordingStatusProviding {
  public:
    virtual ~RecordingStatusProviding() = default;

    // The meeting that the backend made for a recording; absent while it has none.
    virtual std::optional<std::string> resolveMeetingId(const std::string& recordingId) = 0;
    // Absent when the backend gives no usable answer.
    virtual std::optional<RecordingStatus> fetchStatus(const std::string& meetingId) = 0;
};

} // namespace kavelo
