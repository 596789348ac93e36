#pragma once

#include "core/accounts/AuthUser.h"
#include "core/backend/RecordingAPI.h"
#include "core/recording/ShareComposer.h"
#include "core/recording/SpeakerListModel.h"
#include "core/support/Clock.h"
#include "core/support/CoreLogger.h"

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kavelo {

// The last mile of a recording: waits until the server holds every chunk, turns what the user reviewed into
// the finalize request, and sends it. The coordinator hands in closures for the upload side, so this service
// knows neither the upload worker nor the chunk store.
//
// Thread-safety: waitForServerChunks and finalize run on the caller's task; abort() and reset() may come
// from any thread. mutex_ guards only the abort flag.
class FinalizeService {
  public:
    struct Config {
        double pollInterval = 0.5;
        double noProgressTimeout = 60; // longest time without local upload progress
        double absoluteTimeout = 600;  // longest time for the whole wait
    };

    // The upload worker's state for this recording, as reported each round.
    struct LocalUploadSnapshot {
        int uploadedCount = 0;
        int pendingCount = 0;
        std::vector<int> missing;
        bool operator==(const LocalUploadSnapshot&) const = default;
    };

    struct WaitResult {
        enum class Kind { allChunksOnServer, missing, aborted };
        Kind kind = Kind::aborted;
        std::vector<int> missing; // the last known gaps, for missing

        static WaitResult allChunksOnServer() { return {Kind::allChunksOnServer, {}}; }
        static WaitResult missingChunks(std::vector<int> gaps) { return {Kind::missing, std::move(gaps)}; }
        static WaitResult aborted() { return {Kind::aborted, {}}; }
        bool operator==(const WaitResult&) const = default;
    };

    // What the finalize pipeline can fail with. what() is the printed form: missingChunks([4, 5]),
    // backend("http(status: 500, ...)"), noLastSequence, offline.
    class FinalizeError : public std::runtime_error {
      public:
        enum class Kind { missingChunks, backend, noLastSequence, offline };

        static FinalizeError missingChunks(std::vector<int> sequences);
        // The server refused the request; text is the printed form of the APIError.
        static FinalizeError backend(std::string text);
        static FinalizeError noLastSequence();
        static FinalizeError offline();

        [[nodiscard]] Kind kind() const { return kind_; }
        [[nodiscard]] const std::vector<int>& sequences() const { return sequences_; }
        [[nodiscard]] const std::string& text() const { return text_; }
        bool operator==(const FinalizeError& other) const {
            return kind_ == other.kind_ && sequences_ == other.sequences_ && text_ == other.text_;
        }

      private:
        FinalizeError(Kind kind, std::vector<int> sequences, std::string text);
        Kind kind_;
        std::vector<int> sequences_;
        std::string text_;
    };

    // Everything that goes into the finalize request.
    struct FinalizeInput {
        std::string recordingId;
        AuthUser user;
        std::string userName;
        std::optional<std::string> meetingName;
        ShareComposer share;
        SpeakerListModel speakers;
        std::string outputLanguage;
        std::string uploadMode;
        std::optional<std::string> selectedTemplateId;
        DiagnosticsPayload diagnostics;
    };

    using LocalProgress = std::function<LocalUploadSnapshot()>;
    using SequencesCallback = std::function<void(const std::vector<int>&)>;

    FinalizeService(std::shared_ptr<RecordingAPI> api, std::shared_ptr<Clock> clock, Config config,
                    std::shared_ptr<CoreLogger> logger);

    [[nodiscard]] const Config& config() const { return config_; }

    // The running wait ends as aborted at its next round; stays in force until reset().
    void abort();
    void reset();

    // Waits until the server's list and the local state agree that nothing of 1...lastSequence is missing.
    // Never throws. A lastSequence above RecordingLimits::maxChunks gives missing with no gaps at once. The
    // closures are called on the caller's task, in the order onServerAck, localProgress, kick: onServerAck
    // with the server's acknowledged sequences in range, kick with the gaps to upload again.
    WaitResult waitForServerChunks(const std::string& recordingId, int lastSequence,
                                   const LocalProgress& localProgress, const SequencesCallback& onServerAck,
                                   const SequencesCallback& kick);

    // Turns what the user reviewed into the request body. Pure.
    [[nodiscard]] static FinalizePayload buildPayload(const FinalizeInput& input);

    // Sends the request exactly once; retrying is the caller's decision. Throws FinalizeError offline for no
    // answer, FinalizeError backend for any other APIError, and anything else unchanged.
    void finalize(const FinalizePayload& payload);

  private:
    [[nodiscard]] bool isAborted() const;

    const std::shared_ptr<RecordingAPI> api_;
    const std::shared_ptr<Clock> clock_;
    const Config config_;
    const std::shared_ptr<CoreLogger> logger_;

    mutable std::mutex mutex_;
    bool abortFlag_ = false; // guarded by mutex_
};

} // namespace kavelo
