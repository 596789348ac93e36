#include "core/transport/LiveUploadWorker.h"

#include "core/backend/APIError.h"
#include "core/backend/Backoff.h"

#include <algorithm>
#include <condition_variable>
#include <future>

namespace kavelo {

namespace {

constexpr const char* kSignedRoute = "signed_url";
constexpr const char* kFallbackRoute = "jwt_fallback";
constexpr const char* kNoRoute = "No signed URL available and JWT fallback not configured";
constexpr const char* kFileMissing = "Chunk file missing before upload";

// Completion signals of the children of one drain, so the loop can wait for whichever ends first.
struct ChildSignals {
    std::mutex mutex;
    std::condition_variable cv;
    int finished = 0; // guarded by mutex
};

// Keeps the identifier as it came, "/" and ":" included, and escapes only what cannot stand in a path.
std::string encodePathPart(const std::string& text) {
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : text) {
        bool plain = std::isalnum(c) || std::string_view("-._~!$&'()*+,;=:@/").find(static_cast<char>(c)) !=
                                            std::string_view::npos;
        if (plain) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 0xF];
        }
    }
    return out;
}

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

std::shared_ptr<LiveUploadWorker>
LiveUploadWorker::create(std::shared_ptr<ChunkStore> chunkStore, std::shared_ptr<HTTPClient> http,
                         std::shared_ptr<SignedURLProvider> urlProvider, std::shared_ptr<Clock> clock,
                         std::shared_ptr<CoreLogger> logger, Config config) {
    return std::make_shared<LiveUploadWorker>(Private{}, std::move(chunkStore), std::move(http),
                                              std::move(urlProvider), std::move(clock), std::move(logger),
                                              config);
}

LiveUploadWorker::LiveUploadWorker(Private, std::shared_ptr<ChunkStore> chunkStore,
                                   std::shared_ptr<HTTPClient> http,
                                   std::shared_ptr<SignedURLProvider> urlProvider,
                                   std::shared_ptr<Clock> clock, std::shared_ptr<CoreLogger> logger,
                                   Config config)
    : chunkStore_(std::move(chunkStore)), http_(std::move(http)), urlProvider_(std::move(urlProvider)),
      clock_(std::move(clock)), logger_(std::move(logger)), config_(config) {}

LiveUploadWorker::~LiveUploadWorker() {
    std::vector<Task> tasks;
    {
        std::lock_guard lock(mutex_);
        tasks = std::move(tasks_);
    }
    for (const auto& task : tasks) {
        task.cancel();
    }
    // Joining returns at once when this runs on one of those tasks (or a child of one): the last
    // reference can be dropped there, and the task then finds the worker gone at its next step.
    for (const auto& task : tasks) {
        task.join();
    }
}

void LiveUploadWorker::configure(const std::string& recordingId,
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

void LiveUploadWorker::enqueue(const Bytes& data, int sequence, bool isFinal, double /*sampleRate*/,
                               int /*channels*/) {
    std::optional<std::string> recordingId;
    std::uint64_t generation = 0;
    {
        std::lock_guard lock(mutex_);
        recordingId = recordingId_;
        generation = generation_;
    }
    if (!recordingId) {
        logger_->warn("enqueue before configure — chunk " + std::to_string(sequence) + " dropped");
        return;
    }
    long long written = 0;
    try {
        written = chunkStore_->store(*recordingId, sequence, data);
    } catch (const std::exception& e) {
        {
            std::lock_guard lock(mutex_);
            if (generation == generation_) {
                failedChunksMap_[sequence] = std::string("Disk write failed: ") + e.what();
            }
        }
        {
            auto e = event(NativeUploadEventKind::failed);
            e.sequence = sequence;
            e.message = "Disk write failed";
            emit(e);
        }
        return;
    }
    auto stored = event(NativeUploadEventKind::stored);
    stored.sequence = sequence;
    stored.count = static_cast<int>(written);
    if (isFinal) {
        stored.mode = "final";
    }
    emit(stored);
    {
        std::lock_guard lock(mutex_);
        if (generation == generation_) {
            lastSequenceValue_ = std::max(lastSequenceValue_, sequence);
            if (!uploadedSequencesSet_.contains(sequence) && !pendingSet_.contains(sequence) &&
                !inFlightSequences_.contains(sequence)) {
                pendingSequences_.push_back(sequence);
                pendingSet_.insert(sequence);
            }
        }
    }
    scheduleDrain();
}

void LiveUploadWorker::scheduleDrain() {
    std::uint64_t generation = 0;
    {
        std::lock_guard lock(mutex_);
        if (draining_) {
            return;
        }
        draining_ = true;
        generation = generation_;
    }
    emit(event(NativeUploadEventKind::uploadGuardStarted));

    // The handles are taken out to drop finished tasks without calling into them under the lock.
    std::vector<Task> tasks;
    {
        std::lock_guard lock(mutex_);
        tasks = std::move(tasks_);
    }
    std::erase_if(tasks, [](const Task& t) { return t.isFinished(); });
    tasks.push_back(Task::run([weak = weak_from_this(), generation] { drainLoop(weak, generation); }));
    std::lock_guard lock(mutex_);
    tasks_.insert(tasks_.end(), tasks.begin(), tasks.end());
}

void LiveUploadWorker::drainLoop(const std::weak_ptr<LiveUploadWorker>& weak, std::uint64_t generation) {
    int maxParallel = 1;
    {
        auto self = weak.lock();
        if (!self) {
            return;
        }
        maxParallel = std::max(1, self->config_.maxParallelUploads);
    }
    auto signals = std::make_shared<ChildSignals>();
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
                    ChildSignals& s;
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
            signals->cv.wait(lock, [&] { return signals->finished > 0; });
            running -= signals->finished;
            signals->finished = 0;
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
        if (generation != self->generation_) {
            return; // configure started over; the drains of the new recording report for themselves
        }
        self->draining_ = false;
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

std::optional<LiveUploadWorker::Job> LiveUploadWorker::nextPendingSequence(std::uint64_t generation) {
    std::lock_guard lock(mutex_);
    if (generation != generation_) {
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

void LiveUploadWorker::upload(const std::weak_ptr<LiveUploadWorker>& weak, const Job& job) {
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

LiveUploadWorker::AttemptResult LiveUploadWorker::attemptUpload(const Job& job, const Bytes& data) {
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
        return {http_->send(request).statusCode, kSignedRoute};
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
                  encodePathPart(job.recordingId) + "/chunks/" + ChunkStore::filename(job.sequence);
    request.method = "POST";
    request.headers = {{"Content-Type", "audio/aac"},
                       {"x-upsert", "true"},
                       {"apikey", *anonKey},
                       {"Authorization", "Bearer " + (present(authToken) ? *authToken : *anonKey)}};
    request.body = data;
    request.timeout = config_.uploadTimeout;
    return {http_->send(request).statusCode, kFallbackRoute};
}

std::optional<std::string> LiveUploadWorker::signedURL(const Job& job, const std::string& recordingSecret) {
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
    } catch (const CancellationError&) {
        throw;
    } catch (...) {
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

void LiveUploadWorker::markUploaded(const Job& job, const AttemptResult& result, int attempt) {
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

bool LiveUploadWorker::park(const Job& job, const std::string& text) {
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

void LiveUploadWorker::forgetPoolEntry(const Job& job) {
    std::lock_guard lock(mutex_);
    if (job.generation == generation_) {
        urlPool_.erase(job.sequence);
    }
}

void LiveUploadWorker::acceptServerAcks(const std::vector<int>& sequences) {
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

void LiveUploadWorker::requeue(const std::vector<int>& sequences) {
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

void LiveUploadWorker::retryFailed() {
    std::vector<int> sequences;
    {
        std::lock_guard lock(mutex_);
        for (const auto& [sequence, text] : failedChunksMap_) {
            sequences.push_back(sequence);
        }
    }
    requeue(sequences);
}

void LiveUploadWorker::updateAuthToken(const std::optional<std::string>& token) {
    std::lock_guard lock(mutex_);
    authToken_ = token;
}

std::vector<int> LiveUploadWorker::uploadedSequences() const {
    std::lock_guard lock(mutex_);
    return {uploadedSequencesSet_.begin(), uploadedSequencesSet_.end()};
}

std::vector<int> LiveUploadWorker::pendingSequences() const {
    std::lock_guard lock(mutex_);
    std::set<int> all = pendingSet_;
    all.insert(inFlightSequences_.begin(), inFlightSequences_.end());
    return {all.begin(), all.end()};
}

std::vector<FailedChunk> LiveUploadWorker::failedChunks() const {
    std::lock_guard lock(mutex_);
    std::vector<FailedChunk> out;
    for (const auto& [sequence, text] : failedChunksMap_) {
        out.push_back({sequence, text.empty() ? "unknown" : text});
    }
    return out;
}

void LiveUploadWorker::setOnEvent(EventHandler handler) {
    std::lock_guard lock(mutex_);
    onEvent_ = std::move(handler);
}

int LiveUploadWorker::lastSequence() const {
    std::lock_guard lock(mutex_);
    return lastSequenceValue_;
}

bool LiveUploadWorker::isIdle() const {
    std::lock_guard lock(mutex_);
    return pendingSet_.empty() && inFlightSequences_.empty();
}

bool LiveUploadWorker::signedUrlEnabled() const {
    std::lock_guard lock(mutex_);
    return present(recordingSecret_);
}

bool LiveUploadWorker::jwtFallbackEnabled() const {
    std::lock_guard lock(mutex_);
    return present(anonKey_);
}

void LiveUploadWorker::emit(const NativeUploadEvent& event) {
    EventHandler handler;
    {
        std::lock_guard lock(mutex_);
        handler = onEvent_;
    }
    if (handler) {
        handler(event);
    }
}

} // namespace kavelo
