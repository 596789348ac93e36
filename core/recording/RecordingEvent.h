#pragma once

#include <string_view>

namespace kavelo {

// Something that happened to a recording. The state machine decides whether it moves the phase.
// Four events carry a value; the rest are bare. Compared on kind and on the value of their kind.
class RecordingEvent {
  public:
    enum class Kind {
        signedIn,
        signedOut,
        updateRequiredDetected,
        updateResolved,
        startRequested,
        preflightFailedMicPermission,
        preflightFailedSystemAudioPermission,
        preflightFailedDeviceMissing,
        preflightFailedDiskSpace,
        preflightPassed,
        permissionResolved,
        initFailed,
        initSucceeded,
        nativeStartSucceeded,
        nativeStartFailed,
        deviceWarning,
        deviceWarningCleared,
        noAudioWarning,
        audioReturned,
        wentOffline,
        backOnline,
        routeChanged,
        routeSettled,
        userPaused,
        userResumedRequested,
        resumeSucceeded,
        resumeFailedTerminal,
        systemInterrupted,
        interruptionEnded,
        stopTapped,
        stopCancelled,
        stopConfirmed,
        stopWhilePaused,
        nativeStopped,
        processingFinished,
        speakersConfirmed,
        backToSpeakers,
        shareSubmitted,
        allChunksOnServer,
        uploadsIncomplete,
        finalizeSucceeded,
        finalizeFailed,
        retryRequested,
        dismissed,
        fatalError,
        recoveredActiveRecording,
        recoveredStoppedRecording,
    };

    static constexpr RecordingEvent signedIn() { return RecordingEvent(Kind::signedIn); }
    static constexpr RecordingEvent signedOut() { return RecordingEvent(Kind::signedOut); }
    static constexpr RecordingEvent updateRequiredDetected() {
        return RecordingEvent(Kind::updateRequiredDetected);
    }
    static constexpr RecordingEvent updateResolved() { return RecordingEvent(Kind::updateResolved); }
    static constexpr RecordingEvent startRequested() { return RecordingEvent(Kind::startRequested); }
    static constexpr RecordingEvent preflightFailedMicPermission() {
        return RecordingEvent(Kind::preflightFailedMicPermission);
    }
    static constexpr RecordingEvent preflightFailedSystemAudioPermission() {
        return RecordingEvent(Kind::preflightFailedSystemAudioPermission);
    }
    static constexpr RecordingEvent preflightFailedDeviceMissing() {
        return RecordingEvent(Kind::preflightFailedDeviceMissing);
    }
    static constexpr RecordingEvent preflightFailedDiskSpace() {
        return RecordingEvent(Kind::preflightFailedDiskSpace);
    }
    static constexpr RecordingEvent preflightPassed() { return RecordingEvent(Kind::preflightPassed); }
    static constexpr RecordingEvent permissionResolved() { return RecordingEvent(Kind::permissionResolved); }
    static constexpr RecordingEvent initSucceeded() { return RecordingEvent(Kind::initSucceeded); }
    static constexpr RecordingEvent nativeStartSucceeded() {
        return RecordingEvent(Kind::nativeStartSucceeded);
    }
    static constexpr RecordingEvent nativeStartFailed() { return RecordingEvent(Kind::nativeStartFailed); }
    static constexpr RecordingEvent deviceWarning() { return RecordingEvent(Kind::deviceWarning); }
    static constexpr RecordingEvent deviceWarningCleared() {
        return RecordingEvent(Kind::deviceWarningCleared);
    }
    static constexpr RecordingEvent noAudioWarning() { return RecordingEvent(Kind::noAudioWarning); }
    static constexpr RecordingEvent audioReturned() { return RecordingEvent(Kind::audioReturned); }
    static constexpr RecordingEvent wentOffline() { return RecordingEvent(Kind::wentOffline); }
    static constexpr RecordingEvent backOnline() { return RecordingEvent(Kind::backOnline); }
    static constexpr RecordingEvent routeChanged() { return RecordingEvent(Kind::routeChanged); }
    static constexpr RecordingEvent routeSettled() { return RecordingEvent(Kind::routeSettled); }
    static constexpr RecordingEvent userPaused() { return RecordingEvent(Kind::userPaused); }
    static constexpr RecordingEvent userResumedRequested() {
        return RecordingEvent(Kind::userResumedRequested);
    }
    static constexpr RecordingEvent resumeSucceeded() { return RecordingEvent(Kind::resumeSucceeded); }
    static constexpr RecordingEvent resumeFailedTerminal() {
        return RecordingEvent(Kind::resumeFailedTerminal);
    }
    static constexpr RecordingEvent systemInterrupted() { return RecordingEvent(Kind::systemInterrupted); }
    static constexpr RecordingEvent interruptionEnded() { return RecordingEvent(Kind::interruptionEnded); }
    static constexpr RecordingEvent stopTapped() { return RecordingEvent(Kind::stopTapped); }
    static constexpr RecordingEvent stopCancelled() { return RecordingEvent(Kind::stopCancelled); }
    static constexpr RecordingEvent stopConfirmed() { return RecordingEvent(Kind::stopConfirmed); }
    static constexpr RecordingEvent stopWhilePaused() { return RecordingEvent(Kind::stopWhilePaused); }
    static constexpr RecordingEvent processingFinished() { return RecordingEvent(Kind::processingFinished); }
    static constexpr RecordingEvent speakersConfirmed() { return RecordingEvent(Kind::speakersConfirmed); }
    static constexpr RecordingEvent backToSpeakers() { return RecordingEvent(Kind::backToSpeakers); }
    static constexpr RecordingEvent shareSubmitted() { return RecordingEvent(Kind::shareSubmitted); }
    static constexpr RecordingEvent allChunksOnServer() { return RecordingEvent(Kind::allChunksOnServer); }
    static constexpr RecordingEvent uploadsIncomplete() { return RecordingEvent(Kind::uploadsIncomplete); }
    static constexpr RecordingEvent finalizeSucceeded() { return RecordingEvent(Kind::finalizeSucceeded); }
    static constexpr RecordingEvent retryRequested() { return RecordingEvent(Kind::retryRequested); }
    static constexpr RecordingEvent dismissed() { return RecordingEvent(Kind::dismissed); }
    static constexpr RecordingEvent fatalError() { return RecordingEvent(Kind::fatalError); }
    static constexpr RecordingEvent recoveredStoppedRecording() {
        return RecordingEvent(Kind::recoveredStoppedRecording);
    }
    static constexpr RecordingEvent initFailed(bool recoverable) {
        return {Kind::initFailed, recoverable, 0};
    }
    static constexpr RecordingEvent nativeStopped(int lastSequence) {
        return {Kind::nativeStopped, false, lastSequence};
    }
    static constexpr RecordingEvent finalizeFailed(bool recoverable) {
        return {Kind::finalizeFailed, recoverable, 0};
    }
    static constexpr RecordingEvent recoveredActiveRecording(bool paused) {
        return {Kind::recoveredActiveRecording, paused, 0};
    }

    [[nodiscard]] constexpr Kind kind() const { return kind_; }
    // initFailed and finalizeFailed
    [[nodiscard]] constexpr bool recoverable() const { return flag_; }
    // recoveredActiveRecording
    [[nodiscard]] constexpr bool paused() const { return flag_; }
    // nativeStopped
    [[nodiscard]] constexpr int lastSequence() const { return lastSequence_; }

    // The case's name, for log lines.
    [[nodiscard]] std::string_view name() const;

    constexpr bool operator==(const RecordingEvent&) const = default;

  private:
    constexpr explicit RecordingEvent(Kind kind) : kind_(kind) {}
    constexpr RecordingEvent(Kind kind, bool flag, int lastSequence)
        : kind_(kind), flag_(flag), lastSequence_(lastSequence) {}

    Kind kind_;
    bool flag_ = false;    // the payload of the two failures and of the active recovery; false otherwise
    int lastSequence_ = 0; // the payload of nativeStopped; 0 otherwise
};

} // namespace kavelo
