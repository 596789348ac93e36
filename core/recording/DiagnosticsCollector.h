#pragma once

#include "core/backend/DiagnosticsPayload.h"
#include "core/support/Clock.h"
#include "core/support/LogLevel.h"

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kavelo {

// The flight recorder of the current recording: its newest log lines and two chunk counters, folded into
// a DiagnosticsPayload for the server on request. Every log line of the recording spine goes through
// note(); the sink passes it on to the platform log.
//
// Thread-safety: any thread. The lock is never held across the sink, so a sink may call back in.
class DiagnosticsCollector {
  public:
    using Sink = std::function<void(LogLevel, const std::string&)>;
    static constexpr std::size_t maxLogs = 400;

    DiagnosticsCollector(std::shared_ptr<Clock> clock, std::string platform, std::string appVersion);

    // Begins the lines of a new recording: counters to 0, the old lines gone, one "session start" line
    // that goes to the array only.
    void startSession(const std::optional<std::string>& recordingId);
    void setRecordingId(const std::optional<std::string>& recordingId);
    void note(LogLevel level, const std::string& message);
    void chunkReceived();
    void chunkUploaded();

    struct PayloadInput {
        std::optional<int> lastSequence;
        std::vector<int> failedChunks;
        std::optional<int> uploadedCount; // absent: the collector's own count
        std::optional<bool> extraIsPaused;
        std::optional<double> totalPausedMs;
        std::optional<std::string> fatalErrorCode;
        std::optional<std::string> fatalErrorMessage;
        std::optional<std::string> recoveryMarker;
    };
    [[nodiscard]] DiagnosticsPayload payload(const PayloadInput& input) const;

    void setSink(Sink sink);
    [[nodiscard]] Sink sink() const;

  private:
    void append(LogLevel level, const std::string& message); // with mutex_ held

    const std::shared_ptr<Clock> clock_;
    const std::string platform_;
    const std::string appVersion_;

    mutable std::mutex mutex_;
    TimePoint sessionStart_;                 // guarded by mutex_
    std::optional<std::string> recordingId_; // guarded by mutex_
    std::deque<DiagnosticsLogEntry> logs_;   // guarded by mutex_; oldest first
    int chunksReceived_ = 0;                 // guarded by mutex_
    int chunksUploaded_ = 0;                 // guarded by mutex_
    Sink sink_;                              // guarded by mutex_
};

} // namespace kavelo
