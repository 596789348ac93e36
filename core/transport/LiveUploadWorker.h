#pragma once

#include "core/backend/HTTPClient.h"
#include "core/support/Clock.h"
#include "core/support/CoreLogger.h"
#include "core/transport/ChunkStore.h"
#include "core/transport/SignedURLProvider.h"
#include "core/transport/UploadWorker.h"

#include <memory>
#include <optional>
#include <string>
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
// Threads: every operation may be called from any thread. enqueue, journal and configure run on the
// caller's thread (the disk write included, unless another thread is writing held chunks); drains and uploads
// run on tasks of their own. The event handler is called synchronously from those threads, outside the lock,
// so it must be thread-safe and quick. Tasks hold the queue weakly; the destructor cancels and joins them (an
// upload blocked in the HTTP client is waited for), on whichever thread the last reference goes, and nothing
// is reported after it began. (Dropped inside the event handler, the task that runs the handler cannot wait
// for itself; it ends on its own.)
//
// configure forgets the previous recording's queue but leaves its files on disk. An upload of that earlier
// recording that is still running ends quietly at its next step, so it never touches the new one's state.
//
// No log line, event or failure text carries the recording secret, the anon key or the token.
class LiveUploadWorker final : public UploadWorker {
  public:
    static std::shared_ptr<LiveUploadWorker> create(std::shared_ptr<ChunkStore> chunkStore,
                                                    std::shared_ptr<HTTPClient> http,
                                                    std::shared_ptr<SignedURLProvider> urlProvider,
                                                    std::shared_ptr<Clock> clock,
                                                    std::shared_ptr<CoreLogger> logger, Config config = {});
    LiveUploadWorker(std::shared_ptr<ChunkStore> chunkStore, std::shared_ptr<HTTPClient> http,
                     std::shared_ptr<SignedURLProvider> urlProvider, std::shared_ptr<Clock> clock,
                     std::shared_ptr<CoreLogger> logger, Config config = {});
    // Cancels every task of the worker and waits for them; no event comes after this began.
    ~LiveUploadWorker() override;
    LiveUploadWorker(const LiveUploadWorker&) = delete;
    LiveUploadWorker& operator=(const LiveUploadWorker&) = delete;

    void configure(const std::string& recordingId, const std::optional<std::string>& recordingSecret,
                   const std::string& supabaseUrl, const std::string& anonKey,
                   const std::optional<std::string>& authToken) override;
    // A chunk the disk refuses (ENOSPC, EIO, ...) is kept in memory, in order with the chunks after it, and
    // written again every diskRetryInterval and at every next enqueue, so nothing captured is lost while
    // the disk is full; storeHeld and storeResumed tell the owner. Beyond maxHeldBytes in memory a new
    // chunk is refused: a failed event and an error line say so, and the chunks already held stay.
    void enqueue(const Bytes& data, int sequence, bool isFinal, double sampleRate, int channels) override;
    // Appends to the journal of the chunk being filled; after a failed append the next call rewrites it
    // whole. A journal the disk refuses is logged once per episode.
    void journal(const Bytes& appended, int sequence) override;
    // Starts a drain unless one runs; a running drain is woken to fill free upload slots.
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
    // Nothing waits (on the disk or for an upload) and nothing is in flight. A parked chunk does not make
    // the worker busy.
    [[nodiscard]] bool isIdle() const;
    [[nodiscard]] bool signedUrlEnabled() const;
    [[nodiscard]] bool jwtFallbackEnabled() const;
    [[nodiscard]] const Config& config() const { return config_; }

  private:
    // The queue itself. Its tasks hold it weakly; this object owns it and ends its tasks.
    class Engine;
    const Config config_;
    const std::shared_ptr<Engine> engine_;
};

} // namespace kavelo
