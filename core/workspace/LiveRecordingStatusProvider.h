#pragma once

#include "core/backend/SupabaseRestClient.h"
#include "core/workspace/RecordingStatusProviding.h"

#include <memory>

namespace kavelo {

// Asks the hosted project: the meetings table for a recording's meeting, and the get_recording_status
// function for its progress. Immutable; shared freely.
class LiveRecordingStatusProvider final : public RecordingStatusProviding {
  public:
    explicit LiveRecordingStatusProvider(std::shared_ptr<SupabaseRestClient> rest);

    std::optional<std::string> resolveMeetingId(const std::string& recordingId) override;
    std::optional<RecordingStatus> fetchStatus(const std::string& meetingId) override;

  private:
    const std::shared_ptr<SupabaseRestClient> rest_;
};

} // namespace kavelo
