#include "core/mock/MockBackend.h"

#include "core/transport/ChunkStore.h"

#include <algorithm>
#include <cstdio>
#include <random>

namespace kavelo {

std::string MockBackend::uuidText() {
    thread_local std::mt19937_64 engine{std::random_device{}()};
    std::uint64_t high = engine();
    std::uint64_t low = engine();
    high = (high & 0xFFFFFFFFFFFF0FFFULL) | 0x0000000000004000ULL; // version 4
    low = (low & 0x3FFFFFFFFFFFFFFFULL) | 0x8000000000000000ULL;   // RFC 4122 variant
    char text[37];
    std::snprintf(text, sizeof text, "%08llx-%04llx-%04llx-%04llx-%012llx",
                  static_cast<unsigned long long>(high >> 32),
                  static_cast<unsigned long long>((high >> 16) & 0xFFFF),
                  static_cast<unsigned long long>(high & 0xFFFF), static_cast<unsigned long long>(low >> 48),
                  static_cast<unsigned long long>(low & 0xFFFFFFFFFFFFULL));
    return text;
}

MockBackend::MockBackend(std::shared_ptr<Clock> clock) : clock_(std::move(clock)) {}

MockBackend::~MockBackend() {
    std::vector<Task> tasks;
    {
        std::lock_guard lock(mutex_);
        tasks.swap(mappingTasks_);
    }
    for (const Task& task : tasks) {
        task.cancelAndJoin();
    }
}

MockBackend::CreatedRecording MockBackend::createRecording() {
    std::string suffix = uuidText().substr(0, 8);
    std::string meetingId = uuidText();
    std::lock_guard lock(mutex_);
    ++recordingCounter_;
    std::string recordingId = "rec_mock_" + std::to_string(recordingCounter_) + "_" + suffix;
    meetings_[recordingId] = Meeting{meetingId, {}, std::nullopt};
    uploadedChunks_[recordingId] = {};
    return {recordingId, meetingId};
}

int MockBackend::recordingCounter() const {
    std::lock_guard lock(mutex_);
    return recordingCounter_;
}

void MockBackend::recordUpload(const std::string& folder, int sequence) {
    std::lock_guard lock(mutex_);
    std::string key = folder;
    for (const auto& [recordingId, sequences] : uploadedChunks_) {
        if (recordingId == folder || ChunkStore::recordingIdOfFolder(folder) == recordingId) {
            key = recordingId;
            break;
        }
    }
    uploadedChunks_[key].insert(sequence);
}

std::set<int> MockBackend::uploadedChunks(const std::string& recordingId) const {
    std::lock_guard lock(mutex_);
    auto it = uploadedChunks_.find(recordingId);
    return it == uploadedChunks_.end() ? std::set<int>{} : it->second;
}

void MockBackend::recordFinalize(const FinalizePayload& payload) {
    TimePoint now = clock_->now();
    std::lock_guard lock(mutex_);
    finalized_.push_back(payload);
    finalizedAt_[payload.recordingId] = now;
}

std::vector<FinalizePayload> MockBackend::finalized() const {
    std::lock_guard lock(mutex_);
    return finalized_;
}

std::optional<TimePoint> MockBackend::finalizedAt(const std::string& recordingId) const {
    std::lock_guard lock(mutex_);
    auto it = finalizedAt_.find(recordingId);
    if (it == finalizedAt_.end()) {
        return std::nullopt;
    }
    return it->second;
}

void MockBackend::recordDiagnosticSync(const std::string& recordingId, const DiagnosticsPayload& payload) {
    std::lock_guard lock(mutex_);
    diagnosticSyncs_.push_back({recordingId, payload});
}

std::vector<MockBackend::DiagnosticSync> MockBackend::diagnosticSyncs() const {
    std::lock_guard lock(mutex_);
    return diagnosticSyncs_;
}

std::optional<MockBackend::Meeting> MockBackend::meeting(const std::string& recordingId) const {
    std::lock_guard lock(mutex_);
    auto it = meetings_.find(recordingId);
    if (it == meetings_.end()) {
        return std::nullopt;
    }
    return it->second;
}

std::optional<std::string> MockBackend::meetingId(const std::string& recordingId) const {
    auto found = meeting(recordingId);
    if (!found) {
        return std::nullopt;
    }
    return found->meetingId;
}

std::optional<std::string> MockBackend::recordingIdForMeeting(const std::string& meetingId) const {
    std::lock_guard lock(mutex_);
    for (const auto& [recordingId, entry] : meetings_) {
        if (entry.meetingId == meetingId) {
            return recordingId;
        }
    }
    return std::nullopt;
}

MeetingMappingRow MockBackend::mappingRow(const std::string& meetingId) const {
    std::lock_guard lock(mutex_);
    for (const auto& [recordingId, entry] : meetings_) {
        if (entry.meetingId == meetingId) {
            return {entry.participants, entry.status};
        }
    }
    return {};
}

void MockBackend::scheduleMapping(const std::string& meetingId) {
    std::weak_ptr<MockBackend> weak = weak_from_this();
    double delay = mappingDelay();
    Task task = Task::run([weak, meetingId, delay, clock = clock_] {
        clock->sleep(delay);
        Task::checkCancellation();
        if (auto self = weak.lock()) {
            self->completeMapping(meetingId);
        }
    });
    std::lock_guard lock(mutex_);
    std::erase_if(mappingTasks_, [](const Task& t) { return t.isFinished(); });
    mappingTasks_.push_back(std::move(task));
}

void MockBackend::settle() {
    std::vector<Task> tasks;
    {
        std::lock_guard lock(mutex_);
        tasks = mappingTasks_;
    }
    for (const Task& task : tasks) {
        task.join();
    }
}

void MockBackend::completeMapping(const std::string& meetingId) {
    std::lock_guard lock(mutex_);
    for (auto& [recordingId, entry] : meetings_) {
        if (entry.meetingId == meetingId) {
            entry.participants = mappingNames_;
            entry.status = "done";
        }
    }
}

std::vector<std::string> MockBackend::mappingNames() const {
    std::lock_guard lock(mutex_);
    return mappingNames_;
}

void MockBackend::setMappingNames(std::vector<std::string> names) {
    std::lock_guard lock(mutex_);
    mappingNames_ = std::move(names);
}

double MockBackend::mappingDelay() const {
    std::lock_guard lock(mutex_);
    return mappingDelay_;
}

void MockBackend::setMappingDelay(double seconds) {
    std::lock_guard lock(mutex_);
    mappingDelay_ = seconds;
}

} // namespace kavelo
