#pragma once

#include "core/transport/UploadWorker.h"

#include <functional>
#include <memory>

namespace kavelo::cli {

// Passes every call to the real upload worker and shows each of its events to the command line before
// the coordinator's handler gets it; a chunk observer, when given, sees each chunk's bytes as the
// recorder hands them over.
class ObservingUploadWorker final : public UploadWorker {
  public:
    using ChunkObserver = std::function<void(const Bytes& data, int sequence)>;

    ObservingUploadWorker(std::shared_ptr<UploadWorker> inner, EventHandler observer,
                          ChunkObserver chunkObserver = {});

    void configure(const std::string& recordingId, const std::optional<std::string>& recordingSecret,
                   const std::string& supabaseUrl, const std::string& anonKey,
                   const std::optional<std::string>& authToken) override {
        inner_->configure(recordingId, recordingSecret, supabaseUrl, anonKey, authToken);
    }
    void enqueue(const Bytes& data, int sequence, bool isFinal, double sampleRate, int channels) override {
        if (chunkObserver_) {
            chunkObserver_(data, sequence);
        }
        inner_->enqueue(data, sequence, isFinal, sampleRate, channels);
    }
    void journal(const Bytes& appended, int sequence) override { inner_->journal(appended, sequence); }
    void scheduleDrain() override { inner_->scheduleDrain(); }
    void acceptServerAcks(const std::vector<int>& sequences) override { inner_->acceptServerAcks(sequences); }
    void requeue(const std::vector<int>& sequences) override { inner_->requeue(sequences); }
    void retryFailed() override { inner_->retryFailed(); }
    void updateAuthToken(const std::optional<std::string>& token) override { inner_->updateAuthToken(token); }
    [[nodiscard]] std::vector<int> uploadedSequences() const override { return inner_->uploadedSequences(); }
    [[nodiscard]] std::vector<int> pendingSequences() const override { return inner_->pendingSequences(); }
    [[nodiscard]] std::vector<FailedChunk> failedChunks() const override { return inner_->failedChunks(); }
    void setOnEvent(EventHandler handler) override;

  private:
    std::shared_ptr<UploadWorker> inner_;
    const EventHandler observer_;
    const ChunkObserver chunkObserver_;
};

} // namespace kavelo::cli
