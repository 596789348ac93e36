#pragma once

#include "core/backend/RecordingAPI.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <stdexcept>

namespace kavelo::testing {

// A RecordingAPI whose answers the test scripts with functions, and which counts the calls it gets. The
// functions are set before the code under test runs; the counters may be read from any thread.
class FakeRecordingAPI final : public RecordingAPI {
  public:
    std::function<std::optional<std::string>(const std::string&)> onResolveMeetingId =
        [](const std::string&) { return std::optional<std::string>("meeting-1"); };
    std::function<EarlyMappingDispatch(const std::string&)> onTrigger = [](const std::string&) {
        return EarlyMappingDispatch{"dispatched", std::nullopt};
    };
    std::function<MeetingMappingRow(const std::string&)> onFetchMapping = [](const std::string&) {
        return MeetingMappingRow{};
    };
    std::function<ChunkReconciliation(const std::string&)> onListChunks = [](const std::string&) {
        return ChunkReconciliation::unchecked();
    };
    std::function<void(const FinalizePayload&)> onFinalize = [](const FinalizePayload&) {};

    std::atomic<int> resolveCalls{0};
    std::atomic<int> triggerCalls{0};
    std::atomic<int> fetchCalls{0};
    std::atomic<int> listCalls{0};
    std::atomic<int> finalizeCalls{0};

    InitRecordingResponse initRecording(const InitRecordingRequest&) override {
        throw std::logic_error("not used by these tests");
    }
    ChunkReconciliation listRecordingChunks(const std::string& recordingId) override {
        ++listCalls;
        return onListChunks(recordingId);
    }
    void finalizeRecording(const FinalizePayload& payload) override {
        ++finalizeCalls;
        onFinalize(payload);
    }
    void diagnosticSync(const std::string&, const std::string&, const DiagnosticsPayload&) override {}
    std::optional<std::string> resolveMeetingId(const std::string& recordingId) override {
        ++resolveCalls;
        return onResolveMeetingId(recordingId);
    }
    EarlyMappingDispatch triggerEarlySpeakerMapping(const std::string& meetingId) override {
        ++triggerCalls;
        return onTrigger(meetingId);
    }
    MeetingMappingRow fetchMeetingMapping(const std::string& meetingId) override {
        ++fetchCalls;
        return onFetchMapping(meetingId);
    }
};

} // namespace kavelo::testing
