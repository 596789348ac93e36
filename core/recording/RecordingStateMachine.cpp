#include "core/recording/RecordingStateMachine.h"

#include <algorithm>
#include <initializer_list>

namespace kavelo {

namespace {

using P = RecordingPhase;
using K = RecordingEvent::Kind;

bool oneOf(P phase, std::initializer_list<P> phases) {
    return std::find(phases.begin(), phases.end(), phase) != phases.end();
}

bool isWarningPhase(P phase) {
    return oneOf(phase, {P::recordingDeviceWarning, P::recordingNoAudioWarning, P::recordingOfflineBuffering,
                         P::recordingRouteChanged});
}

bool isRecordingOrWarning(P phase) {
    return phase == P::recording || isWarningPhase(phase);
}

bool isBlocker(P phase) {
    return oneOf(phase, {P::permissionMicrophoneNeeded, P::permissionSystemAudioNeeded, P::audioDeviceMissing,
                         P::diskSpaceBlocked});
}

bool isPausedOrStuck(P phase) {
    return oneOf(phase, {P::pausedUser, P::interruptedSystem, P::resumeFailed});
}

// From a given phase to a target, or nothing.
std::optional<P> when(bool applies, P to) {
    return applies ? std::optional<P>(to) : std::nullopt;
}

// A row that enters a warning from plain recording remembers where the warning returns to.
std::optional<P> enterWarning(P from, P warning, std::initializer_list<P> alsoFrom, P& warningReturn) {
    if (from == P::recording) {
        warningReturn = P::recording;
        return warning;
    }
    return when(oneOf(from, alsoFrom), warning);
}

} // namespace

std::optional<RecordingPhase> RecordingStateMachine::apply(const RecordingEvent& event) {
    auto next = nextPhase(phase_, event, warningReturnPhase_);
    if (next) {
        phase_ = *next;
    }
    return next;
}

std::optional<RecordingPhase> RecordingStateMachine::nextPhase(RecordingPhase from,
                                                               const RecordingEvent& event,
                                                               RecordingPhase& warningReturn) {
    switch (event.kind()) {
    // Session and update
    case K::signedIn:
        return when(from == P::signedOut, P::idle);
    case K::signedOut:
        return P::signedOut;
    case K::updateRequiredDetected:
        return when(oneOf(from, {P::idle, P::preflightCheck, P::errorRecoverable}), P::updateRequired);
    case K::updateResolved:
        return when(from == P::updateRequired, P::idle);

    // Start and preflight
    case K::startRequested:
        return when(from == P::idle || isBlocker(from) || from == P::errorRecoverable, P::preflightCheck);
    case K::preflightFailedMicPermission:
        return when(from == P::preflightCheck, P::permissionMicrophoneNeeded);
    case K::preflightFailedSystemAudioPermission:
        return when(from == P::preflightCheck, P::permissionSystemAudioNeeded);
    case K::preflightFailedDeviceMissing:
        return when(from == P::preflightCheck, P::audioDeviceMissing);
    case K::preflightFailedDiskSpace:
        return when(from == P::preflightCheck, P::diskSpaceBlocked);
    case K::preflightPassed:
        return when(from == P::preflightCheck, P::initRecording);
    case K::permissionResolved:
        return when(isBlocker(from), P::idle);
    case K::initFailed:
        if (from == P::preflightCheck) {
            return P::errorRecoverable;
        }
        return when(from == P::initRecording,
                    event.recoverable() ? P::errorRecoverable : P::errorUnrecoverable);
    case K::initSucceeded:
        return when(from == P::initRecording, P::startingNativeRecorder);
    case K::nativeStartSucceeded:
        return when(from == P::startingNativeRecorder, P::recording);
    case K::nativeStartFailed:
        return when(from == P::startingNativeRecorder, P::errorRecoverable);

    // Warnings while recording: no stacking except along these rows, and every warning clears to recording.
    case K::deviceWarning:
        return enterWarning(from, P::recordingDeviceWarning,
                            {P::recordingNoAudioWarning, P::recordingRouteChanged}, warningReturn);
    case K::deviceWarningCleared:
        return when(from == P::recordingDeviceWarning, P::recording);
    case K::noAudioWarning:
        return enterWarning(from, P::recordingNoAudioWarning,
                            {P::recordingDeviceWarning, P::recordingOfflineBuffering}, warningReturn);
    case K::audioReturned:
        return when(from == P::recordingNoAudioWarning, P::recording);
    case K::wentOffline:
        return enterWarning(from, P::recordingOfflineBuffering, {}, warningReturn);
    case K::backOnline:
        return when(from == P::recordingOfflineBuffering, P::recording);
    case K::routeChanged:
        return enterWarning(from, P::recordingRouteChanged, {}, warningReturn);
    case K::routeSettled:
        return when(from == P::recordingRouteChanged, P::recording);

    // Pause, interruption, resume: while a resume runs only its own result moves the phase.
    case K::userPaused:
        return when(isRecordingOrWarning(from) || from == P::stopConfirm, P::pausedUser);
    case K::systemInterrupted:
        if (from == P::pausedUser) {
            return P::pausedUser;
        }
        return when(isRecordingOrWarning(from), P::interruptedSystem);
    case K::interruptionEnded:
        return when(from == P::interruptedSystem, P::resuming);
    case K::userResumedRequested:
        return when(isPausedOrStuck(from), P::resuming);
    case K::resumeSucceeded:
        return when(from == P::resuming, P::recording);
    case K::resumeFailedTerminal:
        return when(from == P::resuming, P::resumeFailed);

    // Stop
    case K::stopTapped:
        return when(isRecordingOrWarning(from), P::stopConfirm);
    case K::stopCancelled:
        return when(from == P::stopConfirm, P::recording);
    case K::stopConfirmed:
        return when(from == P::stopConfirm || isPausedOrStuck(from), P::stoppingNativeRecorder);
    case K::stopWhilePaused:
        return when(isPausedOrStuck(from), P::stoppingNativeRecorder);
    case K::nativeStopped:
        return when(from == P::stoppingNativeRecorder, P::processingMapping);

    // After the stop
    case K::processingFinished:
        return when(from == P::processingMapping, P::speakerReview);
    case K::speakersConfirmed:
        return when(from == P::speakerReview, P::shareReview);
    case K::backToSpeakers:
        return when(from == P::shareReview, P::speakerReview);
    case K::shareSubmitted:
        return when(from == P::shareReview, P::waitingForUploads);
    case K::allChunksOnServer:
        return when(from == P::waitingForUploads, P::finalizing);
    case K::uploadsIncomplete:
        return when(from == P::waitingForUploads, P::errorRecoverable);
    case K::finalizeSucceeded:
        return when(from == P::finalizing, P::success);
    case K::finalizeFailed:
        return when(from == P::finalizing, event.recoverable() ? P::errorRecoverable : P::errorUnrecoverable);
    case K::retryRequested:
        return when(from == P::errorRecoverable, P::waitingForUploads);
    case K::dismissed:
        return when(oneOf(from, {P::success, P::errorRecoverable, P::errorUnrecoverable}), P::idle);

    // Anywhere, and recovery
    case K::fatalError:
        return P::errorRecoverable;
    case K::recoveredActiveRecording:
        return when(from == P::idle, event.paused() ? P::pausedUser : P::recording);
    case K::recoveredStoppedRecording:
        return when(from == P::idle, P::processingMapping);
    }
    return std::nullopt;
}

} // namespace kavelo
