#include "core/recording/DiagnosticsCollector.h"

#include <algorithm>

namespace kavelo {

namespace {

double millisecondsSince1970(TimePoint t) {
    return std::chrono::duration<double, std::milli>(t.time_since_epoch()).count();
}

} // namespace

DiagnosticsCollector::DiagnosticsCollector(std::shared_ptr<Clock> clock, std::string platform,
                                           std::string appVersion)
    : clock_(std::move(clock)), platform_(std::move(platform)), appVersion_(std::move(appVersion)),
      sessionStart_(clock_->now()) {}

void DiagnosticsCollector::append(LogLevel level, const std::string& message) {
    logs_.push_back(
        DiagnosticsLogEntry{millisecondsSince1970(clock_->now()), std::string(toRaw(level)), message});
    while (logs_.size() > maxLogs) {
        logs_.pop_front();
    }
}

void DiagnosticsCollector::startSession(const std::optional<std::string>& recordingId) {
    std::lock_guard lock(mutex_);
    recordingId_ = recordingId;
    sessionStart_ = clock_->now();
    logs_.clear();
    chunksReceived_ = 0;
    chunksUploaded_ = 0;
    append(LogLevel::info, "session start platform=" + platform_ + " v=" + appVersion_);
}

void DiagnosticsCollector::setRecordingId(const std::optional<std::string>& recordingId) {
    std::lock_guard lock(mutex_);
    recordingId_ = recordingId;
}

void DiagnosticsCollector::note(LogLevel level, const std::string& message) {
    Sink sink;
    {
        std::lock_guard lock(mutex_);
        append(level, message);
        sink = sink_;
    }
    if (sink) {
        sink(level, message);
    }
}

void DiagnosticsCollector::chunkReceived() {
    std::lock_guard lock(mutex_);
    ++chunksReceived_;
}

void DiagnosticsCollector::chunkUploaded() {
    std::lock_guard lock(mutex_);
    ++chunksUploaded_;
}

DiagnosticsPayload DiagnosticsCollector::payload(const PayloadInput& input) const {
    std::lock_guard lock(mutex_);
    DiagnosticsPayload p;
    p.lastSequence = input.lastSequence;
    p.receivedCount = chunksReceived_;
    p.uploadedCount = input.uploadedCount.value_or(chunksUploaded_);
    p.failedChunks = input.failedChunks;
    p.recordingId = recordingId_;
    p.sessionStart = millisecondsSince1970(sessionStart_);
    p.platform = platform_;
    p.logs.assign(logs_.begin(), logs_.end());
    p.summary.chunksReceived = chunksReceived_;
    p.summary.chunksUploaded = *p.uploadedCount;
    p.summary.chunksFailed = static_cast<int>(input.failedChunks.size());
    p.summary.errorCount = static_cast<int>(
        std::count_if(logs_.begin(), logs_.end(), [](const auto& e) { return e.level == "error"; }));
    p.summary.warnCount = static_cast<int>(
        std::count_if(logs_.begin(), logs_.end(), [](const auto& e) { return e.level == "warn"; }));
    p.summary.durationMs = std::chrono::duration<double, std::milli>(clock_->now() - sessionStart_).count();
    p.isPaused = input.extraIsPaused;
    p.totalPausedMs = input.totalPausedMs;
    p.fatalErrorCode = input.fatalErrorCode;
    p.fatalErrorMessage = input.fatalErrorMessage;
    p.recoveryMarker = input.recoveryMarker;
    return p;
}

void DiagnosticsCollector::setSink(Sink sink) {
    std::lock_guard lock(mutex_);
    sink_ = std::move(sink);
}

DiagnosticsCollector::Sink DiagnosticsCollector::sink() const {
    std::lock_guard lock(mutex_);
    return sink_;
}

} // namespace kavelo
