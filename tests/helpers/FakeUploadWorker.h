#pragma once

#include "core/transport/UploadWorker.h"

#include <mutex>
#include <set>
#include <vector>

namespace kavelo::testing {

// An upload worker that uploads nothing: it records what it was asked and answers from sets the test
// fills. emit() plays an event through the handler that the owner installed.
class FakeUploadWorker final : public UploadWorker {
  public:
    struct Configuration {
        std::string recordingId;
        std::optional<std::string> recordingSecret;
        std::string supabaseUrl;
        std::string anonKey;
        std::optional<std::string> authToken;
    };
    struct Enqueued {
        int sequence = 0;
        bool isFinal = false;
        Bytes data;
    };

    void configure(const std::string& recordingId, const std::optional<std::string>& recordingSecret,
                   const std::string& supabaseUrl, const std::string& anonKey,
                   const std::optional<std::string>& authToken) override;
    void enqueue(const Bytes& data, int sequence, bool isFinal, double sampleRate, int channels) override;
    void journal(const Bytes& appended, int sequence) override;
    void scheduleDrain() override;
    void acceptServerAcks(const std::vector<int>& sequences) override;
    void requeue(const std::vector<int>& sequences) override;
    void retryFailed() override;
    void updateAuthToken(const std::optional<std::string>& token) override;
    [[nodiscard]] std::vector<int> uploadedSequences() const override;
    [[nodiscard]] std::vector<int> pendingSequences() const override;
    [[nodiscard]] std::vector<FailedChunk> failedChunks() const override;
    void setOnEvent(EventHandler handler) override;

    // Test side.
    void setUploaded(std::set<int> sequences);
    void setPending(std::set<int> sequences);
    void setFailed(std::vector<FailedChunk> failed);
    void emit(const NativeUploadEvent& event);
    [[nodiscard]] std::vector<Configuration> configurations() const;
    [[nodiscard]] std::vector<Enqueued> enqueued() const;
    // Each journal call, as (sequence, bytes).
    [[nodiscard]] std::vector<Enqueued> journaled() const;
    [[nodiscard]] std::vector<std::vector<int>> requeues() const;
    [[nodiscard]] std::vector<std::vector<int>> acks() const;
    [[nodiscard]] int drainCount() const;

  private:
    mutable std::mutex mutex_;
    EventHandler onEvent_;
    std::set<int> uploaded_;
    std::set<int> pending_;
    std::vector<FailedChunk> failed_;
    std::vector<Configuration> configurations_;
    std::vector<Enqueued> enqueued_;
    std::vector<Enqueued> journaled_;
    std::vector<std::vector<int>> requeues_;
    std::vector<std::vector<int>> acks_;
    int drains_ = 0;
};

} // namespace kavelo::testing
