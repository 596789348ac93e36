#include "core/recording/RecordingCoordinator.h"

#include "core/backend/InitRecordingError.h"

#include <algorithm>

namespace kavelo {

namespace {

const char* const kInitFallback = "Opname kon niet worden gestart.";
const char* const kNativeStartFailed = "De opname kon niet native worden gestart.";

} // namespace

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
      logger_(std::move(services.logger)), hooks_(std::move(hooks)), timings_(timings),
      share_(std::string()) {}

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
    return warnings_;
}

ProcessingLine RecordingCoordinator::processingLine() const {
    std::lock_guard lock(mutex_);
    return processingLine_;
}

std::optional<StartBlocker> RecordingCoordinator::startBlocker() const {
    std::lock_guard lock(mutex_);
    return blocker_;
}

std::optional<SuccessSummary> RecordingCoordinator::successSummary() const {
    std::lock_guard lock(mutex_);
    return success_;
}

std::vector<int> RecordingCoordinator::missingChunks() const {
    std::lock_guard lock(mutex_);
    return missingChunks_;
}

std::optional<std::string> RecordingCoordinator::currentRecordingId() const {
    std::lock_guard lock(mutex_);
    return recordingId_;
}

bool RecordingCoordinator::isMappingInFlight() const {
    std::lock_guard lock(mutex_);
    return mappingInFlight_;
}

std::string RecordingCoordinator::outputLanguage() const {
    std::lock_guard lock(mutex_);
    return context_ ? context_->outputLanguage : "nl";
}

double RecordingCoordinator::pausedMsLocked(TimePoint now) const {
    return totalPausedMs_ + (pauseStartedAt_ ? millisecondsBetween(*pauseStartedAt_, now) : 0.0);
}

int RecordingCoordinator::elapsedActiveSecondsLocked(TimePoint now) const {
    if (!startedAt_) {
        return 0;
    }
    double seconds = secondsBetween(*startedAt_, now) - pausedMsLocked(now) / 1000.0;
    return seconds <= 0 ? 0 : static_cast<int>(seconds);
}

int RecordingCoordinator::elapsedActiveSeconds() const {
    auto now = clock_->now();
    std::lock_guard lock(mutex_);
    return elapsedActiveSecondsLocked(now);
}

std::optional<RecordingCoordinator::TimerAnchor> RecordingCoordinator::timerAnchor() const {
    std::lock_guard lock(mutex_);
    if (!startedAt_) {
        return std::nullopt;
    }
    return TimerAnchor{addSeconds(*startedAt_, totalPausedMs_ / 1000.0), pauseStartedAt_};
}

SpeakerListModel RecordingCoordinator::speakerList() const {
    std::lock_guard lock(mutex_);
    return speakerList_;
}

ShareComposer RecordingCoordinator::share() const {
    std::lock_guard lock(mutex_);
    return share_;
}

std::optional<std::string> RecordingCoordinator::selectedTemplateId() const {
    std::lock_guard lock(mutex_);
    return selectedTemplateId_;
}

void RecordingCoordinator::setSelectedTemplateId(std::optional<std::string> templateId) {
    std::lock_guard lock(mutex_);
    selectedTemplateId_ = std::move(templateId);
}

std::vector<int> RecordingCoordinator::receivedSequences() const {
    std::lock_guard lock(mutex_);
    return {receivedSequences_.begin(), receivedSequences_.end()};
}

std::vector<int> RecordingCoordinator::uploadedSequences() const {
    std::lock_guard lock(mutex_);
    return {localUploaded_.begin(), localUploaded_.end()};
}

std::optional<int> RecordingCoordinator::lastSequence() const {
    std::lock_guard lock(mutex_);
    return lastSequence_;
}

// Tasks

void RecordingCoordinator::startTask(Task RecordingCoordinator::*field,
                                     std::function<void(std::weak_ptr<RecordingCoordinator>)> body) {
    std::weak_ptr<RecordingCoordinator> weak = weak_from_this();
    Task task = Task::run([weak, body = std::move(body)] { body(weak); });
    Task previous;
    {
        std::lock_guard lock(mutex_);
        previous = std::exchange(this->*field, task);
        std::erase_if(startedTasks_, [](const Task& t) { return t.isFinished(); });
        startedTasks_.push_back(task);
    }
    previous.cancel();
}

void RecordingCoordinator::cancelTask(Task RecordingCoordinator::*field) {
    Task task;
    {
        std::lock_guard lock(mutex_);
        task = std::exchange(this->*field, Task());
    }
    task.cancel();
}

void RecordingCoordinator::cancelAllTasks() {
    std::vector<Task> tasks;
    {
        std::lock_guard lock(mutex_);
        for (auto field : {&RecordingCoordinator::earlyMappingTask_, &RecordingCoordinator::heartbeatTask_,
                           &RecordingCoordinator::maxPauseTask_, &RecordingCoordinator::noChunkWatchdogTask_,
                           &RecordingCoordinator::processingTask_, &RecordingCoordinator::preverifyTask_}) {
            tasks.push_back(std::exchange(this->*field, Task()));
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

// Start

void RecordingCoordinator::startRecording(const PreflightContext& context) {
    if (!fire(RecordingEvent::startRequested())) {
        return;
    }
    {
        std::lock_guard lock(mutex_);
        context_ = context;
        blocker_.reset();
        warnings_ = {};
        success_.reset();
        missingChunks_.clear();
        receivedSequences_.clear();
        localUploaded_.clear();
        mappingOutcomeNames_.clear();
        lastSequence_.reset();
        processingOpened_ = false;
        speakerList_ = {};
        ++speakerListVersion_;
        share_ = ShareComposer(context.user.email);
        ++shareVersion_;
        selectedTemplateId_.reset();
        startedAt_.reset();
        pauseStartedAt_.reset();
        totalPausedMs_ = 0;
    }
    mapping_->resetForNewRecording();
    finalizeService_->reset();
    diagnostics_->startSession(std::nullopt);

    // The three checks run at once; their answers are taken in a fixed order. A future that is not read
    // is still awaited when it goes out of scope.
    auto updateCheck = Task::child([hook = hooks_.isUpdateRequired] {
        try {
            return hook ? hook() : false;
        } catch (...) {
            return false;
        }
    });
    auto micCheck = Task::child([recorder = recorder_] {
        try {
            return recorder->checkMicrophonePermission();
        } catch (...) {
            return PermissionState::notDetermined;
        }
    });
    auto microphones = Task::child([recorder = recorder_] {
        try {
            return recorder->listMicrophones();
        } catch (...) {
            return std::vector<AudioDevice>{};
        }
    });

    auto block = [this](StartBlocker blocker, RecordingEvent event) {
        setBlocker(std::move(blocker));
        notifyTick();
        fire(event);
    };

    if (updateCheck.get()) {
        return block(StartBlocker::updateRequired(), RecordingEvent::updateRequiredDetected());
    }
    auto micPermission = micCheck.get();
    if (micPermission != PermissionState::granted) {
        try {
            micPermission = recorder_->requestMicrophonePermission();
        } catch (...) {
            micPermission = PermissionState::denied;
        }
    }
    if (micPermission != PermissionState::granted) {
        return block(StartBlocker::microphonePermission(), RecordingEvent::preflightFailedMicPermission());
    }
    if (context.systemAudioMode != SystemAudioMode::off) {
        PermissionState systemPermission = PermissionState::denied;
        try {
            systemPermission = recorder_->checkSystemAudioPermission();
        } catch (...) {
        }
        if (systemPermission != PermissionState::granted) {
            return block(StartBlocker::systemAudioPermission(),
                         RecordingEvent::preflightFailedSystemAudioPermission());
        }
    }
    if (microphones.get().empty()) {
        return block(StartBlocker::audioDeviceMissing(), RecordingEvent::preflightFailedDeviceMissing());
    }
    auto freeBytes = chunkStore_->availableDiskBytes();
    if (freeBytes && *freeBytes < timings_.minDiskBytes) {
        return block(StartBlocker::insufficientDiskSpace(), RecordingEvent::preflightFailedDiskSpace());
    }
    if (!fire(RecordingEvent::preflightPassed())) {
        return;
    }

    InitRecordingRequest request;
    request.userId = context.user.id;
    request.userEmail = context.user.email;
    request.userName = context.userName;
    request.meetingName = context.meetingName;
    request.source = config_.platform;
    request.appVersion = config_.appVersion;
    request.language = outputLanguage();
    request.organizationId = context.organizationId;
    request.audioMode = std::string(toRaw(context.systemAudioMode));

    InitRecordingResponse response;
    try {
        // A deduplicated answer is treated like a new recording.
        response = api_->initRecording(request);
    } catch (const InitRecordingError& e) {
        if (e.kind() == InitRecordingError::Kind::network) {
            return block(StartBlocker::offline(), RecordingEvent::initFailed(true));
        }
        auto text = e.message() && !e.message()->empty() ? *e.message() : std::string(kInitFallback);
        return block(StartBlocker::backend(text), RecordingEvent::initFailed(true));
    } catch (...) {
        return block(StartBlocker::backend(kInitFallback), RecordingEvent::initFailed(true));
    }

    {
        std::lock_guard lock(mutex_);
        recordingId_ = response.recordingId;
        recordingSecret_ = response.recordingSecret;
    }
    diagnostics_->setRecordingId(response.recordingId);
    fire(RecordingEvent::initSucceeded());

    std::optional<std::string> token;
    if (hooks_.currentAccessToken) {
        token = hooks_.currentAccessToken();
    }
    StartRecordingInput input;
    input.recordingId = response.recordingId;
    input.recordingSecret = response.recordingSecret;
    input.supabaseUrl = config_.supabaseUrl;
    input.anonKey = config_.anonKey;
    input.accessToken = token;
    input.microphoneDeviceId = context.microphoneDeviceId;
    input.systemAudioMode = context.systemAudioMode;
    input.systemAudioTargetId = context.systemAudioTargetId;
    input.outputDeviceId = context.outputDeviceId;
    try {
        uploader_->configure(response.recordingId, response.recordingSecret, config_.supabaseUrl,
                             config_.anonKey, token);
        recorder_->start(input);
    } catch (const std::exception& e) {
        // The backend now holds a recording without audio; nothing on this machine refers to it.
        std::string text = e.what();
        log(LogLevel::error, "native start failed: " + text);
        DiagnosticsCollector::PayloadInput diagnostics;
        diagnostics.uploadedCount = 0;
        diagnostics.fatalErrorCode = "NATIVE_START_FAILED";
        diagnostics.fatalErrorMessage = text;
        sendDiagnostics(response.recordingId, context.user.id, diagnostics);
        return block(StartBlocker::backend(kNativeStartFailed), RecordingEvent::nativeStartFailed());
    }

    auto startedAt = clock_->now();
    {
        std::lock_guard lock(mutex_);
        startedAt_ = startedAt;
        totalPausedMs_ = 0;
        pauseStartedAt_.reset();
    }
    // Written only now: a crash before the native start leaves nothing to recover.
    RecordingManifest manifest;
    manifest.recordingId = response.recordingId;
    manifest.recordingSecret = response.recordingSecret;
    manifest.stage = RecordingManifest::Stage::active;
    manifest.startedAt = startedAt;
    manifest.meetingName = context.meetingName;
    manifest.userId = context.user.id;
    saveManifest(manifest);

    fire(RecordingEvent::nativeStartSucceeded());
    startNoChunkWatchdog();
    log(LogLevel::info, "recording started mic=" + context.microphoneDeviceId +
                            " systemAudio=" + std::string(toRaw(context.systemAudioMode)));
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

// Stop request

void RecordingCoordinator::stopTapped() {
    if (!fire(RecordingEvent::stopTapped())) {
        return;
    }
    // For a long recording the backend needs time for the names; give it the time the dialog is open.
    if (elapsedActiveSeconds() >= timings_.longRecordingThreshold) {
        startMappingTask(longMappingPoll());
    }
}

void RecordingCoordinator::stopCancelled() {
    mapping_->abort();
    fire(RecordingEvent::stopCancelled());
}

void RecordingCoordinator::stopConfirmed() {
    if (fire(RecordingEvent::stopConfirmed())) {
        performStop();
    }
}

void RecordingCoordinator::performStop() {
    mapping_->resetForNewStopFlow();
    cancelTask(&RecordingCoordinator::noChunkWatchdogTask_);

    int last = 0;
    try {
        last = recorder_->stop();
    } catch (const std::exception& e) {
        log(LogLevel::error, std::string("native stop failed: ") + e.what());
        fire(RecordingEvent::fatalError());
        return;
    }

    auto now = clock_->now();
    std::optional<std::string> recordingId;
    RecordingManifest manifest;
    {
        std::lock_guard lock(mutex_);
        lastSequence_ = last;
        recordingId = recordingId_;
        manifest.recordingSecret = recordingSecret_;
        manifest.startedAt = startedAt_.value_or(now);
        manifest.totalPausedMs = totalPausedMs_;
        manifest.elapsedSeconds = elapsedActiveSecondsLocked(now);
        if (context_) {
            manifest.meetingName = context_->meetingName;
            manifest.userId = context_->user.id;
        }
    }
    log(LogLevel::info, "stopped lastSequence=" + std::to_string(last));
    // Audio the capture could not hand over in time is a gap in the recording: the diagnostics say so.
    if (const auto dropped = recorder_->runtimeState().droppedCycles; dropped > 0) {
        log(LogLevel::warn, "capture lost " + std::to_string(dropped) + " audio cycles");
    }
    if (recordingId) {
        // From here a crash leads to the review, not back to the capture.
        manifest.recordingId = *recordingId;
        manifest.stage = RecordingManifest::Stage::stopped;
        manifest.lastSequence = last;
        saveManifest(manifest);
    }
    fire(RecordingEvent::nativeStopped(last));
    startBackgroundReconciliation();
    runProcessingSequence();
}

} // namespace kavelo
