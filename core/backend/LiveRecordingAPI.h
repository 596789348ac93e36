#pragma once

#include "core/backend/RecordingAPI.h"
#include "core/backend/SupabaseFunctionClient.h"
#include "core/backend/SupabaseRestClient.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kavelo {

// The recording road against the hosted backend: edge functions for opening, listing, finalizing, diagnostics
// and mapping; the meetings table for the meeting row. Only initRecording translates failures (into
// InitRecordingError); the others let APIError pass for the services above to judge, and the chunk list
// folds every failure into an unchecked answer.
//
// No mutable state: any task may call it at once.
class LiveRecordingAPI final : public RecordingAPI {
  public:
    LiveRecordingAPI(std::shared_ptr<SupabaseFunctionClient> functions,
                     std::shared_ptr<SupabaseRestClient> rest);

    InitRecordingResponse initRecording(const InitRecordingRequest& request) override;
    ChunkReconciliation listRecordingChunks(const std::string& recordingId) override;
    void finalizeRecording(const FinalizePayload& payload) override;
    void diagnosticSync(const std::string& recordingId, const std::string& userId,
                        const DiagnosticsPayload& diagnostics) override;
    std::optional<std::string> resolveMeetingId(const std::string& recordingId) override;
    EarlyMappingDispatch triggerEarlySpeakerMapping(const std::string& meetingId) override;
    MeetingMappingRow fetchMeetingMapping(const std::string& meetingId) override;

    // The header of the finalize request that names it for repeats, and its value for a recording.
    static constexpr const char* idempotencyHeader = "Idempotency-Key";
    static std::string finalizeIdempotencyKey(const std::string& recordingId);

    // The readers of loosely typed answers.
    //
    // A list of sequence numbers as a server may write it: integers, numbers with a fraction (cut to their
    // integer part) and decimal strings with an optional sign and blanks round them are taken; everything
    // else is skipped. The result is sorted without duplicates. Absent (nullptr) or no array gives an
    // empty list. Throws DecodingError for a number outside 1...RecordingLimits::maxChunks or a list longer
    // than that: such an answer is not about a recording of ours.
    static std::vector<int> sequenceList(const Json* value);
    // The answer of list-recording-chunks, checked; throws DecodingError for anything but a JSON object of
    // sensible size with sensible lists.
    static ChunkReconciliation readChunkList(const Bytes& body);
    // The same, with every DecodingError folded into an unchecked answer. Never throws.
    static ChunkReconciliation parseChunkList(const Bytes& body);
    // Two full lists of the largest sequence numbers, written out with room to spare.
    static constexpr std::size_t maxChunkListBytes = 1024 * 1024;
    // The first row's id of a meetings select, absent when there is none.
    static std::optional<std::string> parseMeetingId(const Bytes& body);
    // The first row's participants (trimmed, empty ones dropped) and mapping status.
    static MeetingMappingRow parseMeetingMapping(const Bytes& body);

  private:
    const std::shared_ptr<SupabaseFunctionClient> functions_;
    const std::shared_ptr<SupabaseRestClient> rest_;
};

} // namespace kavelo
