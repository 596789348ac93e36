#pragma once

#include "core/backend/APIError.h"
#include "core/backend/RecordingAPI.h"

#include <functional>
#include <mutex>
#include <vector>

namespace kavelo::testing {

// A backend that answers from what the test set, and remembers what it was sent. Any thread.
class FakeRecordingAPI final : public RecordingAPI {
  public:
    struct Sync {
        std::string recordingId;
        std::string userId;
        DiagnosticsPayload diagnostics;
    };

    InitRecordingResponse initRecording(const InitRecordingRequest& request) override {
        std::function<InitRecordingResponse(const InitRecordingRequest&)> answer;
        {
            std::lock_guard lock(mutex_);
            inits_.push_back(request);
            answer = onInit;
        }
        if (answer) {
            return answer(request);
        }
        return InitRecordingResponse{"rec-1", "secret-1", std::nullopt};
    }
    ChunkReconciliation listRecordingChunks(const std::string&) override {
        std::lock_guard lock(mutex_);
        ++listCalls_;
        return chunkAnswer;
    }
    void finalizeRecording(const FinalizePayload& payload) override {
        std::lock_guard lock(mutex_);
        finalizes_.push_back(payload);
        if (finalizeError) {
            throw *finalizeError;
        }
    }
    void diagnosticSync(const std::string& recordingId, const std::string& userId,
                        const DiagnosticsPayload& diagnostics) override {
        std::lock_guard lock(mutex_);
        syncs_.push_back({recordingId, userId, diagnostics});
        if (failSync) {
            throw std::runtime_error("sync refused");
        }
    }
    std::optional<std::string> resolveMeetingId(const std::string&) override {
        std::lock_guard lock(mutex_);
        ++resolveCalls_;
        return meetingId;
    }
    EarlyMappingDispatch triggerEarlySpeakerMapping(const std::string&) override {
        std::lock_guard lock(mutex_);
        ++triggerCalls_;
        return EarlyMappingDispatch{"dispatched", std::nullopt};
    }
    MeetingMappingRow fetchMeetingMapping(const std::string&) override {
        std::lock_guard lock(mutex_);
        return mappingRow;
    }

    // Test side: set before the calls that read them.
    std::function<InitRecordingResponse(const InitRecordingRequest&)> onInit;
    ChunkReconciliation chunkAnswer;
    std::optional<std::string> meetingId;
    MeetingMappingRow mappingRow;
    bool failSync = false;
    std::optional<APIError> finalizeError;

    std::vector<InitRecordingRequest> inits() const {
        std::lock_guard lock(mutex_);
        return inits_;
    }
    std::vector<Sync> syncs() const {
        std::lock_guard lock(mutex_);
        return syncs_;
    }
    std::vector<FinalizePayload> finalizes() const {
        std::lock_guard lock(mutex_);
        return finalizes_;
    }
    int listCalls() const {
        std::lock_guard lock(mutex_);
        return listCalls_;
    }
    int resolveCalls() const {
        std::lock_guard lock(mutex_);
        return resolveCalls_;
    }
    int triggerCalls() const {
        std::lock_guard lock(mutex_);
        return triggerCalls_;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<InitRecordingRequest> inits_;
    std::vector<Sync> syncs_;
    std::vector<FinalizePayload> finalizes_;
    int listCalls_ = 0;
    int resolveCalls_ = 0;
    int triggerCalls_ = 0;
};

} // namespace kavelo::testing
