#include "core/mock/MockRecordingStatusProvider.h"

#include <algorithm>

namespace kavelo {

MockRecordingStatusProvider::MockRecordingStatusProvider(std::shared_ptr<MockBackend> backend,
                                                         double transcribeWindow, double generateWindow)
    : backend_(std::move(backend)), transcribeWindow_(transcribeWindow), generateWindow_(generateWindow) {}

std::optional<std::string> MockRecordingStatusProvider::resolveMeetingId(const std::string& recordingId) {
    return backend_->meetingId(recordingId);
}

std::optional<RecordingStatus> MockRecordingStatusProvider::fetchStatus(const std::string& meetingId) {
    const auto recordingId = backend_->recordingIdForMeeting(meetingId);
    if (!recordingId) {
        return std::nullopt;
    }
    RecordingStatus status;
    const auto finalizedAt = backend_->finalizedAt(*recordingId);
    if (!finalizedAt) {
        status.phase = RecordingStatusPhase::recording;
        return status;
    }
    const double elapsed = secondsBetween(*finalizedAt, backend_->clock()->now());
    if (elapsed < transcribeWindow_) {
        status.phase = RecordingStatusPhase::transcribing;
    } else if (elapsed < transcribeWindow_ + generateWindow_) {
        status.phase = RecordingStatusPhase::generating;
    } else {
        status.phase = RecordingStatusPhase::delivered;
        status.deliveredAt = addSeconds(*finalizedAt, transcribeWindow_ + generateWindow_);
        const auto requests = backend_->finalized();
        auto match = std::find_if(requests.begin(), requests.end(),
                                  [&](const FinalizePayload& p) { return p.recordingId == *recordingId; });
        if (match != requests.end()) {
            status.recipientCount = static_cast<int>(match->recipients.size());
        }
    }
    return status;
}

} // namespace kavelo
