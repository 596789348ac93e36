#pragma once

#include "core/support/Bytes.h"
#include "core/transport/FailedChunk.h"
#include "core/transport/NativeUploadEvent.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kavelo {

// The queue between the recorder and the server, for one recording at a time. The recorder hands it
// every chunk; the coordinator configures it and listens to its events. LiveUploadWorker is the real one;
// tests may put a fake behind this interface.
class UploadWorker {
  public:
    using EventHandler = std::function<void(const NativeUploadEvent&)>;

    // Limits of the queue, fixed at construction. Both counts are at least 1.
    struct Config {
        int urlBatchSize = 50;                   // signed URLs asked for in one fetch
        int maxUploadAttempts = 15;              // attempts per chunk before it is parked
        double uploadTimeout = 60;               // seconds, one upload request
        double urlFetchAuthFailureBackoff = 120; // seconds without URL fetches after a 401 or 403
        double urlFetchFailureBackoff = 30;      // seconds without URL fetches after any other failure
        int maxParallelUploads = 4;              // chunks in flight at once
        double diskRetryInterval = 5;            // seconds between tries to write chunks the disk refused
        long long maxHeldBytes = 64LL << 20;     // chunks kept in memory while the disk refuses them
        bool operator==(const Config&) const = default;
    };

    virtual ~UploadWorker() = default;

    virtual void configure(const std::string& recordingId, const std::optional<std::string>& recordingSecret,
                           const std::string& supabaseUrl, const std::string& anonKey,
                           const std::optional<std::string>& authToken) = 0;
    // Called from the recorder for each finished chunk. sampleRate and channels are informational.
    virtual void enqueue(const Bytes& data, int sequence, bool isFinal, double sampleRate, int channels) = 0;
    // Called from the recorder's worker about once a second with the bytes of chunk `sequence` (the one
    // being filled) produced since the last call, so that a crash loses only what came after. Never throws.
    virtual void journal(const Bytes& appended, int sequence) = 0;
    virtual void scheduleDrain() = 0;
    virtual void acceptServerAcks(const std::vector<int>& sequences) = 0;
    virtual void requeue(const std::vector<int>& sequences) = 0;
    virtual void retryFailed() = 0;
    virtual void updateAuthToken(const std::optional<std::string>& token) = 0;

    // Ascending sequence lists; pending is what waits together with what is in flight.
    [[nodiscard]] virtual std::vector<int> uploadedSequences() const = 0;
    [[nodiscard]] virtual std::vector<int> pendingSequences() const = 0;
    [[nodiscard]] virtual std::vector<FailedChunk> failedChunks() const = 0;

    // Set by the owner before the first configure; called on the worker's threads, outside its lock.
    virtual void setOnEvent(EventHandler handler) = 0;
};

} // namespace kavelo
