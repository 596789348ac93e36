// The recording road's calls against a backend that answers anything: every reader of those answers
// (opening a recording, the chunk list, the report request, the meeting row, the mapping) must come back
// with a value or the error its interface names, whatever the body holds.
#include "core/backend/APIError.h"
#include "core/backend/InitRecordingError.h"
#include "core/backend/LiveRecordingAPI.h"
#include "core/support/ManualClock.h"
#include "fuzz/AnsweringHTTPClient.h"
#include "fuzz/FuzzInput.h"
#include "fuzz/SignedInTokens.h"

using namespace kavelo;

namespace {

void exercise(LiveRecordingAPI& api, std::uint8_t call) {
    switch (call % 6) {
    case 0: {
        InitRecordingRequest request;
        request.userId = "user-1";
        request.source = "linux";
        (void)api.initRecording(request);
        break;
    }
    case 1:
        (void)api.listRecordingChunks("rec-1");
        break;
    case 2: {
        FinalizePayload payload;
        payload.recordingId = "rec-1";
        api.finalizeRecording(payload);
        break;
    }
    case 3:
        (void)api.resolveMeetingId("rec-1");
        break;
    case 4:
        (void)api.triggerEarlySpeakerMapping("meeting-1");
        break;
    case 5:
        (void)api.fetchMeetingMapping("meeting-1");
        break;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::FuzzInput input(data, size);
    const auto call = input.byte();
    const auto status = input.byte();
    AppConfig config;
    config.supabaseUrl = "http://127.0.0.1:9";
    config.anonKey = "anon";
    auto http = std::make_shared<fuzz::AnsweringHTTPClient>(status, input.rest());
    auto tokens = std::make_shared<fuzz::SignedInTokens>();
    auto logger = std::make_shared<CoreLogger>(std::make_shared<ManualClock>(), 16);
    LiveRecordingAPI api(std::make_shared<SupabaseFunctionClient>(config, http, tokens, logger),
                         std::make_shared<SupabaseRestClient>(config, http, tokens));
    try {
        exercise(api, call);
    } catch (const APIError&) {
    } catch (const InitRecordingError&) {
    }
    // Anything else escaping is a finding: the callers above catch only these.
    return 0;
}
