#include "core/transport/LiveUploadWorker.h"

#include "core/backend/APIError.h"
#include "core/backend/Backoff.h"
#include "core/backend/HostedAnswer.h"
#include "core/support/PercentEncoding.h"
#include "core/support/Task.h"
#include "core/support/Time.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <future>
#include <limits>
#include <map>
#include <mutex>
#include <set>

namespace kavelo {

namespace {

constexpr const char* kSignedRoute = "signed_url";
constexpr const char* kFallbackRoute = "jwt_fallback";
constexpr const char* kNoRoute = "No signed URL available and JWT fallback not configured";
constexpr const char* kFileMissing = "Chunk file missing before upload";

// Wakes a drain loop when one of its uploads ends or when new work was queued while it ran.
struct DrainSignals {
    std::mutex mutex;
    std::condition_variable cv;
    int finished = 0;   // guarded by mutex
    bool poked = false; // guarded by mutex

    void poke() {
        {
            std::lock_guard lock(mutex);
            poked = true;
        }
        cv.notify_all();
    }
};

std::string withoutTrailingSlash(std::string url) {
    while (!url.empty() && url.back() == '/') {
        url.pop_back();
    }
    return url;
}

bool present(const std::optional<std::string>& value) {
    return value && !value->empty();
}

NativeUploadEvent event(NativeUploadEventKind kind) {
    NativeUploadEvent e;
    e.kind = kind;
    return e;
}

bool accepted(int status) {
    // 409: the object already exists, so the server holds the chunk.
    return (status >= 200 && status <= 299) || status == 409;
}

} // namespace

class LiveUploadWorker::Engine : public std::enable_shared_from_this<LiveUploadWorker::Engine> {
  public:
    Engine(std::shared_ptr<ChunkStore> chunkStore, std::shared_ptr<HTTPClient> http,
           std::shared_ptr<SignedURLProvider> urlProvider, std::shared_ptr<Clock> clock,
           std::shared_ptr<CoreLogger> logger, Config config)
        : chunkStore_(std::move(chunkStore)), http_(std::move(http)), urlProvider_(std::move(urlProvider)),
          clock_(std::move(clock)), logger_(std::move(logger)), config_(config) {}

    void shutDown();
    void configure(const std::string& recordingId, const std::optional<std::string>& recordingSecret,
                   const std::string& supabaseUrl, const std::string& anonKey,
                   const std::optional<std::string>& authToken);
    void enqueue(const Bytes& data, int sequence, bool isFinal);
    void journal(const Bytes& appended, int sequence);
    void scheduleDrain();
    void acceptServerAcks(const std::vector<int>& sequences);
    void requeue(const std::vector<int>& sequences);
    void retryFailed();
    void updateAuthToken(const std::optional<std::string>& token);
    std::vector<int> uploadedSequences() const;
    std::vector<int> pendingSequences() const;
    std::vector<FailedChunk> failedChunks() const;
    void setOnEvent(EventHandler handler);
    int lastSequence() const;
    bool isIdle() const;
    bool signedUrlEnabled() const;
    bool jwtFallbackEnabled() const;

  private:
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

    // A chunk the disk has not taken yet, with the recording it belongs to (configure may come between).
    struct HeldChunk {
        std::string recordingId;
        int sequence = 0;
        Bytes data;
        bool isFinal = false;
    };

    static void drainLoop(const std::weak_ptr<Engine>& weak, std::uint64_t generation,
                          const std::shared_ptr<DrainSignals>& signals);
    // Writes the held chunks oldest first, on one thread at a time; stops at the first the disk refuses.
    void writeHeldChunks();
    void scheduleDiskRetry();
    void keepTask(const Task& task);
    static void upload(const std::weak_ptr<Engine>& weak, const Job& job);

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
    std::shared_ptr<DrainSignals> drainSignals_; // guarded by mutex_; those of the running drain
    std::vector<Task> tasks_;                    // guarded by mutex_; drain tasks not known to be finished
    bool stopped_ = false;                       // guarded by mutex_; the owner is going
    EventHandler onEvent_;                       // guarded by mutex_
    std::deque<HeldChunk> held_;                 // guarded by mutex_; chunks not yet on disk, oldest first
    long long heldBytes_ = 0;                    // guarded by mutex_
    bool writingHeld_ = false;                   // guarded by mutex_; a thread is in writeHeldChunks
    bool diskRefusing_ = false;                  // guarded by mutex_; the last write of a chunk failed
    bool diskRetryScheduled_ = false;            // guarded by mutex_
    std::string journalRecordingId_;             // guarded by mutex_; the journal being fed
    int journalSequence_ = 0;                    // guarded by mutex_
    Bytes journalBytes_;                         // guarded by mutex_; what that journal should hold
    bool journalTorn_ = false;                   // guarded by mutex_; the file may end in a failed append
    bool journalWarned_ = false;                 // guarded by mutex_; one log line per refusing episode
};

void LiveUploadWorker::Engine::shutDown() {
    std::vector<Task> tasks;
    EventHandler handler;
    std::vector<int> lost;
    {
        std::lock_guard lock(mutex_);
        stopped_ = true;
        tasks = std::move(tasks_);
        handler = std::move(onEvent_);
        onEvent_ = nullptr;
        for (const auto& chunk : held_) {
            lost.push_back(chunk.sequence);
        }
    }
    if (!lost.empty()) {
        std::string list;
        for (int sequence : lost) {
            list += (list.empty() ? "" : ",") + std::to_string(sequence);
        }
        logger_->error("the disk never took chunks " + list + "; their audio is lost with this process");
    }
    for (const auto& task : tasks) {
        task.cancel();
    }
    // Joining returns at once for the task this runs on, if any (the owner let go inside a callback).
    for (const auto& task : tasks) {
        task.join();
    }
}

void LiveUploadWorker::Engine::configure(const std::string& recordingId,
                                         const std::optional<std::string>& recordingSecret,
                                         const std::string& supabaseUrl, const std::string& anonKey,
                                         const std::optional<std::string>& authToken) {
    bool signedUrl = false;
    bool jwtFallback = false;
    {
        std::lock_guard lock(mutex_);
        ++generation_;
        recordingId_ = recordingId;
        recordingSecret_ = recordingSecret;
        supabaseUrl_ = supabaseUrl;
        anonKey_ = anonKey;
        authToken_ = authToken;
        pendingSequences_.clear();
        pendingSet_.clear();
        inFlightSequences_.clear();
        uploadedSequencesSet_.clear();
        failedChunksMap_.clear();
        urlPool_.clear();
        draining_ = false;
        drainSignals_ = nullptr;
        lastSequenceValue_ = 0;
        nextSignedUrlFetchAllowedAt_ = TimePoint::min();
        signedUrl = present(recordingSecret_);
        jwtFallback = present(anonKey_);
    }
    try {
        chunkStore_->prepareDirectory(recordingId);
    } catch (...) {
        // store() meets the same failure and reports it per chunk.
    }
    {
        auto e = event(NativeUploadEventKind::configured);
        e.mode = signedUrl ? kSignedRoute : (jwtFallback ? kFallbackRoute : "none");
        emit(e);
    }
    logger_->info("uploader configured recording=" + ChunkStore::safeRecordingId(recordingId) +
                  " signedUrl=" + (signedUrl ? "true" : "false") +
                  " jwtFallback=" + (jwtFallback ? "true" : "false"));
}

void LiveUploadWorker::Engine::enqueue(const Bytes& data, int sequence, bool isFinal) {
    std::optional<std::string> recordingId;
    bool overBound = false;
    long long heldBytes = 0;
    {
        std::lock_guard lock(mutex_);
        recordingId = recordingId_;
        if (recordingId) {
            // One chunk is always kept, so the bound only ever refuses audio after a long full disk.
            overBound =
                !held_.empty() && heldBytes_ + static_cast<long long>(data.size()) > config_.maxHeldBytes;
            if (overBound) {
                failedChunksMap_[sequence] = "Disk full: memory for unwritten audio is full, chunk dropped";
            } else {
                held_.push_back({*recordingId, sequence, data, isFinal});
                heldBytes_ += static_cast<long long>(data.size());
            }
            heldBytes = heldBytes_;
        }
    }
    if (!recordingId) {
        logger_->warn("enqueue before configure — chunk " + std::to_string(sequence) + " dropped");
        return;
    }
    if (overBound) {
        logger_->error("disk still refuses chunks and " + std::to_string(heldBytes >> 20) +
                       " MiB wait in memory: chunk " + std::to_string(sequence) + " dropped");
        auto e = event(NativeUploadEventKind::failed);
        e.sequence = sequence;
        e.message = "Disk full: chunk dropped";
        emit(e);
        return;
    }
    writeHeldChunks();
}

void LiveUploadWorker::Engine::writeHeldChunks() {
    {
        std::lock_guard lock(mutex_);
        if (writingHeld_) {
            return; // the thread that writes takes this chunk too, in order
        }
        writingHeld_ = true;
    }
    for (;;) {
        HeldChunk chunk;
        {
            std::lock_guard lock(mutex_);
            if (held_.empty()) {
                writingHeld_ = false;
                return;
            }
            chunk = held_.front();
        }
        long long written = 0;
        try {
            written = chunkStore_->store(chunk.recordingId, chunk.sequence, chunk.data);
        } catch (const std::exception& e) {
            bool first = false;
            long long heldBytes = 0;
            {
                std::lock_guard lock(mutex_);
                writingHeld_ = false;
                first = !std::exchange(diskRefusing_, true);
                heldBytes = heldBytes_;
            }
            if (first) {
                logger_->error("chunk " + std::to_string(chunk.sequence) + " not written (" + e.what() +
                               "); kept in memory and tried again");
                auto held = event(NativeUploadEventKind::storeHeld);
                held.sequence = chunk.sequence;
                held.message = std::string("Disk write failed: ") + e.what();
                held.count =
                    static_cast<int>(std::min<long long>(heldBytes, std::numeric_limits<int>::max()));
                emit(held);
            }
            scheduleDiskRetry();
            return;
        }
        bool resumed = false;
        bool current = false;
        {
            std::lock_guard lock(mutex_);
            held_.pop_front();
            heldBytes_ -= static_cast<long long>(chunk.data.size());
            resumed = std::exchange(diskRefusing_, false);
            current = recordingId_ == chunk.recordingId && !stopped_;
            if (current) {
                lastSequenceValue_ = std::max(lastSequenceValue_, chunk.sequence);
                if (!uploadedSequencesSet_.contains(chunk.sequence) &&
                    !pendingSet_.contains(chunk.sequence) && !inFlightSequences_.contains(chunk.sequence)) {
                    pendingSequences_.push_back(chunk.sequence);
                    pendingSet_.insert(chunk.sequence);
                }
            }
        }
        auto stored = event(NativeUploadEventKind::stored);
        stored.sequence = chunk.sequence;
        stored.count = static_cast<int>(written);
        if (chunk.isFinal) {
            stored.mode = "final";
        }
        emit(stored);
        if (resumed) {
            logger_->info("disk takes chunks again from chunk " + std::to_string(chunk.sequence));
            auto e = event(NativeUploadEventKind::storeResumed);
            e.sequence = chunk.sequence;
            emit(e);
        }
        if (current) {
            scheduleDrain();
        }
    }
}

void LiveUploadWorker::Engine::scheduleDiskRetry() {
    {
        std::lock_guard lock(mutex_);
        if (diskRetryScheduled_ || stopped_) {
            return;
        }
        diskRetryScheduled_ = true;
    }
    auto task = Task::run([weak = weak_from_this(), clock = clock_, interval = config_.diskRetryInterval] {
        for (;;) {
            try {
                clock->sleep(interval);
            } catch (...) {
                // Cancellation is looked at below; any other early wake is one more try.
            }
            if (Task::isCurrentCancelled()) {
                return;
            }
            auto self = weak.lock();
            if (!self) {
                return;
            }
            self->writeHeldChunks();
            std::lock_guard lock(self->mutex_);
            if (self->held_.empty() || self->stopped_) {
                self->diskRetryScheduled_ = false;
                return;
            }
        }
    });
    keepTask(task);
}

void LiveUploadWorker::Engine::keepTask(const Task& task) {
    // The handles are taken out to drop finished tasks without calling into them under the lock.
    std::vector<Task> tasks;
    {
        std::lock_guard lock(mutex_);
        tasks = std::move(tasks_);
    }
    std::erase_if(tasks, [](const Task& t) { return t.isFinished(); });
    tasks.push_back(task);
    bool stopped = false;
    {
        std::lock_guard lock(mutex_);
        stopped = stopped_;
        if (!stopped) {
            tasks_.insert(tasks_.end(), tasks.begin(), tasks.end());
        }
    }
    if (stopped) {
        // shutDown ran meanwhile and will not see this task: end it here.
        task.cancelAndJoin();
    }
}

void LiveUploadWorker::Engine::journal(const Bytes& appended, int sequence) {
    std::string recordingId;
    Bytes whole;
    bool rewrite = false;
    {
        std::lock_guard lock(mutex_);
        if (!recordingId_ || appended.empty()) {
            return;
        }
        recordingId = *recordingId_;
        if (journalRecordingId_ != recordingId || journalSequence_ != sequence) {
            journalRecordingId_ = recordingId;
            journalSequence_ = sequence;
            journalBytes_.clear();
            journalTorn_ = false;
        }
        if (journalBytes_.size() + appended.size() > ChunkStore::maxJournalBytes) {
            // Only a recorder that never cuts gets here; its chunk will be kept whole in memory anyway.
            return;
        }
        journalBytes_.insert(journalBytes_.end(), appended.begin(), appended.end());
        rewrite = journalTorn_;
        if (rewrite) {
            whole = journalBytes_;
        }
    }
    try {
        if (rewrite) {
            chunkStore_->replaceJournal(recordingId, sequence, whole);
        } else {
            chunkStore_->appendJournal(recordingId, sequence, appended);
        }
        std::lock_guard lock(mutex_);
        if (journalRecordingId_ == recordingId && journalSequence_ == sequence) {
            journalTorn_ = false;
            journalWarned_ = false;
        }
    } catch (const std::exception& e) {
        bool warn = false;
        {
            std::lock_guard lock(mutex_);
            if (journalRecordingId_ == recordingId && journalSequence_ == sequence) {
                journalTorn_ = true;
            }
            warn = !std::exchange(journalWarned_, true);
        }
        if (warn) {
            logger_->warn(std::string("journal of chunk ") + std::to_string(sequence) + " not written (" +
                          e.what() + "): a crash now would lose the audio since the last chunk");
        }
    }
}

void LiveUploadWorker::Engine::scheduleDrain() {
    std::uint64_t generation = 0;
    std::shared_ptr<DrainSignals> running;
    auto signals = std::make_shared<DrainSignals>();
    {
        std::lock_guard lock(mutex_);
        if (stopped_) {
            return;
        }
        if (draining_) {
            running = drainSignals_;
        } else {
            draining_ = true;
            generation = generation_;
            drainSignals_ = signals;
        }
    }
    if (running) {
        // The drain that runs may have free slots: without this a chunk queued behind a slow upload
        // would wait for that upload to end.
        running->poke();
        return;
    }
    emit(event(NativeUploadEventKind::uploadGuardStarted));
    keepTask(
        Task::run([weak = weak_from_this(), generation, signals] { drainLoop(weak, generation, signals); }));
}

void LiveUploadWorker::Engine::drainLoop(const std::weak_ptr<Engine>& weak, std::uint64_t generation,
                                         const std::shared_ptr<DrainSignals>& signals) {
    int maxParallel = 1;
    {
        auto self = weak.lock();
        if (!self) {
            return;
        }
        maxParallel = std::max(1, self->config_.maxParallelUploads);
    }
    std::vector<std::future<void>> children;
    int running = 0;
    for (;;) {
        while (running < maxParallel) {
            auto self = weak.lock();
            if (!self) {
                break;
            }
            auto job = self->nextPendingSequence(generation);
            if (!job) {
                break;
            }
            children.push_back(Task::child([weak, job = *job, signals] {
                struct Done {
                    DrainSignals& s;
                    ~Done() {
                        {
                            std::lock_guard lock(s.mutex);
                            ++s.finished;
                        }
                        s.cv.notify_all();
                    }
                } done{*signals};
                upload(weak, job);
            }));
            ++running;
        }
        if (running == 0) {
            break;
        }
        {
            std::unique_lock lock(signals->mutex);
            signals->cv.wait(lock, [&] { return signals->finished > 0 || signals->poked; });
            running -= signals->finished;
            signals->finished = 0;
            signals->poked = false;
        }
        std::erase_if(children, [](const std::future<void>& f) {
            return f.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
        });
    }
    children.clear();

    auto self = weak.lock();
    if (!self) {
        return;
    }
    bool morePending = false;
    int uploadedCount = 0;
    int failedCount = 0;
    {
        std::lock_guard lock(self->mutex_);
        if (generation != self->generation_ || self->stopped_) {
            return; // configure started over; the drains of the new recording report for themselves
        }
        self->draining_ = false;
        self->drainSignals_ = nullptr;
        morePending = !self->pendingSequences_.empty();
        uploadedCount = static_cast<int>(self->uploadedSequencesSet_.size());
        failedCount = static_cast<int>(self->failedChunksMap_.size());
    }
    if (morePending) {
        // A chunk came in after the last look at the queue, while draining_ kept scheduleDrain from acting.
        self->scheduleDrain();
        return;
    }
    {
        auto e = event(NativeUploadEventKind::drained);
        e.uploadedCount = uploadedCount;
        e.failedCount = failedCount;
        self->emit(e);
    }
    self->emit(event(NativeUploadEventKind::uploadGuardEnded));
}

std::optional<LiveUploadWorker::Engine::Job>
LiveUploadWorker::Engine::nextPendingSequence(std::uint64_t generation) {
    std::lock_guard lock(mutex_);
    if (generation != generation_ || stopped_) {
        return std::nullopt;
    }
    while (!pendingSequences_.empty()) {
        int sequence = pendingSequences_.front();
        pendingSequences_.pop_front();
        pendingSet_.erase(sequence);
        if (uploadedSequencesSet_.contains(sequence)) {
            continue;
        }
        inFlightSequences_.insert(sequence);
        return Job{sequence, recordingId_.value_or(""), generation};
    }
    return std::nullopt;
}

void LiveUploadWorker::Engine::upload(const std::weak_ptr<Engine>& weak, const Job& job) {
    std::optional<Bytes> data;
    std::shared_ptr<Clock> clock;
    int maxAttempts = 1;
    {
        auto self = weak.lock();
        if (!self) {
            return;
        }
        if (!job.recordingId.empty()) {
            data = self->chunkStore_->read(job.recordingId, job.sequence);
        }
        if (!data) {
            self->park(job, kFileMissing);
            return;
        }
        clock = self->clock_;
        maxAttempts = std::max(1, self->config_.maxUploadAttempts);
    }

    std::string lastError = "unknown";
    for (int attempt = 1; attempt <= maxAttempts; ++attempt) {
        if (Task::isCurrentCancelled()) {
            break;
        }
        {
            // Held for one attempt only, so a waiting upload never keeps the worker alive.
            auto self = weak.lock();
            if (!self) {
                return;
            }
            try {
                auto result = self->attemptUpload(job, *data);
                if (accepted(result.statusCode)) {
                    self->markUploaded(job, result, attempt);
                    return;
                }
                if ((result.statusCode == 401 || result.statusCode == 403) && result.route == kSignedRoute) {
                    // Likely a stale URL: the next attempt asks for a fresh batch starting at this chunk.
                    self->forgetPoolEntry(job);
                }
                lastError = "HTTP " + std::to_string(result.statusCode) + " via " + result.route;
            } catch (const Superseded&) {
                return;
            } catch (const UploadRouteUnavailable& e) {
                lastError = e.reason;
            } catch (const std::exception& e) {
                lastError = e.what();
            } catch (...) {
                lastError = "unknown";
            }
        }
        if (attempt < maxAttempts) {
            try {
                clock->sleep(Backoff::uploadDelay(attempt));
            } catch (...) {
                // Waking early is fine; cancellation is looked at before the next attempt.
            }
        }
    }

    auto self = weak.lock();
    if (!self) {
        return;
    }
    if (self->park(job, lastError)) {
        self->logger_->warn("chunk " + std::to_string(job.sequence) + " failed after " +
                            std::to_string(maxAttempts) + " attempts: " + lastError);
    }
}

LiveUploadWorker::Engine::AttemptResult LiveUploadWorker::Engine::attemptUpload(const Job& job,
                                                                                const Bytes& data) {
    std::optional<std::string> secret;
    {
        std::lock_guard lock(mutex_);
        if (job.generation != generation_) {
            throw Superseded{};
        }
        secret = recordingSecret_;
    }
    std::optional<std::string> url;
    if (present(secret)) {
        url = signedURL(job, *secret);
    }
    if (url) {
        HTTPRequest request;
        request.url = *url;
        request.method = "PUT";
        request.headers = {{"Content-Type", "audio/aac"}, {"x-upsert", "false"}};
        request.body = data;
        request.timeout = config_.uploadTimeout;
        return {HostedAnswer::meaningfulStatus(http_->send(request)), kSignedRoute};
    }

    std::optional<std::string> supabaseUrl;
    std::optional<std::string> anonKey;
    std::optional<std::string> authToken;
    {
        std::lock_guard lock(mutex_);
        if (job.generation != generation_) {
            throw Superseded{};
        }
        supabaseUrl = supabaseUrl_;
        anonKey = anonKey_;
        authToken = authToken_;
    }
    if (!present(supabaseUrl) || !present(anonKey)) {
        throw UploadRouteUnavailable{kNoRoute};
    }
    {
        auto e = event(NativeUploadEventKind::jwtFallbackUpload);
        e.sequence = job.sequence;
        emit(e);
    }
    HTTPRequest request;
    request.url = withoutTrailingSlash(*supabaseUrl) + "/storage/v1/object/recordings/" +
                  PercentEncoding::path(job.recordingId) + "/chunks/" + ChunkStore::filename(job.sequence);
    request.method = "POST";
    request.headers = {{"Content-Type", "audio/aac"},
                       {"x-upsert", "true"},
                       {"apikey", *anonKey},
                       {"Authorization", "Bearer " + (present(authToken) ? *authToken : *anonKey)}};
    request.body = data;
    request.timeout = config_.uploadTimeout;
    return {HostedAnswer::meaningfulStatus(http_->send(request)), kFallbackRoute};
}

std::optional<std::string> LiveUploadWorker::Engine::signedURL(const Job& job,
                                                               const std::string& recordingSecret) {
    TimePoint allowedAt;
    {
        std::lock_guard lock(mutex_);
        if (job.generation != generation_) {
            throw Superseded{};
        }
        // Entries have no age limit; a stale one shows itself by a 401 or 403 from storage.
        if (auto it = urlPool_.find(job.sequence); it != urlPool_.end()) {
            return it->second;
        }
        allowedAt = nextSignedUrlFetchAllowedAt_;
    }
    if (clock_->now() < allowedAt) {
        return std::nullopt;
    }

    std::vector<SignedURL> entries;
    try {
        entries = urlProvider_->fetchSignedURLs(job.recordingId, recordingSecret, job.sequence,
                                                config_.urlBatchSize);
    } catch (...) {
        if (Task::isCurrentCancelled()) {
            throw; // the worker is going; no pause and no report for that
        }
        std::optional<int> status;
        try {
            throw;
        } catch (const APIError& e) {
            status = e.httpStatus();
        } catch (...) {
        }
        double pause = (status == 401 || status == 403) ? config_.urlFetchAuthFailureBackoff
                                                        : config_.urlFetchFailureBackoff;
        TimePoint until = addSeconds(clock_->now(), pause);
        {
            std::lock_guard lock(mutex_);
            if (job.generation != generation_) {
                throw Superseded{};
            }
            nextSignedUrlFetchAllowedAt_ = until;
        }
        {
            auto e = event(NativeUploadEventKind::urlFetchFailed);
            e.statusCode = status;
            e.startSequence = job.sequence;
            e.count = config_.urlBatchSize;
            e.retryAfterSeconds = pause;
            emit(e);
        }
        logger_->warn("signed url fetch failed (status=" + (status ? std::to_string(*status) : "-") +
                      "); backoff " + std::to_string(static_cast<long long>(pause)) + "s");
        return std::nullopt;
    }

    std::optional<std::string> found;
    {
        std::lock_guard lock(mutex_);
        if (job.generation != generation_) {
            throw Superseded{};
        }
        for (const auto& entry : entries) {
            urlPool_[entry.sequence] = entry.url;
        }
        if (auto it = urlPool_.find(job.sequence); it != urlPool_.end()) {
            found = it->second;
        }
    }
    {
        auto e = event(NativeUploadEventKind::urlPoolRefilled);
        e.startSequence = job.sequence;
        e.count = static_cast<int>(entries.size());
        emit(e);
    }
    return found;
}

void LiveUploadWorker::Engine::markUploaded(const Job& job, const AttemptResult& result, int attempt) {
    bool current = false;
    {
        std::lock_guard lock(mutex_);
        // After a configure for the same recording the server's acceptance still counts.
        current = recordingId_ == job.recordingId;
        if (current) {
            uploadedSequencesSet_.insert(job.sequence);
            failedChunksMap_.erase(job.sequence);
            urlPool_.erase(job.sequence);
        }
        if (job.generation == generation_) {
            inFlightSequences_.erase(job.sequence);
        }
    }
    // The server holds the chunk now, so its file may go.
    chunkStore_->remove(job.recordingId, job.sequence);
    if (current) {
        {
            auto e = event(NativeUploadEventKind::uploaded);
            e.sequence = job.sequence;
            e.statusCode = result.statusCode;
            e.attempt = attempt;
            e.mode = result.route;
            emit(e);
        }
    }
}

bool LiveUploadWorker::Engine::park(const Job& job, const std::string& text) {
    {
        std::lock_guard lock(mutex_);
        if (job.generation != generation_) {
            return false;
        }
        failedChunksMap_[job.sequence] = text;
        inFlightSequences_.erase(job.sequence);
    }
    {
        auto e = event(NativeUploadEventKind::failed);
        e.sequence = job.sequence;
        e.message = text;
        emit(e);
    }
    return true;
}

void LiveUploadWorker::Engine::forgetPoolEntry(const Job& job) {
    std::lock_guard lock(mutex_);
    if (job.generation == generation_) {
        urlPool_.erase(job.sequence);
    }
}

void LiveUploadWorker::Engine::acceptServerAcks(const std::vector<int>& sequences) {
    std::optional<std::string> recordingId;
    {
        std::lock_guard lock(mutex_);
        for (int sequence : sequences) {
            uploadedSequencesSet_.insert(sequence);
            failedChunksMap_.erase(sequence);
            if (pendingSet_.erase(sequence) > 0) {
                std::erase(pendingSequences_, sequence);
            }
            urlPool_.erase(sequence);
            lastSequenceValue_ = std::max(lastSequenceValue_, sequence);
        }
        recordingId = recordingId_;
    }
    if (recordingId) {
        for (int sequence : sequences) {
            chunkStore_->remove(*recordingId, sequence);
        }
    }
}

void LiveUploadWorker::Engine::requeue(const std::vector<int>& sequences) {
    std::vector<int> sorted = sequences;
    std::sort(sorted.begin(), sorted.end());
    {
        std::lock_guard lock(mutex_);
        for (int sequence : sorted) {
            if (pendingSet_.contains(sequence) || inFlightSequences_.contains(sequence)) {
                continue;
            }
            uploadedSequencesSet_.erase(sequence);
            failedChunksMap_.erase(sequence);
            pendingSequences_.push_back(sequence);
            pendingSet_.insert(sequence);
            lastSequenceValue_ = std::max(lastSequenceValue_, sequence);
        }
    }
    scheduleDrain();
}

void LiveUploadWorker::Engine::retryFailed() {
    std::vector<int> sequences;
    {
        std::lock_guard lock(mutex_);
        for (const auto& [sequence, text] : failedChunksMap_) {
            sequences.push_back(sequence);
        }
    }
    requeue(sequences);
}

void LiveUploadWorker::Engine::updateAuthToken(const std::optional<std::string>& token) {
    std::lock_guard lock(mutex_);
    authToken_ = token;
}

std::vector<int> LiveUploadWorker::Engine::uploadedSequences() const {
    std::lock_guard lock(mutex_);
    return {uploadedSequencesSet_.begin(), uploadedSequencesSet_.end()};
}

std::vector<int> LiveUploadWorker::Engine::pendingSequences() const {
    std::lock_guard lock(mutex_);
    std::set<int> all = pendingSet_;
    all.insert(inFlightSequences_.begin(), inFlightSequences_.end());
    for (const auto& chunk : held_) {
        if (chunk.recordingId == recordingId_) {
            all.insert(chunk.sequence);
        }
    }
    return {all.begin(), all.end()};
}

std::vector<FailedChunk> LiveUploadWorker::Engine::failedChunks() const {
    std::lock_guard lock(mutex_);
    std::vector<FailedChunk> out;
    for (const auto& [sequence, text] : failedChunksMap_) {
        out.push_back({sequence, text.empty() ? "unknown" : text});
    }
    return out;
}

void LiveUploadWorker::Engine::setOnEvent(EventHandler handler) {
    std::lock_guard lock(mutex_);
    onEvent_ = std::move(handler);
}

int LiveUploadWorker::Engine::lastSequence() const {
    std::lock_guard lock(mutex_);
    return lastSequenceValue_;
}

bool LiveUploadWorker::Engine::isIdle() const {
    std::lock_guard lock(mutex_);
    return pendingSet_.empty() && inFlightSequences_.empty() && held_.empty();
}

bool LiveUploadWorker::Engine::signedUrlEnabled() const {
    std::lock_guard lock(mutex_);
    return present(recordingSecret_);
}

bool LiveUploadWorker::Engine::jwtFallbackEnabled() const {
    std::lock_guard lock(mutex_);
    return present(anonKey_);
}

void LiveUploadWorker::Engine::emit(const NativeUploadEvent& event) {
    EventHandler handler;
    {
        std::lock_guard lock(mutex_);
        if (stopped_) {
            return;
        }
        handler = onEvent_;
    }
    if (handler) {
        handler(event);
    }
}

std::shared_ptr<LiveUploadWorker>
LiveUploadWorker::create(std::shared_ptr<ChunkStore> chunkStore, std::shared_ptr<HTTPClient> http,
                         std::shared_ptr<SignedURLProvider> urlProvider, std::shared_ptr<Clock> clock,
                         std::shared_ptr<CoreLogger> logger, Config config) {
    return std::make_shared<LiveUploadWorker>(std::move(chunkStore), std::move(http), std::move(urlProvider),
                                              std::move(clock), std::move(logger), config);
}

LiveUploadWorker::LiveUploadWorker(std::shared_ptr<ChunkStore> chunkStore, std::shared_ptr<HTTPClient> http,
                                   std::shared_ptr<SignedURLProvider> urlProvider,
                                   std::shared_ptr<Clock> clock, std::shared_ptr<CoreLogger> logger,
                                   Config config)
    : config_(config),
      engine_(std::make_shared<Engine>(std::move(chunkStore), std::move(http), std::move(urlProvider),
                                       std::move(clock), std::move(logger), config)) {}

LiveUploadWorker::~LiveUploadWorker() {
    engine_->shutDown();
}

void LiveUploadWorker::configure(const std::string& recordingId,
                                 const std::optional<std::string>& recordingSecret,
                                 const std::string& supabaseUrl, const std::string& anonKey,
                                 const std::optional<std::string>& authToken) {
    engine_->configure(recordingId, recordingSecret, supabaseUrl, anonKey, authToken);
}

void LiveUploadWorker::enqueue(const Bytes& data, int sequence, bool isFinal, double /*sampleRate*/,
                               int /*channels*/) {
    engine_->enqueue(data, sequence, isFinal);
}

void LiveUploadWorker::journal(const Bytes& appended, int sequence) {
    engine_->journal(appended, sequence);
}

void LiveUploadWorker::scheduleDrain() {
    engine_->scheduleDrain();
}

void LiveUploadWorker::acceptServerAcks(const std::vector<int>& sequences) {
    engine_->acceptServerAcks(sequences);
}

void LiveUploadWorker::requeue(const std::vector<int>& sequences) {
    engine_->requeue(sequences);
}

void LiveUploadWorker::retryFailed() {
    engine_->retryFailed();
}

void LiveUploadWorker::updateAuthToken(const std::optional<std::string>& token) {
    engine_->updateAuthToken(token);
}

std::vector<int> LiveUploadWorker::uploadedSequences() const {
    return engine_->uploadedSequences();
}

std::vector<int> LiveUploadWorker::pendingSequences() const {
    return engine_->pendingSequences();
}

std::vector<FailedChunk> LiveUploadWorker::failedChunks() const {
    return engine_->failedChunks();
}

void LiveUploadWorker::setOnEvent(EventHandler handler) {
    engine_->setOnEvent(std::move(handler));
}

int LiveUploadWorker::lastSequence() const {
    return engine_->lastSequence();
}

bool LiveUploadWorker::isIdle() const {
    return engine_->isIdle();
}

bool LiveUploadWorker::signedUrlEnabled() const {
    return engine_->signedUrlEnabled();
}

bool LiveUploadWorker::jwtFallbackEnabled() const {
    return engine_->jwtFallbackEnabled();
}

} // namespace kavelo
