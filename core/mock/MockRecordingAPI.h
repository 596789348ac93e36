#pragma once

#include "core/backend/InitRecordingError.h"
#include "core/backend/RecordingAPI.h"
#include "core/mock/MockBackend.h"

#include <memory>
#include <mutex>
#include <optional>

namespace kavelo {

// The recording road of mock mode, on top of MockBackend: same contract and orderings as the live API, no
// server. Chunks count as on the server once the mock upload client has stored them in the backend.
//
// Thread-safety: any thread; the knobs are guarded by mutex_, everything else lives in the backend.
class MockRecordingAPI final : public RecordingAPI {
  public:
    explicit MockRecordingAPI(std::shared_ptr<MockBackend> backend);

    InitRecordingResponse initRecording(const InitRecordingRequest& request) override;
    ChunkReconciliation listRecordingChunks(const std::string& recordingId) override;
    void finalizeRecording(const FinalizePayload& payload) override;
    void diagnosticSync(const std::string& recordingId, const std::string& userId,
                        const DiagnosticsPayload& diagnostics) override;
    std::optional<std::string> resolveMeetingId(const std::string& recordingId) override;
    EarlyMappingDispatch triggerEarlySpeakerMapping(const std::string& meetingId) override;
    MeetingMappingRow fetchMeetingMapping(const std::string& meetingId) override;

    // When set, initRecording throws it.
    void setFailInit(std::optional<InitRecordingError> error);
    [[nodiscard]] std::optional<InitRecordingError> failInit() const;
    // Kept for configuration; no operation reads it.
    void setReconciliationLag(double seconds);
    [[nodiscard]] double reconciliationLag() const;

    [[nodiscard]] const std::shared_ptr<MockBackend>& backend() const { return backend_; }

  private:
    const std::shared_ptr<MockBackend> backend_;
    mutable std::mutex mutex_;
    std::optional<InitRecordingError> failInit_; // guarded by mutex_
    double reconciliationLag_ = 0;               // guarded by mutex_
};

} // namespace kavelo
