#include "core/mock/MockRecordingAPI.h"

namespace kavelo {

MockRecordingAPI::MockRecordingAPI(std::shared_ptr<MockBackend> backend) : backend_(std::move(backend)) {}

InitRecordingResponse MockRecordingAPI::initRecording(const InitRecordingRequest&) {
    if (auto failure = failInit()) {
        throw *failure;
    }
    auto created = backend_->createRecording();
    std::string secret = "secret_" + MockBackend::uuidText().substr(0, 12);
    return InitRecordingResponse{created.recordingId, secret, std::nullopt};
}

ChunkReconciliation MockRecordingAPI::listRecordingChunks(const std::string& recordingId) {
    std::set<int> stored = backend_->uploadedChunks(recordingId);
    ChunkReconciliation result;
    result.checked = true;
    result.uploadedSequences.assign(stored.begin(), stored.end());
    if (!stored.empty()) {
        for (int sequence = 1; sequence < *stored.rbegin(); ++sequence) {
            if (!stored.contains(sequence)) {
                result.missing.push_back(sequence);
            }
        }
    }
    return result;
}

void MockRecordingAPI::finalizeRecording(const FinalizePayload& payload) {
    backend_->recordFinalize(payload);
}

void MockRecordingAPI::diagnosticSync(const std::string& recordingId, const std::string&,
                                      const DiagnosticsPayload& diagnostics) {
    backend_->recordDiagnosticSync(recordingId, diagnostics);
}

std::optional<std::string> MockRecordingAPI::resolveMeetingId(const std::string& recordingId) {
    return backend_->meetingId(recordingId);
}

EarlyMappingDispatch MockRecordingAPI::triggerEarlySpeakerMapping(const std::string& meetingId) {
    backend_->scheduleMapping(meetingId);
    return EarlyMappingDispatch{"dispatched", std::nullopt};
}

MeetingMappingRow MockRecordingAPI::fetchMeetingMapping(const std::string& meetingId) {
    return backend_->mappingRow(meetingId);
}

void MockRecordingAPI::setFailInit(std::optional<InitRecordingError> error) {
    std::lock_guard lock(mutex_);
    failInit_ = std::move(error);
}

std::optional<InitRecordingError> MockRecordingAPI::failInit() const {
    std::lock_guard lock(mutex_);
    return failInit_;
}

void MockRecordingAPI::setReconciliationLag(double seconds) {
    std::lock_guard lock(mutex_);
    reconciliationLag_ = seconds;
}

double MockRecordingAPI::reconciliationLag() const {
    std::lock_guard lock(mutex_);
    return reconciliationLag_;
}

} // namespace kavelo
