// The live session of RecordingCoordinator: what the recorder and the upload worker report, the first-chunk
// watchdog, the user's pause with its heartbeat and upper limit, and device switches.
#include "core/recording/RecordingCoordinator.h"

#include "core/support/RecordingLimits.h"

namespace kavelo {

// The live session

void RecordingCoordinator::ingest(const AudioChunkEvent& chunk) {
    handleChunk(chunk);
}

void RecordingCoordinator::ingest(const RecorderStateChange& stateChange) {
    handleRecorderStateChange(stateChange);
}

void RecordingCoordinator::ingest(const AudioErrorEvent& audioError) {
    handleAudioError(audioError);
}

void RecordingCoordinator::ingest(const NativeUploadEvent& uploadEvent) {
    handleUploadEvent(uploadEvent);
}

void RecordingCoordinator::handleChunk(const AudioChunkEvent& event) {
    // Each chunk is a moment to look at the disk while the recording runs, long before it fills.
    const auto freeBytes = chunkStore_->availableDiskBytes();
    const bool low = freeBytes && *freeBytes < timings_.lowDiskBytes;
    bool wasSilent = false;
    bool becameLow = false;
    {
        std::lock_guard lock(mutex_);
        live_.receivedSequences.insert(event.sequence);
        wasSilent = std::exchange(live_.warnings.noAudio, false);
        becameLow = low && !std::exchange(live_.warnings.diskSpaceLow, low);
        live_.warnings.diskSpaceLow = low;
    }
    if (becameLow) {
        log(LogLevel::warn,
            "free disk space low while recording: " + std::to_string(*freeBytes >> 20) + " MiB");
    }
    diagnostics_->chunkReceived();
    if (wasSilent) {
        fire(RecordingEvent::audioReturned());
    }
    cancelTask(live_.noChunkWatchdogTask);
    notifyTick();
    if (!event.isFinal && event.sequence == RecordingLimits::maxChunks) {
        stopAtChunkLimit(event.sequence);
    }
}

void RecordingCoordinator::stopAtChunkLimit(int sequence) {
    // Past the limit every number would be refused by the store, the server and recovery alike, so the
    // audio after it would be lost; the recording ends here as if the user had stopped it.
    log(LogLevel::warn, "chunk limit reached at chunk " + std::to_string(sequence) + " — recording stopped");
    // The chunk came on the recorder's own thread, which the recorder's stop waits for.
    startTask(live_.autoStopTask, [](std::weak_ptr<RecordingCoordinator> weak) {
        auto self = weak.lock();
        if (!self) {
            return;
        }
        const auto phase = self->phase();
        if (phase == RecordingPhase::pausedUser || phase == RecordingPhase::interruptedSystem ||
            phase == RecordingPhase::resumeFailed) {
            self->stopFromPause();
            return;
        }
        if (phase != RecordingPhase::stopConfirm) {
            self->stopTapped();
        }
        self->stopConfirmed();
    });
}

void RecordingCoordinator::handleRecorderStateChange(const RecorderStateChange& change) {
    log(LogLevel::info,
        "recorder state=" + std::string(toRaw(change.state)) + " reason=" + change.reason.value_or("-"));
    switch (change.state) {
    case RecorderState::interrupted:
        // The user's own pause already holds the capture; an interruption adds nothing to it.
        if (phase() != RecordingPhase::pausedUser) {
            fire(RecordingEvent::systemInterrupted());
        }
        break;
    case RecorderState::resumeFailed:
        fire(RecordingEvent::resumeFailedTerminal());
        break;
    case RecorderState::routeChanged: {
        std::lock_guard lock(mutex_);
        live_.warnings.routeChange = change.friendlyName.value_or(change.inputName.value_or(""));
    }
        fire(RecordingEvent::routeChanged());
        fire(RecordingEvent::routeSettled());
        break;
    case RecorderState::networkOnline: {
        std::lock_guard lock(mutex_);
        live_.warnings.offlineBuffering = false;
    }
        fire(RecordingEvent::backOnline());
        uploader_->scheduleDrain();
        break;
    case RecorderState::networkOffline: {
        std::lock_guard lock(mutex_);
        live_.warnings.offlineBuffering = true;
    }
        fire(RecordingEvent::wentOffline());
        break;
    case RecorderState::error: {
        std::lock_guard lock(mutex_);
        live_.warnings.deviceWarning = change.errorCode.value_or(change.reason.value_or("Audiofout"));
    }
        fire(RecordingEvent::deviceWarning());
        break;
    case RecorderState::recording:
    case RecorderState::stopping:
    case RecorderState::stopped:
    case RecorderState::paused:
    case RecorderState::restarting:
    case RecorderState::resuming:
    case RecorderState::thermalWarning:
    case RecorderState::lowPowerMode:
        // Only the user's resume leaves an interruption, so a "recording" report changes nothing here.
        break;
    }
    notifyTick();
}

void RecordingCoordinator::handleAudioError(const AudioErrorEvent& event) {
    log(LogLevel::error, "audio error " + event.code + ": " + event.message);
    if (event.code == "SILENT_AUDIO_DETECTED") {
        {
            std::lock_guard lock(mutex_);
            live_.warnings.noAudio = true;
        }
        fire(RecordingEvent::noAudioWarning());
    } else if (event.code == "ENGINE_STALLED_PERMANENT") {
        fire(RecordingEvent::fatalError());
    } else if (event.code == "NO_MICROPHONE_INPUT") {
        {
            std::lock_guard lock(mutex_);
            live_.warnings.deviceWarning = "Geen microfooninvoer — kies een andere microfoon.";
        }
        fire(RecordingEvent::deviceWarning());
    } else if (event.code == "SYSTEM_AUDIO_TAP_UNAVAILABLE") {
        // The recording goes on with the microphone alone.
        std::lock_guard lock(mutex_);
        live_.warnings.systemAudioFallback = true;
    } else {
        {
            std::lock_guard lock(mutex_);
            live_.warnings.deviceWarning = event.message;
        }
        fire(RecordingEvent::deviceWarning());
    }
    notifyTick();
}

void RecordingCoordinator::handleUploadEvent(const NativeUploadEvent& event) {
    // Uploads change no phase: going offline is learned from the recorder, not from failed uploads.
    switch (event.kind) {
    case NativeUploadEventKind::uploaded:
        if (event.sequence) {
            {
                std::lock_guard lock(mutex_);
                live_.localUploaded.insert(*event.sequence);
            }
            diagnostics_->chunkUploaded();
        }
        break;
    case NativeUploadEventKind::failed:
        if (event.sequence) {
            log(LogLevel::warn, "chunk " + std::to_string(*event.sequence) +
                                    " upload failed: " + event.message.value_or("-"));
        }
        break;
    case NativeUploadEventKind::storeHeld: {
        std::lock_guard lock(mutex_);
        live_.warnings.diskFull = true;
    } break;
    case NativeUploadEventKind::storeResumed: {
        std::lock_guard lock(mutex_);
        live_.warnings.diskFull = false;
    } break;
    case NativeUploadEventKind::urlFetchFailed:
        log(LogLevel::warn, "signed url fetch failed status=" +
                                (event.statusCode ? std::to_string(*event.statusCode) : std::string("-")));
        break;
    default:
        break;
    }
    notifyTick();
}

void RecordingCoordinator::startNoChunkWatchdog() {
    startTask(live_.noChunkWatchdogTask, [clock = clock_, seconds = timings_.noFirstChunkWarning](
                                             std::weak_ptr<RecordingCoordinator> weak) {
        if (!sleepAndContinue(*clock, seconds)) {
            return;
        }
        auto self = weak.lock();
        if (!self) {
            return;
        }
        // Audio encoded without a chunk yet is a quiet meeting, not a dead pipeline: silence fills a
        // chunk only every few minutes.
        const bool audioArrived = self->recorder_->runtimeState().totalBytesEncoded > 0;
        bool silent = false;
        {
            std::lock_guard lock(self->mutex_);
            silent =
                isCapturing(self->machine_.phase()) && self->live_.receivedSequences.empty() && !audioArrived;
            if (silent) {
                self->live_.warnings.noAudio = true;
            }
        }
        if (silent) {
            self->fire(RecordingEvent::noAudioWarning());
            self->log(LogLevel::warn,
                      "no first chunk after " + std::to_string(static_cast<long long>(seconds)) + "s");
            self->notifyTick();
        }
    });
}

void RecordingCoordinator::pauseRecording() {
    auto now = clock_->now();
    RecordingManifest manifest;
    {
        std::lock_guard lock(mutex_);
        if (!recordingId_) {
            return;
        }
        manifest.recordingId = *recordingId_;
        manifest.recordingSecret = recordingSecret_;
        manifest.startedAt = live_.startedAt.value_or(now);
        manifest.totalPausedMs = live_.totalPausedMs;
        if (context_) {
            manifest.meetingName = context_->meetingName;
            manifest.userId = context_->user.id;
        }
    }
    // Saved before the recorder is told, so that a crash during the pause call recovers as a pause.
    manifest.stage = RecordingManifest::Stage::active;
    manifest.isPaused = true;
    manifest.pausedAt = now;
    saveManifest(manifest);
    try {
        recorder_->pause();
    } catch (const std::exception& e) {
        manifest.isPaused = false;
        manifest.pausedAt.reset();
        saveManifest(manifest);
        log(LogLevel::error, std::string("native pause failed: ") + e.what());
        notifyTick();
        return;
    }
    {
        std::lock_guard lock(mutex_);
        live_.pauseStartedAt = clock_->now();
    }
    cancelTask(live_.noChunkWatchdogTask);
    fire(RecordingEvent::userPaused());
    log(LogLevel::info, "user paused");
    sendPauseHeartbeat();
    startHeartbeatLoop();
    startMaxPauseTimer();
    notifyTick();
}

void RecordingCoordinator::sendPauseHeartbeat() {
    std::string recordingId;
    std::string userId;
    double pausedMs = 0;
    {
        auto now = clock_->now();
        std::lock_guard lock(mutex_);
        if (!recordingId_ || !context_) {
            return;
        }
        recordingId = *recordingId_;
        userId = context_->user.id;
        pausedMs = pausedMsLocked(now);
    }
    DiagnosticsCollector::PayloadInput input;
    input.failedChunks = sequencesOf(uploader_->failedChunks());
    input.uploadedCount = static_cast<int>(uploader_->uploadedSequences().size());
    input.extraIsPaused = true;
    input.totalPausedMs = pausedMs;
    sendDiagnostics(recordingId, userId, input);
}

void RecordingCoordinator::startHeartbeatLoop() {
    startTask(live_.heartbeatTask, [clock = clock_, interval = timings_.heartbeatInterval](
                                       std::weak_ptr<RecordingCoordinator> weak) {
        for (;;) {
            if (!sleepAndContinue(*clock, interval)) {
                return;
            }
            auto self = weak.lock();
            if (!self) {
                return;
            }
            auto phase = self->phase();
            if (phase != RecordingPhase::pausedUser && phase != RecordingPhase::resumeFailed) {
                return;
            }
            self->sendPauseHeartbeat();
        }
    });
}

void RecordingCoordinator::startMaxPauseTimer() {
    startTask(live_.maxPauseTask,
              [clock = clock_, maxPause = timings_.maxPause](std::weak_ptr<RecordingCoordinator> weak) {
                  if (!sleepAndContinue(*clock, maxPause)) {
                      return;
                  }
                  auto self = weak.lock();
                  if (!self || self->phase() != RecordingPhase::pausedUser) {
                      return;
                  }
                  self->log(LogLevel::warn, "max pause exceeded — auto safe stop");
                  // The stop cancels this timer's own task; it runs on a task of its own so that the
                  // recorder's stop is not made to wake up cancelled.
                  self->startTask(self->live_.autoStopTask, [](std::weak_ptr<RecordingCoordinator> w) {
                      if (auto coordinator = w.lock()) {
                          coordinator->stopFromPause();
                      }
                  });
              });
}

void RecordingCoordinator::resumeRecording() {
    if (!fire(RecordingEvent::userResumedRequested())) {
        return;
    }
    cancelTask(live_.heartbeatTask);
    cancelTask(live_.maxPauseTask);
    try {
        recorder_->resume();
    } catch (const std::exception& e) {
        // The failed attempt counts as pause: pauseStartedAt keeps running. Only the user moves on.
        log(LogLevel::error, std::string("resume failed: ") + e.what());
        fire(RecordingEvent::resumeFailedTerminal());
        startHeartbeatLoop();
        if (auto manifest = recoveryStore_->load()) {
            manifest->isPaused = true;
            saveManifest(*manifest);
        }
        notifyTick();
        return;
    }
    double total = 0;
    {
        auto now = clock_->now();
        std::lock_guard lock(mutex_);
        if (live_.pauseStartedAt) {
            live_.totalPausedMs += millisecondsBetween(*live_.pauseStartedAt, now);
            live_.pauseStartedAt.reset();
        }
        total = live_.totalPausedMs;
    }
    if (auto manifest = recoveryStore_->load()) {
        manifest->isPaused = false;
        manifest->pausedAt.reset();
        manifest->totalPausedMs = total;
        saveManifest(*manifest);
    }
    fire(RecordingEvent::resumeSucceeded());
    startNoChunkWatchdog();
    log(LogLevel::info, "resumed");
    notifyTick();
}

void RecordingCoordinator::stopFromPause() {
    cancelTask(live_.heartbeatTask);
    cancelTask(live_.maxPauseTask);
    {
        auto now = clock_->now();
        std::lock_guard lock(mutex_);
        if (live_.pauseStartedAt) {
            live_.totalPausedMs += millisecondsBetween(*live_.pauseStartedAt, now);
            live_.pauseStartedAt.reset();
        }
    }
    if (fire(RecordingEvent::stopWhilePaused())) {
        performStop();
    }
}

// A failing switch is dropped: the recorder's own route change or audio error tells the truth.
void RecordingCoordinator::switchMicrophone(const std::string& deviceId) {
    try {
        recorder_->switchMicrophone(deviceId);
    } catch (...) {
    }
    log(LogLevel::info, "switched microphone to " + deviceId);
    notifyTick();
}

void RecordingCoordinator::switchOutput(const std::string& deviceId) {
    try {
        recorder_->switchOutputDevice(deviceId);
    } catch (...) {
    }
    log(LogLevel::info, "switched output to " + deviceId);
    notifyTick();
}

void RecordingCoordinator::switchSystemAudio(SystemAudioMode mode,
                                             const std::optional<std::string>& targetId) {
    try {
        recorder_->switchSystemAudioSource(mode, targetId);
    } catch (...) {
    }
    log(LogLevel::info, "switched system audio to " + std::string(toRaw(mode)));
    notifyTick();
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
    cancelTask(live_.noChunkWatchdogTask);

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
        live_.lastSequence = last;
        recordingId = recordingId_;
        manifest.recordingSecret = recordingSecret_;
        manifest.startedAt = live_.startedAt.value_or(now);
        manifest.totalPausedMs = live_.totalPausedMs;
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
