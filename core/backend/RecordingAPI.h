#pragma once

#include "core/backend/ChunkReconciliation.h"
#include "core/backend/DiagnosticsPayload.h"
#include "core/backend/EarlyMappingDispatch.h"
#include "core/backend/FinalizePayload.h"
#include "core/backend/InitRecordingRequest.h"
#include "core/backend/InitRecordingResponse.h"
#include "core/backend/MeetingMappingRow.h"

#include <optional>
#include <string>

namespace kavelo {

// The one way the recording flow talks to the backend about a recording. Calls block the calling task;
// implementations may be called from any thread at once.
class RecordingAPI {
  public:
    virtual ~RecordingAPI() = default;

    // Opens a recording on the server. Throws InitRecordingError for a refusal or no answer; other failures
    // (APIError decoding, unauthenticated, cancelled) pass unchanged.
    virtual InitRecordingResponse initRecording(const InitRecordingRequest& request) = 0;
    // Which chunks the server holds. Never throws: a failure is an unchecked answer.
    virtual ChunkReconciliation listRecordingChunks(const std::string& recordingId) = 0;
    // Asks for the report. Throws APIError.
    virtual void finalizeRecording(const FinalizePayload& payload) = 0;
    // Sends diagnostics without asking for a report. Throws APIError; callers drop it.
    virtual void diagnosticSync(const std::string& recordingId, const std::string& userId,
                                const DiagnosticsPayload& diagnostics) = 0;
    // The meeting row of a recording, absent while the server has not made it. Throws APIError.
    virtual std::optional<std::string> resolveMeetingId(const std::string& recordingId) = 0;
    // Throws APIError.
    virtual EarlyMappingDispatch triggerEarlySpeakerMapping(const std::string& meetingId) = 0;
    // Throws APIError; a missing row is an empty answer, not an error.
    virtual MeetingMappingRow fetchMeetingMapping(const std::string& meetingId) = 0;
};

} // namespace kavelo
