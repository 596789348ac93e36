// Relaunch: brings the coordinator back to where a recording of an earlier process stood.
#include "core/recording/RecordingCoordinator.h"

#include <set>

namespace kavelo {

PreflightContext RecordingCoordinator::recoveredContext(const AuthUser& user, const std::string& userName,
                                                        const RecordingManifest& manifest) const {
    // The start's choices are not in the manifest: a recovered report goes out in Dutch, in the user's own
    // space, until the application says otherwise.
    PreflightContext context;
    context.user = user;
    context.userName = userName;
    context.meetingName = manifest.meetingName;
    context.microphoneDeviceId = "";
    context.systemAudioMode = SystemAudioMode::off;
    context.outputLanguage = "nl";
    return context;
}

RecordingCoordinator::RecoveryDecision RecordingCoordinator::recoverIfNeeded(const AuthUser& user,
                                                                             const std::string& userName) {
    auto manifest = recoveryStore_->load();
    if (!manifest || phase() != RecordingPhase::idle) {
        return RecoveryDecision::none();
    }
    const auto& m = *manifest;
    auto configureUploader = [&] {
        diagnostics_->startSession(m.recordingId);
        std::optional<std::string> token;
        if (hooks_.currentAccessToken) {
            token = hooks_.currentAccessToken();
        }
        uploader_->configure(m.recordingId, m.recordingSecret, config_.supabaseUrl, config_.anonKey, token);
    };

    if (m.stage == RecordingManifest::Stage::active) {
        if (m.isPaused && m.pausedAt) {
            double age = secondsBetween(*m.pausedAt, clock_->now());
            if (timings_.maxPause < age) {
                log(LogLevel::warn, "recovered pause older than max — discarding to stopped flow");
                recoveryStore_->clear();
                return RecoveryDecision::discardedExpired();
            }
        }
        // The recorder may still be capturing in this same process: a sign-out does not stop it.
        bool paused = m.isPaused || recorder_->runtimeState().userPaused;
        {
            auto now = clock_->now();
            std::lock_guard lock(mutex_);
            recordingId_ = m.recordingId;
            recordingSecret_ = m.recordingSecret;
            startedAt_ = m.startedAt;
            totalPausedMs_ = m.totalPausedMs;
            pauseStartedAt_ = m.isPaused ? std::optional<TimePoint>(m.pausedAt.value_or(now)) : std::nullopt;
            context_ = recoveredContext(user, userName, m);
        }
        configureUploader();
        uploader_->requeue(chunkStore_->storedSequences(m.recordingId));
        fire(RecordingEvent::recoveredActiveRecording(paused));
        if (paused) {
            startHeartbeatLoop();
            startMaxPauseTimer();
        }
        DiagnosticsCollector::PayloadInput input;
        input.uploadedCount = 0;
        input.recoveryMarker = "relaunch_active";
        sendDiagnostics(m.recordingId, user.id, input);
        notifyTick();
        return RecoveryDecision::resumedActive(paused);
    }

    {
        std::lock_guard lock(mutex_);
        recordingId_ = m.recordingId;
        recordingSecret_ = m.recordingSecret;
        startedAt_ = m.startedAt;
        totalPausedMs_ = m.totalPausedMs;
        lastSequence_ = m.lastSequence;
        context_ = recoveredContext(user, userName, m);
        share_ = ShareComposer(user.email);
        ++shareVersion_;
        speakerList_ = {};
        ++speakerListVersion_;
    }
    configureUploader();
    auto stored = chunkStore_->storedSequences(m.recordingId);
    uploader_->requeue(stored);
    if (m.lastSequence && *m.lastSequence >= 1) {
        // Only an uploaded chunk loses its file, so a number without a file counts as on the server until
        // the server's own list says otherwise.
        std::set<int> onDisk(stored.begin(), stored.end());
        std::vector<int> acknowledged;
        for (int s = 1; s <= *m.lastSequence; ++s) {
            if (!onDisk.count(s)) {
                acknowledged.push_back(s);
            }
        }
        if (!acknowledged.empty()) {
            uploader_->acceptServerAcks(acknowledged);
            std::lock_guard lock(mutex_);
            localUploaded_.insert(acknowledged.begin(), acknowledged.end());
        }
    }
    mapping_->resetForNewRecording();
    fire(RecordingEvent::recoveredStoppedRecording());
    runProcessingSequence();
    DiagnosticsCollector::PayloadInput input;
    input.lastSequence = m.lastSequence;
    input.uploadedCount = 0;
    input.recoveryMarker = "relaunch_stopped";
    sendDiagnostics(m.recordingId, user.id, input);
    notifyTick();
    return RecoveryDecision::openedFinalizeFlow();
}

} // namespace kavelo
