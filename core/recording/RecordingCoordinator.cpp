#include "core/recording/RecordingCoordinator.h"

#include <algorithm>

namespace kavelo {

// Sleeps on the clock; a failing sleep counts as waking. Answers whether the running task may go on.
bool RecordingCoordinator::sleepAndContinue(Clock& clock, double seconds) {
    try {
        clock.sleep(seconds);
    } catch (...) {
    }
    return !Task::isCurrentCancelled();
}

double RecordingCoordinator::millisecondsBetween(TimePoint from, TimePoint to) {
    return std::chrono::duration<double, std::milli>(to - from).count();
}

std::vector<int> RecordingCoordinator::sequencesOf(const std::vector<FailedChunk>& failed) {
    std::vector<int> sequences;
    sequences.reserve(failed.size());
    for (const auto& chunk : failed) {
        sequences.push_back(chunk.sequence);
    }
    return sequences;
}

// Construction and wiring

std::shared_ptr<RecordingCoordinator> RecordingCoordinator::create(Services services,
                                                                   RecordingCoordinatorHooks hooks) {
    return create(std::move(services), std::move(hooks), Timings());
}

std::shared_ptr<RecordingCoordinator>
RecordingCoordinator::create(Services services, RecordingCoordinatorHooks hooks, Timings timings) {
    std::shared_ptr<RecordingCoordinator> coordinator(
        new RecordingCoordinator(std::move(services), std::move(hooks), timings));
    coordinator->wireEvents();
    return coordinator;
}

RecordingCoordinator::RecordingCoordinator(Services services, RecordingCoordinatorHooks hooks,
                                           Timings timings)
    : config_(std::move(services.config)), api_(std::move(services.api)),
      recorder_(std::move(services.recorder)), uploader_(std::move(services.uploader)),
      chunkStore_(std::move(services.chunkStore)), recoveryStore_(std::move(services.recoveryStore)),
      mapping_(std::move(services.mapping)), finalizeService_(std::move(services.finalizeService)),
      diagnostics_(std::move(services.diagnostics)), clock_(std::move(services.clock)),
      logger_(std::move(services.logger)), hooks_(std::move(hooks)), timings_(timings) {}

RecordingCoordinator::~RecordingCoordinator() {
    std::vector<Task> tasks;
    {
        std::lock_guard lock(mutex_);
        tasks = startedTasks_;
    }
    for (const auto& task : tasks) {
        task.cancel();
    }
    // When the last reference went away on one of our own tasks, joining that task returns at once.
    for (const auto& task : tasks) {
        task.join();
    }
}

void RecordingCoordinator::wireEvents() {
    std::weak_ptr<RecordingCoordinator> weak = weak_from_this();
    RecorderEventHandlers handlers;
    handlers.onAudioChunk = [weak](const AudioChunkEvent& e) {
        if (auto self = weak.lock()) {
            self->ingest(e);
        }
    };
    handlers.onStateChange = [weak](const RecorderStateChange& e) {
        if (auto self = weak.lock()) {
            self->ingest(e);
        }
    };
    handlers.onAudioError = [weak](const AudioErrorEvent& e) {
        if (auto self = weak.lock()) {
            self->ingest(e);
        }
    };
    handlers.onNativeUpload = [weak](const NativeUploadEvent& e) {
        if (auto self = weak.lock()) {
            self->ingest(e);
        }
    };
    recorder_->setEventHandlers(std::move(handlers));
    uploader_->setOnEvent([weak](const NativeUploadEvent& e) {
        if (auto self = weak.lock()) {
            self->ingest(e);
        }
    });
}

// Observers, events, state

void RecordingCoordinator::onPhaseChange(PhaseObserver observer) {
    std::lock_guard lock(mutex_);
    phaseObservers_.push_back(std::move(observer));
}

void RecordingCoordinator::onTick(TickObserver observer) {
    std::lock_guard lock(mutex_);
    tickObservers_.push_back(std::move(observer));
}

std::optional<RecordingPhase> RecordingCoordinator::fire(const RecordingEvent& event) {
    std::optional<RecordingPhase> next;
    std::vector<PhaseObserver> observers;
    {
        std::lock_guard lock(mutex_);
        next = machine_.apply(event);
        if (next) {
            observers = phaseObservers_;
        }
    }
    if (next) {
        for (const auto& observer : observers) {
            observer(*next);
        }
    }
    return next;
}

void RecordingCoordinator::notifyTick() {
    std::vector<TickObserver> observers;
    {
        std::lock_guard lock(mutex_);
        observers = tickObservers_;
    }
    for (const auto& observer : observers) {
        observer();
    }
}

void RecordingCoordinator::log(LogLevel level, const std::string& message) {
    diagnostics_->note(level, message);
}

void RecordingCoordinator::setBlocker(StartBlocker blocker) {
    std::lock_guard lock(mutex_);
    blocker_ = std::move(blocker);
}

RecordingPhase RecordingCoordinator::phase() const {
    std::lock_guard lock(mutex_);
    return machine_.phase();
}

RecordingWarnings RecordingCoordinator::warnings() const {
    std::lock_guard lock(mutex_);
    return live_.warnings;
}

ProcessingLine RecordingCoordinator::processingLine() const {
    std::lock_guard lock(mutex_);
    return review_.processingLine;
}

std::optional<StartBlocker> RecordingCoordinator::startBlocker() const {
    std::lock_guard lock(mutex_);
    return blocker_;
}

std::optional<SuccessSummary> RecordingCoordinator::successSummary() const {
    std::lock_guard lock(mutex_);
    return finalize_.success;
}

std::vector<int> RecordingCoordinator::missingChunks() const {
    std::lock_guard lock(mutex_);
    return finalize_.missingChunks;
}

std::optional<std::string> RecordingCoordinator::currentRecordingId() const {
    std::lock_guard lock(mutex_);
    return recordingId_;
}

bool RecordingCoordinator::isMappingInFlight() const {
    std::lock_guard lock(mutex_);
    return review_.mappingInFlight;
}

std::string RecordingCoordinator::outputLanguage() const {
    std::lock_guard lock(mutex_);
    return context_ ? context_->outputLanguage : "nl";
}

double RecordingCoordinator::pausedMsLocked(TimePoint now) const {
    return live_.totalPausedMs +
           (live_.pauseStartedAt ? millisecondsBetween(*live_.pauseStartedAt, now) : 0.0);
}

int RecordingCoordinator::elapsedActiveSecondsLocked(TimePoint now) const {
    if (!live_.startedAt) {
        return 0;
    }
    double seconds = secondsBetween(*live_.startedAt, now) - pausedMsLocked(now) / 1000.0;
    return seconds <= 0 ? 0 : static_cast<int>(seconds);
}

int RecordingCoordinator::elapsedActiveSeconds() const {
    auto now = clock_->now();
    std::lock_guard lock(mutex_);
    return elapsedActiveSecondsLocked(now);
}

std::optional<RecordingCoordinator::TimerAnchor> RecordingCoordinator::timerAnchor() const {
    std::lock_guard lock(mutex_);
    if (!live_.startedAt) {
        return std::nullopt;
    }
    return TimerAnchor{addSeconds(*live_.startedAt, live_.totalPausedMs / 1000.0), live_.pauseStartedAt};
}

SpeakerListModel RecordingCoordinator::speakerList() const {
    std::lock_guard lock(mutex_);
    return review_.speakerList;
}

ShareComposer RecordingCoordinator::share() const {
    std::lock_guard lock(mutex_);
    return review_.share;
}

std::optional<std::string> RecordingCoordinator::selectedTemplateId() const {
    std::lock_guard lock(mutex_);
    return review_.selectedTemplateId;
}

void RecordingCoordinator::setSelectedTemplateId(std::optional<std::string> templateId) {
    std::lock_guard lock(mutex_);
    review_.selectedTemplateId = std::move(templateId);
}

std::vector<int> RecordingCoordinator::receivedSequences() const {
    std::lock_guard lock(mutex_);
    return {live_.receivedSequences.begin(), live_.receivedSequences.end()};
}

std::vector<int> RecordingCoordinator::uploadedSequences() const {
    std::lock_guard lock(mutex_);
    return {live_.localUploaded.begin(), live_.localUploaded.end()};
}

std::optional<int> RecordingCoordinator::lastSequence() const {
    std::lock_guard lock(mutex_);
    return live_.lastSequence;
}

// Tasks

void RecordingCoordinator::startTask(Task& slot,
                                     std::function<void(std::weak_ptr<RecordingCoordinator>)> body) {
    std::weak_ptr<RecordingCoordinator> weak = weak_from_this();
    Task task = Task::run([weak, body = std::move(body)] { body(weak); });
    Task previous;
    {
        std::lock_guard lock(mutex_);
        previous = std::exchange(slot, task);
        std::erase_if(startedTasks_, [](const Task& t) { return t.isFinished(); });
        startedTasks_.push_back(task);
    }
    previous.cancel();
}

void RecordingCoordinator::cancelTask(Task& slot) {
    Task task;
    {
        std::lock_guard lock(mutex_);
        task = std::exchange(slot, Task());
    }
    task.cancel();
}

void RecordingCoordinator::cancelAllTasks() {
    std::vector<Task> tasks;
    {
        std::lock_guard lock(mutex_);
        for (Task* slot : {&live_.noChunkWatchdogTask, &live_.heartbeatTask, &live_.maxPauseTask,
                           &review_.earlyMappingTask, &review_.processingTask, &review_.preverifyTask}) {
            tasks.push_back(std::exchange(*slot, Task()));
        }
    }
    for (const auto& task : tasks) {
        task.cancel();
    }
    mapping_->abort();
    finalizeService_->abort();
}

// Session

void RecordingCoordinator::sessionDidSignIn() {
    fire(RecordingEvent::signedIn());
}

void RecordingCoordinator::sessionDidSignOut() {
    cancelAllTasks();
    fire(RecordingEvent::signedOut());
}

void RecordingCoordinator::updateOutputLanguage(const std::string& language) {
    std::lock_guard lock(mutex_);
    if (context_) {
        context_->outputLanguage = language;
    }
}

void RecordingCoordinator::saveManifest(const RecordingManifest& manifest) {
    try {
        recoveryStore_->save(manifest);
    } catch (const std::exception& e) {
        log(LogLevel::error, std::string("recording manifest not saved: ") + e.what() +
                                 " — after a crash this recording would come back as it was last saved");
    }
}

void RecordingCoordinator::clearManifest() {
    try {
        recoveryStore_->clear();
    } catch (const std::exception& e) {
        log(LogLevel::error, std::string("recording manifest not removed: ") + e.what());
    }
}

void RecordingCoordinator::sendDiagnostics(const std::string& recordingId, const std::string& userId,
                                           const DiagnosticsCollector::PayloadInput& input) {
    auto payload = diagnostics_->payload(input);
    try {
        api_->diagnosticSync(recordingId, userId, payload);
    } catch (...) {
        // Diagnostics never fail a flow.
    }
}

} // namespace kavelo
