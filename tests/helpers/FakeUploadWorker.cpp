#include "helpers/FakeUploadWorker.h"

namespace kavelo::testing {

void FakeUploadWorker::configure(const std::string& recordingId,
                                 const std::optional<std::string>& recordingSecret,
                                 const std::string& supabaseUrl, const std::string& anonKey,
                                 const std::optional<std::string>& authToken) {
    std::lock_guard lock(mutex_);
    configurations_.push_back({recordingId, recordingSecret, supabaseUrl, anonKey, authToken});
}

void FakeUploadWorker::enqueue(const Bytes& data, int sequence, bool isFinal, double, int) {
    std::lock_guard lock(mutex_);
    enqueued_.push_back({sequence, isFinal, data});
    pending_.insert(sequence);
}

void FakeUploadWorker::scheduleDrain() {
    std::lock_guard lock(mutex_);
    ++drains_;
}

void FakeUploadWorker::acceptServerAcks(const std::vector<int>& sequences) {
    std::lock_guard lock(mutex_);
    acks_.push_back(sequences);
    for (int s : sequences) {
        uploaded_.insert(s);
        pending_.erase(s);
    }
}

void FakeUploadWorker::requeue(const std::vector<int>& sequences) {
    std::lock_guard lock(mutex_);
    requeues_.push_back(sequences);
}

void FakeUploadWorker::retryFailed() {}

void FakeUploadWorker::updateAuthToken(const std::optional<std::string>&) {}

std::vector<int> FakeUploadWorker::uploadedSequences() const {
    std::lock_guard lock(mutex_);
    return {uploaded_.begin(), uploaded_.end()};
}

std::vector<int> FakeUploadWorker::pendingSequences() const {
    std::lock_guard lock(mutex_);
    return {pending_.begin(), pending_.end()};
}

std::vector<FailedChunk> FakeUploadWorker::failedChunks() const {
    std::lock_guard lock(mutex_);
    return failed_;
}

void FakeUploadWorker::setOnEvent(EventHandler handler) {
    std::lock_guard lock(mutex_);
    onEvent_ = std::move(handler);
}

void FakeUploadWorker::setUploaded(std::set<int> sequences) {
    std::lock_guard lock(mutex_);
    uploaded_ = std::move(sequences);
}

void FakeUploadWorker::setPending(std::set<int> sequences) {
    std::lock_guard lock(mutex_);
    pending_ = std::move(sequences);
}

void FakeUploadWorker::setFailed(std::vector<FailedChunk> failed) {
    std::lock_guard lock(mutex_);
    failed_ = std::move(failed);
}

void FakeUploadWorker::emit(const NativeUploadEvent& event) {
    EventHandler handler;
    {
        std::lock_guard lock(mutex_);
        handler = onEvent_;
    }
    if (handler) {
        handler(event);
    }
}

std::vector<FakeUploadWorker::Configuration> FakeUploadWorker::configurations() const {
    std::lock_guard lock(mutex_);
    return configurations_;
}

void FakeUploadWorker::journal(const Bytes& appended, int sequence) {
    std::lock_guard lock(mutex_);
    journaled_.push_back({sequence, false, appended});
}

std::vector<FakeUploadWorker::Enqueued> FakeUploadWorker::journaled() const {
    std::lock_guard lock(mutex_);
    return journaled_;
}

std::vector<FakeUploadWorker::Enqueued> FakeUploadWorker::enqueued() const {
    std::lock_guard lock(mutex_);
    return enqueued_;
}

std::vector<std::vector<int>> FakeUploadWorker::requeues() const {
    std::lock_guard lock(mutex_);
    return requeues_;
}

std::vector<std::vector<int>> FakeUploadWorker::acks() const {
    std::lock_guard lock(mutex_);
    return acks_;
}

int FakeUploadWorker::drainCount() const {
    std::lock_guard lock(mutex_);
    return drains_;
}

} // namespace kavelo::testing
