#pragma once

#include "core/backend/HTTPClient.h"
#include "core/support/Clock.h"
#include "core/support/CoreLogger.h"
#include "core/support/Task.h"
#include "core/support/Time.h"
#include "core/transport/ChunkStore.h"
#include "core/transport/SignedURLProvider.h"
#include "core/transport/UploadWorker.h"

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace kavelo {

// The upload queue of the running recording. Each chunk is made durable in the chunk store first, then
// sent by a signed URL (PUT, no overwrite) or, when none is at hand, by the storage fallback route (POST
// with the user's token), with up to maxParallelUploads chunks in flight and maxUploadAttempts attempts
// per chunk. A chunk that runs out of attempts is parked with its file kept, until requeue or retryFailed.
// A chunk file is deleted only once the server accepted the chunk (2xx or 409) or acknowledged it.
//
// Construction, the one way:
//
//   auto worker = LiveUploadWorker::create(chunkStore, http, urlProvider, clock, logger);  // default Config
//   worker->setOnEvent([](const NativeUploadEvent& e) { ... });
//   worker->configure(recordingId, recordingSecret, supabaseUrl, anonKey, accessToken);
//   worker->enqueue(bytes, 1, false, 48000.0, 1);
//
// Threads: every operation may be called from any thread. enqueue and configure run on the caller's thread
// (the disk write included); drains and uploads run on tasks of their own. The event handler is called
// synchronously from those threads, outside the lock, so it must be thread-safe and quick. Tasks hold the
// worker weakly; the destructor cancels and joins them (an upload blocked in the HTTP client is waited
// for), and nothing is reported after it began.
//
// configure forgets the previous recording's queue but leaves its files on disk. An upload of that earlier
// recording that is still running ends quietly at its next step, so it never touches the new one's state.
//
// No log line, event or failure text carries the recording secret, the anon key or the token.
class LiveUploadWorker final : public UploadWorker, public std::enable_shared_from_this<LiveUploadWorker> {
  public:
    static std::shared_ptr<LiveUploadWorker> create(std::shared_ptr<ChunkStore> chunkStore,
                                                    std::shared_ptr<HTTPClient> http,
                                                    std::shared_ptr<SignedURLProvider> urlProvider,
                                                    std::shared_ptr<Clock> clock,
                                                    std::shared_ptr<CoreLogger> logger, Config config = {});
    ~LiveUploadWorker() override;
    LiveUploadWorker(const LiveUploadWorker&) = delete;
    LiveUploadWorker& operator=(const LiveUploadWorker&) = delete;

    void configure(const std::string& recordingId, const std::optional<std::string>& recordingSecret,
                   const std::string& supabaseUrl, const std::string& anonKey,
                   const std::optional<std::string>& authToken) override;
    void enqueue(const Bytes& data, int sequence, bool isFinal, double sampleRate, int channels) override;
    void scheduleDrain() override;
    void acceptServerAcks(const std::vector<int>& sequences) override;
    void requeue(const std::vector<int>& sequences) override;
    void retryFailed() override;
    void updateAuthToken(const std::optional<std::string>& token) override;

    [[nodiscard]] std::vector<int> uploadedSequences() const override;
    // What waits together with what is in flight; parked chunks are not in it.
    [[nodiscard]] std::vector<int> pendingSequences() const override;
    [[nodiscard]] std::vector<FailedChunk> failedChunks() const override;
    void setOnEvent(EventHandler handler) override;

    // Highest sequence seen since configure.
    [[nodiscard]] int lastSequence() const;
    // Nothing waits and nothing is in flight. A parked chunk does not make the worker busy.
    [[nodiscard]] bool isIdle() const;
    [[nodiscard]] bool signedUrlEnabled() const;
    [[nodiscard]] bool jwtFallbackEnabled() const;
    [[nodiscard]] const Config& config() const { return config_; }

  private:
    struct Private {};
    // One attempt's answer: the status and the route that carried it.
    struct AttemptResult {
        int statusCode = 0;
        std::string route;
    };
    // No route could take the chunk on this attempt.
    struct UploadRouteUnavailable {
        std::string reason;
    };
    // The worker was configured for another recording while this upload ran.
    struct Superseded {};
    // What one upload needs of the queue, taken under the same hold of the lock as the sequence.
    struct Job {
        int sequence = 0;
        std::string recordingId;
        std::uint64_t generation = 0;
    };

  public:
    LiveUploadWorker(Private, std::shared_ptr<ChunkStore> chunkStore, std::shared_ptr<HTTPClient> http,
                     std::shared_ptr<SignedURLProvider> urlProvider, std::shared_ptr<Clock> clock,
                     std::shared_ptr<CoreLogger> logger, Config config);

  private:
    static void drainLoop(const std::weak_ptr<LiveUploadWorker>& weak, std::uint64_t generation);
    static void upload(const std::weak_ptr<LiveUploadWorker>& weak, const Job& job);

    std::optional<Job> nextPendingSequence(std::uint64_t generation);
    AttemptResult attemptUpload(const Job& job, const Bytes& data);
    std::optional<std::string> signedURL(const Job& job, const std::string& recordingSecret);
    void markUploaded(const Job& job, const AttemptResult& result, int attempt);
    // False when the job belongs to an earlier configure; nothing is then recorded or reported.
    bool park(const Job& job, const std::string& text);
    void forgetPoolEntry(const Job& job);
    void emit(const NativeUploadEvent& event);

    const std::shared_ptr<ChunkStore> chunkStore_;
    const std::shared_ptr<HTTPClient> http_;
    const std::shared_ptr<SignedURLProvider> urlProvider_;
    const std::shared_ptr<Clock> clock_;
    const std::shared_ptr<CoreLogger> logger_;
    const Config config_;

    mutable std::mutex mutex_;
    std::optional<std::string> recordingId_;                   // guarded by mutex_
    std::optional<std::string> recordingSecret_;               // guarded by mutex_
    std::optional<std::string> anonKey_;                       // guarded by mutex_
    std::optional<std::string> authToken_;                     // guarded by mutex_
    std::optional<std::string> supabaseUrl_;                   // guarded by mutex_
    std::deque<int> pendingSequences_;                         // guarded by mutex_; oldest first
    std::set<int> pendingSet_;                                 // guarded by mutex_; the same sequences
    std::set<int> inFlightSequences_;                          // guarded by mutex_
    std::set<int> uploadedSequencesSet_;                       // guarded by mutex_
    std::map<int, std::string> failedChunksMap_;               // guarded by mutex_
    std::map<int, std::string> urlPool_;                       // guarded by mutex_
    bool draining_ = false;                                    // guarded by mutex_
    int lastSequenceValue_ = 0;                                // guarded by mutex_
    TimePoint nextSignedUrlFetchAllowedAt_ = TimePoint::min(); // guarded by mutex_
    std::uint64_t generation_ = 0;                             // guarded by mutex_; counts configure calls
    std::vector<Task> tasks_; // guarded by mutex_; drain tasks not known to be finished
    EventHandler onEvent_;    // guarded by mutex_
};

} // namespace kavelo
