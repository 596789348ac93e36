#include "tools/devserver/RecordingStore.h"

#include "tools/devserver/SecureRandom.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <iostream>

namespace kavelo {

RecordingStore::RecordingStore(std::shared_ptr<Clock> clock, const std::filesystem::path& stateFile,
                               PipelineSettings settings)
    : clock_(std::move(clock)), writer_(stateFile), settings_(std::move(settings)) {
    auto saved = writer_.load();
    if (!saved) {
        return;
    }
    try {
        for (const auto& item : saved->at("recordings")) {
            auto recording = Recording::fromJson(item);
            recordings_[recording.id] = std::move(recording);
        }
    } catch (const Json::exception& e) {
        std::cerr << "kavelo-devserver: ignoring unreadable recording state: " << e.what() << "\n";
        recordings_.clear();
    }
}

void RecordingStore::persist(std::unique_lock<std::mutex>& lock) {
    auto version = ++version_;
    Json list = Json::array();
    for (const auto& [id, recording] : recordings_) {
        list.push_back(recording.toJson());
    }
    lock.unlock();
    writer_.save(version, Json{{"recordings", std::move(list)}});
}

Recording RecordingStore::create(Recording draft) {
    auto now = clock_->now();
    if (draft.id.empty()) {
        draft.id = SecureRandom::uuid();
    }
    if (draft.secret.empty()) {
        draft.secret = SecureRandom::hex(24);
    }
    if (draft.meetingId.empty()) {
        draft.meetingId = SecureRandom::uuid();
    }
    draft.createdAt = now;
    std::unique_lock lock(mutex_);
    draft.meetingVisibleAt = addSeconds(now, settings_.meetingRowDelay);
    recordings_[draft.id] = draft;
    persist(lock);
    return draft;
}

std::optional<Recording> RecordingStore::find(const std::string& id) const {
    std::lock_guard lock(mutex_);
    auto it = recordings_.find(id);
    if (it == recordings_.end()) {
        return std::nullopt;
    }
    return it->second;
}

std::vector<Recording> RecordingStore::all() const {
    std::lock_guard lock(mutex_);
    std::vector<Recording> list;
    for (const auto& [id, recording] : recordings_) {
        list.push_back(recording);
    }
    return list;
}

RecordingStore::SecretCheck RecordingStore::checkSecret(const std::string& id,
                                                        const std::string& secret) const {
    std::lock_guard lock(mutex_);
    auto it = recordings_.find(id);
    if (it == recordings_.end()) {
        return SecretCheck::unknownRecording;
    }
    const auto& expected = it->second.secret;
    if (secret.size() != expected.size() ||
        CRYPTO_memcmp(secret.data(), expected.data(), secret.size()) != 0) {
        return SecretCheck::wrongSecret;
    }
    return SecretCheck::ok;
}

std::vector<Json> RecordingStore::meetingRows() const {
    auto now = clock_->now();
    std::lock_guard lock(mutex_);
    std::vector<Json> rows;
    for (const auto& [id, recording] : recordings_) {
        if (now >= recording.meetingVisibleAt) {
            rows.push_back(recording.meetingRow(now));
        }
    }
    return rows;
}

Recording* RecordingStore::findByMeetingLocked(const std::string& meetingId) {
    for (auto& [id, recording] : recordings_) {
        if (recording.meetingId == meetingId) {
            return &recording;
        }
    }
    return nullptr;
}

RecordingStore::MappingAnswer
RecordingStore::startMapping(const std::string& meetingId, const std::string& userId,
                             const std::function<bool(const std::string& recordingId)>& hasAudio) {
    auto now = clock_->now();
    std::string recordingId;
    {
        std::lock_guard lock(mutex_);
        auto* recording = findByMeetingLocked(meetingId);
        if (!recording || now < recording->meetingVisibleAt || recording->userId != userId) {
            return {404, Json{{"error", "meeting not found"}, {"error_code", "meeting_not_found"}}};
        }
        recordingId = recording->id;
    }
    // Storage is asked outside the lock; the answer only decides between two refusals and a dispatch.
    bool audio = hasAudio(recordingId);
    std::unique_lock lock(mutex_);
    auto* recording = findByMeetingLocked(meetingId);
    if (!recording) {
        return {404, Json{{"error", "meeting not found"}, {"error_code", "meeting_not_found"}}};
    }
    if (!recording->participantsAt(now).empty()) {
        return {200, Json{{"status", "skipped"}, {"reason", "participants_present"}}};
    }
    auto status = recording->mappingStatusAt(now);
    if (status == "pending") {
        return {200, Json{{"status", "skipped"}, {"reason", "already_pending"}}};
    }
    if (status == "done") {
        return {200, Json{{"status", "skipped"}, {"reason", "already_done"}}};
    }
    if (!audio) {
        return {200, Json{{"status", "skipped"}, {"reason", "no_audio"}}};
    }
    recording->mappingStatus = "pending";
    recording->mappingDueAt = addSeconds(now, settings_.mappingDelay);
    recording->mappingResultStatus = settings_.mappingOutcome;
    recording->mappingResultNames =
        settings_.mappingOutcome == "done" ? settings_.mappingNames : std::vector<std::string>{};
    persist(lock);
    return {200, Json{{"status", "dispatched"}}};
}

bool RecordingStore::setMapping(const std::string& meetingId, const std::vector<std::string>& participants,
                                const std::optional<std::string>& status) {
    std::unique_lock lock(mutex_);
    auto* recording = findByMeetingLocked(meetingId);
    if (!recording) {
        return false;
    }
    recording->participants = participants;
    recording->mappingStatus = status;
    recording->mappingDueAt.reset();
    persist(lock);
    return true;
}

RecordingStore::FinalizeBooking RecordingStore::addFinalizeRequest(const std::string& id, const Json& payload,
                                                                   const std::string& idempotencyKey) {
    std::unique_lock lock(mutex_);
    auto it = recordings_.find(id);
    if (it == recordings_.end()) {
        return FinalizeBooking::unknownRecording;
    }
    auto& recording = it->second;
    if (!idempotencyKey.empty() && std::find(recording.finalizeKeys.begin(), recording.finalizeKeys.end(),
                                             idempotencyKey) != recording.finalizeKeys.end()) {
        ++recording.finalizeRepeats;
        persist(lock);
        return FinalizeBooking::repeat;
    }
    const bool first = recording.finalizeRequests.empty();
    recording.finalizeRequests.push_back(payload);
    if (first) {
        recording.finalizedAt = clock_->now();
    }
    if (!idempotencyKey.empty()) {
        recording.finalizeKeys.push_back(idempotencyKey);
    }
    persist(lock);
    return first ? FinalizeBooking::first : FinalizeBooking::again;
}

bool RecordingStore::addDiagnosticSync(const std::string& id, const Json& payload) {
    std::unique_lock lock(mutex_);
    auto it = recordings_.find(id);
    if (it == recordings_.end()) {
        return false;
    }
    it->second.diagnosticSyncs.push_back(payload);
    persist(lock);
    return true;
}

Json RecordingStore::recordingStatus(const std::string& meetingId, const std::string& userId) const {
    auto now = clock_->now();
    std::lock_guard lock(mutex_);
    for (const auto& [id, recording] : recordings_) {
        if (recording.meetingId == meetingId && recording.userId == userId &&
            now >= recording.meetingVisibleAt) {
            return Json::array({recording.statusRow(now, settings_.statusStep)});
        }
    }
    return Json::array();
}

PipelineSettings RecordingStore::settings() const {
    std::lock_guard lock(mutex_);
    return settings_;
}

void RecordingStore::setSettings(const PipelineSettings& settings) {
    std::lock_guard lock(mutex_);
    settings_ = settings;
}

} // namespace kavelo
