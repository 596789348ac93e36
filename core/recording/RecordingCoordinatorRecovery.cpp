// Relaunch: brings the coordinator back to where a recording of an earlier process stood.
#include "core/recording/RecordingCoordinator.h"

#include "core/support/RecordingLimits.h"

#include <algorithm>
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

std::optional<int> RecordingCoordinator::lastChunkOfInterruptedCapture(const RecordingManifest& manifest) {
    // Chunks that were uploaded before the crash have left this disk, so only the server can say how far
    // the recording got.
    const auto server = api_->listRecordingChunks(manifest.recordingId);
    if (!server.checked) {
        return std::nullopt;
    }
    sealJournalsOfInterruptedRecording(manifest.recordingId, server.uploadedSequences);
    int last = 0;
    for (const int sequence : storedChunks(manifest.recordingId)) {
        last = std::max(last, sequence);
    }
    for (const int sequence : server.uploadedSequences) {
        last = std::max(last, sequence);
    }
    return last;
}

std::vector<int> RecordingCoordinator::storedChunks(const std::string& recordingId) const {
    // A file name is outside input too: a number no chunk of ours can have is not counted up to.
    auto stored = chunkStore_->storedSequences(recordingId);
    std::erase_if(stored, [](int sequence) { return !RecordingLimits::isSequence(sequence); });
    return stored;
}

std::optional<RecordingCoordinator::RecoveryDecision>
RecordingCoordinator::finishInterruptedFinalize(const RecordingManifest& manifest) {
    if (!manifest.finalizeAccepted) {
        // The earlier process may have died before its request left, or after the server took it: the
        // same request again, under the same idempotency key, gives the backend one report either way.
        try {
            finalizeService_->finalize(*manifest.finalizeRequest);
        } catch (const FinalizeService::FinalizeError& e) {
            if (e.kind() == FinalizeService::FinalizeError::Kind::offline) {
                log(LogLevel::warn, "recovered report request: server unreachable — recovery deferred");
                return RecoveryDecision::deferred();
            }
            // Refused: the user goes through the review again and may change what was refused.
            log(LogLevel::warn, std::string("recovered report request refused: ") + e.what());
            RecordingManifest reviewed = manifest;
            reviewed.finalizeRequest.reset();
            saveManifest(reviewed);
            return std::nullopt;
        } catch (const std::exception& e) {
            log(LogLevel::warn, std::string("recovered report request failed: ") + e.what());
            return RecoveryDecision::deferred();
        }
        RecordingManifest accepted = manifest;
        accepted.finalizeAccepted = true;
        saveManifest(accepted);
    }
    log(LogLevel::info, "recovered recording: report request accepted — local copy removed");
    chunkStore_->removeAll(manifest.recordingId);
    clearManifest();
    if (hooks_.onFinalizeSuccess) {
        const auto& request = *manifest.finalizeRequest;
        hooks_.onFinalizeSuccess(request.meetingName,
                                 request.participants.value_or(std::vector<std::string>{}),
                                 request.recipients);
    }
    return RecoveryDecision::finishedFinalize();
}

void RecordingCoordinator::sealJournalsOfInterruptedRecording(const std::string& recordingId,
                                                              const std::vector<int>& onServer) {
    // The chunk being filled when the process died lives on in its journal, synced about a second before
    // the end; sealed, it becomes the recording's last chunk and counts like any other.
    try {
        const auto sealed =
            chunkStore_->sealJournals(recordingId, std::set<int>(onServer.begin(), onServer.end()));
        for (const int sequence : sealed) {
            log(LogLevel::info, "recovered recording: journal sealed as chunk " + std::to_string(sequence));
        }
    } catch (const std::exception& e) {
        log(LogLevel::error, std::string("journal of the interrupted recording not sealed: ") + e.what() +
                                 " — it stays on disk for the next recovery");
    }
}

RecordingCoordinator::RecoveryDecision RecordingCoordinator::recoverIfNeeded(const AuthUser& user,
                                                                             const std::string& userName) {
    auto manifest = recoveryStore_->load();
    if (!manifest || phase() != RecordingPhase::idle) {
        return RecoveryDecision::none();
    }
    RecordingManifest m = *manifest;
    if (m.stage == RecordingManifest::Stage::stopped && m.finalizeRequest) {
        if (auto decision = finishInterruptedFinalize(m)) {
            return *decision;
        }
        m.finalizeRequest.reset();
    }
    auto configureUploader = [&] {
        diagnostics_->startSession(m.recordingId);
        std::optional<std::string> token;
        if (hooks_.currentAccessToken) {
            token = hooks_.currentAccessToken();
        }
        uploader_->configure(m.recordingId, m.recordingSecret, config_.supabaseUrl, config_.anonKey, token);
    };

    if (m.stage == RecordingManifest::Stage::active) {
        // However long the pause (a machine that slept, a relaunch days later), what was recorded stays:
        // a capture that is gone is settled as stopped below and offered for review, one that this
        // process still holds comes back paused with a fresh limit.
        const auto runtime = recorder_->runtimeState();
        if (!runtime.recordingActive && !runtime.userPaused) {
            // The capture died with the earlier process and this process's recorder never ran, so a stop
            // would take 0 from it as the last chunk and the report would be asked for before the chunks
            // cut up to the crash reached the server. The recording is settled as stopped at the highest
            // chunk known; the road after the stop then waits for every chunk up to it.
            const auto last = lastChunkOfInterruptedCapture(m);
            if (!last) {
                log(LogLevel::warn, "recovered capture: server chunk list unavailable — recovery deferred");
                return RecoveryDecision::deferred();
            }
            if (*last == 0) {
                // Nothing was cut: the backend has nothing to report on, and a manifest kept for it would
                // block every later recording.
                log(LogLevel::warn, "recovered capture ended before its first chunk — discarded");
                clearManifest();
                return RecoveryDecision::discardedEmpty();
            }
            const TimePoint now = clock_->now();
            if (m.isPaused) {
                // Nothing was captured after the pause began; from the crash on the time counts as active,
                // as it does for a recording brought back running.
                m.totalPausedMs += std::max(0.0, secondsBetween(m.pausedAt.value_or(now), now) * 1000);
            }
            m.isPaused = false;
            m.pausedAt.reset();
            m.stage = RecordingManifest::Stage::stopped;
            m.lastSequence = *last;
            m.elapsedSeconds =
                static_cast<int>(std::max(0.0, secondsBetween(m.startedAt, now) - m.totalPausedMs / 1000));
            saveManifest(m);
            log(LogLevel::info, "recovered capture settled as stopped at chunk " + std::to_string(*last));
        }
    }

    if (m.stage == RecordingManifest::Stage::active) {
        // The recorder still captures in this same process: a sign-out does not stop it.
        bool paused = m.isPaused || recorder_->runtimeState().userPaused;
        {
            auto now = clock_->now();
            std::lock_guard lock(mutex_);
            recordingId_ = m.recordingId;
            recordingSecret_ = m.recordingSecret;
            live_.startedAt = m.startedAt;
            live_.totalPausedMs = m.totalPausedMs;
            live_.pauseStartedAt =
                m.isPaused ? std::optional<TimePoint>(m.pausedAt.value_or(now)) : std::nullopt;
            context_ = recoveredContext(user, userName, m);
        }
        configureUploader();
        uploader_->requeue(storedChunks(m.recordingId));
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
        live_.startedAt = m.startedAt;
        live_.totalPausedMs = m.totalPausedMs;
        live_.lastSequence = m.lastSequence;
        context_ = recoveredContext(user, userName, m);
        review_.share = ShareComposer(user.email);
        ++review_.shareVersion;
        review_.speakerList = {};
        ++review_.speakerListVersion;
    }
    configureUploader();
    // A process that died in the stop may have saved the last chunk's number before that chunk reached
    // the disk; its journal still holds it. A journal beside no chunk file was never uploaded (only a
    // stored chunk is sent), so nothing on the server is taken for granted here; the sealing has to come
    // before the count below, which takes a number without a file for one the server holds.
    sealJournalsOfInterruptedRecording(m.recordingId, {});
    auto stored = storedChunks(m.recordingId);
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
            live_.localUploaded.insert(acknowledged.begin(), acknowledged.end());
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
