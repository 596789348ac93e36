// The start of a recording in RecordingCoordinator: from the start tap through the backend's new recording,
// the recorder's start and the first manifest, to the live session, or to a start blocker.
#include "core/recording/RecordingCoordinator.h"

#include "core/backend/InitRecordingError.h"

namespace kavelo {

namespace {

const char* const kInitFallback = "Opname kon niet worden gestart.";
const char* const kNativeStartFailed = "De opname kon niet native worden gestart.";

} // namespace

void RecordingCoordinator::startRecording(const PreflightContext& context) {
    if (!fire(RecordingEvent::startRequested())) {
        return;
    }
    {
        std::lock_guard lock(mutex_);
        context_ = context;
        blocker_.reset();
        live_.warnings = {};
        finalize_.success.reset();
        finalize_.missingChunks.clear();
        live_.receivedSequences.clear();
        live_.localUploaded.clear();
        review_.mappingOutcomeNames.clear();
        live_.lastSequence.reset();
        review_.processingOpened = false;
        review_.speakerList = {};
        ++review_.speakerListVersion;
        review_.share = ShareComposer(context.user.email);
        ++review_.shareVersion;
        review_.selectedTemplateId.reset();
        live_.startedAt.reset();
        live_.pauseStartedAt.reset();
        live_.totalPausedMs = 0;
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
        live_.startedAt = startedAt;
        live_.totalPausedMs = 0;
        live_.pauseStartedAt.reset();
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

} // namespace kavelo
