// Share review and the finalize pipeline: the recording's data leaves this machine only after the server
// has accepted the request for the report.
#include "core/recording/RecordingCoordinator.h"

#include <set>

namespace kavelo {

RecordingCoordinator::SubmitOutcome RecordingCoordinator::submitShare(bool isOnline) {
    ShareComposer::PendingInputResult result;
    {
        std::lock_guard lock(mutex_);
        result = review_.share.commitPendingInputForSend();
        ++review_.shareVersion;
    }
    switch (result.kind) {
    case ShareComposer::PendingInputResult::Kind::committed:
        // The user sees the new recipients first and presses again.
        notifyTick();
        return SubmitOutcome::committedPendingInput;
    case ShareComposer::PendingInputResult::Kind::invalid:
        notifyTick();
        return SubmitOutcome::invalidPendingInput;
    case ShareComposer::PendingInputResult::Kind::empty:
        break;
    }
    if (!isOnline) {
        return SubmitOutcome::offline;
    }
    if (fire(RecordingEvent::shareSubmitted())) {
        runFinalizePipeline();
    }
    return SubmitOutcome::started;
}

bool RecordingCoordinator::canRetryFinalize() const {
    std::lock_guard lock(mutex_);
    return machine_.phase() == RecordingPhase::errorRecoverable && recordingId_ && live_.lastSequence &&
           context_;
}

void RecordingCoordinator::retryFinalize() {
    // Without a stop there is nothing to finalise; a retry would leave the wait with no way out.
    if (!canRetryFinalize()) {
        if (phase() == RecordingPhase::errorRecoverable) {
            log(LogLevel::warn, "retry refused: no stopped recording");
        }
        return;
    }
    if (!fire(RecordingEvent::retryRequested())) {
        return;
    }
    finalizeService_->reset();
    // Chunks that used up their attempts get a new chance.
    uploader_->requeue(sequencesOf(uploader_->failedChunks()));
    runFinalizePipeline();
}

void RecordingCoordinator::runFinalizePipeline() {
    std::optional<std::string> recordingId;
    std::optional<int> last;
    std::optional<PreflightContext> context;
    {
        std::lock_guard lock(mutex_);
        recordingId = recordingId_;
        last = live_.lastSequence;
        context = context_;
    }
    if (!recordingId || !last || !context) {
        // The pipeline runs in the wait for the uploads, which a finalize failure does not leave: without
        // a last chunk the wait cannot end, so it ends here as incomplete and the retry stays refused.
        log(LogLevel::error, "finalize impossible: no stopped recording to send");
        fire(RecordingEvent::uploadsIncomplete());
        return;
    }
    const std::string id = *recordingId;
    const int lastSequence = *last;

    // Everything still on disk goes back in the queue.
    auto stored = storedChunks(id);
    if (!stored.empty()) {
        uploader_->requeue(stored);
    }
    auto uploadedByRecorder = recorder_->uploadedSequences();
    {
        std::lock_guard lock(mutex_);
        live_.localUploaded.insert(uploadedByRecorder.begin(), uploadedByRecorder.end());
    }

    std::weak_ptr<RecordingCoordinator> weak = weak_from_this();
    auto uploader = uploader_;
    auto localProgress = [weak, uploader, lastSequence] {
        std::set<int> known;
        if (auto self = weak.lock()) {
            std::lock_guard lock(self->mutex_);
            known = self->live_.localUploaded;
        }
        for (int s : uploader->uploadedSequences()) {
            known.insert(s);
        }
        auto pending = uploader->pendingSequences();
        FinalizeService::LocalUploadSnapshot snapshot;
        snapshot.uploadedCount = static_cast<int>(known.size());
        snapshot.pendingCount = static_cast<int>(std::set<int>(pending.begin(), pending.end()).size());
        for (int s = 1; s <= lastSequence; ++s) {
            if (!known.count(s)) {
                snapshot.missing.push_back(s);
            }
        }
        return snapshot;
    };
    auto onServerAck = [weak, uploader](const std::vector<int>& sequences) {
        uploader->acceptServerAcks(sequences);
        if (auto self = weak.lock()) {
            std::lock_guard lock(self->mutex_);
            self->live_.localUploaded.insert(sequences.begin(), sequences.end());
        }
    };
    // A chunk that the server lost counts as missing again.
    auto kick = [weak, uploader](const std::vector<int>& sequences) {
        if (auto self = weak.lock()) {
            std::lock_guard lock(self->mutex_);
            for (int s : sequences) {
                self->live_.localUploaded.erase(s);
            }
        }
        uploader->requeue(sequences);
    };

    auto result = finalizeService_->waitForServerChunks(id, lastSequence, localProgress, onServerAck, kick);
    switch (result.kind) {
    case FinalizeService::WaitResult::Kind::allChunksOnServer:
        if (fire(RecordingEvent::allChunksOnServer())) {
            finalizeVerifiedRecording(id, lastSequence, *context);
        }
        break;
    case FinalizeService::WaitResult::Kind::missing: {
        {
            std::lock_guard lock(mutex_);
            finalize_.missingChunks = result.missing;
        }
        std::string shown = "[";
        for (std::size_t i = 0; i < result.missing.size() && i < 5; ++i) {
            shown += (i ? ", " : "") + std::to_string(result.missing[i]);
        }
        log(LogLevel::warn, "uploads incomplete; missing=" + shown + "]");
        fire(RecordingEvent::uploadsIncomplete());
        break;
    }
    case FinalizeService::WaitResult::Kind::aborted:
        // A sign-out ended the wait and has moved the phase already.
        break;
    }
}

void RecordingCoordinator::saveFinalizeState(const std::string& recordingId, const FinalizePayload& request,
                                             bool accepted) {
    auto manifest = recoveryStore_->load();
    if (!manifest || manifest->recordingId != recordingId) {
        return;
    }
    manifest->finalizeRequest = request;
    manifest->finalizeAccepted = accepted;
    saveManifest(*manifest);
}

void RecordingCoordinator::finalizeVerifiedRecording(const std::string& recordingId, int last,
                                                     const PreflightContext& context) {
    FinalizeService::FinalizeInput input;
    {
        std::lock_guard lock(mutex_);
        input.share = review_.share;
        input.speakers = review_.speakerList;
        input.selectedTemplateId = review_.selectedTemplateId;
    }
    input.recordingId = recordingId;
    input.user = context.user;
    input.userName = context.userName;
    input.meetingName = input.share.meetingName.empty() ? context.meetingName
                                                        : std::optional<std::string>(input.share.meetingName);
    input.outputLanguage = context.outputLanguage;
    input.uploadMode = config_.uploadMode;
    DiagnosticsCollector::PayloadInput diagnostics;
    diagnostics.lastSequence = last;
    diagnostics.failedChunks = sequencesOf(uploader_->failedChunks());
    diagnostics.uploadedCount = static_cast<int>(uploader_->uploadedSequences().size());
    input.diagnostics = diagnostics_->payload(diagnostics);
    auto payload = FinalizeService::buildPayload(input);

    // Kept before it goes: if this process dies with the request on its way, the next one sends this same
    // request again rather than a second one.
    saveFinalizeState(recordingId, payload, false);
    try {
        finalizeService_->finalize(payload);
    } catch (const std::exception& e) {
        // Everything stays on disk, the manifest included: a retry or a relaunch can still finish.
        log(LogLevel::error, std::string("finalize failed: ") + e.what());
        fire(RecordingEvent::finalizeFailed(true));
        return;
    }
    saveFinalizeState(recordingId, payload, true);
    {
        // The clock runs on through the review screens: the duration is the session's, not the audio's.
        auto now = clock_->now();
        std::lock_guard lock(mutex_);
        finalize_.success = SuccessSummary{payload.meetingName.value_or(""), elapsedActiveSecondsLocked(now),
                                           static_cast<int>(payload.recipients.size())};
    }
    // Audio first, then the manifest: a crash in between leaves an accepted manifest, whose relaunch only
    // finishes this clean-up.
    chunkStore_->removeAll(recordingId);
    clearManifest();
    fire(RecordingEvent::finalizeSucceeded());
    notifyTick();
    if (hooks_.onFinalizeSuccess) {
        startTask(finalize_.hookTask,
                  [hook = hooks_.onFinalizeSuccess, meetingName = payload.meetingName,
                   participants = payload.participants.value_or(std::vector<std::string>{}),
                   recipients = payload.recipients](std::weak_ptr<RecordingCoordinator>) {
                      hook(meetingName, participants, recipients);
                  });
    }
}

} // namespace kavelo
