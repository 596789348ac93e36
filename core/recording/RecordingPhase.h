#pragma once

#include "core/support/CoreJSON.h"
#include "core/support/RawEnum.h"

namespace kavelo {

// Where one recording stands, from sign-in to the report's hand-over. The user interface draws from this
// alone; the raw texts are what observers, logs and stored state carry.
enum class RecordingPhase {
    signedOut,
    idle,
    updateRequired,
    preflightCheck,
    permissionMicrophoneNeeded,
    permissionSystemAudioNeeded,
    audioDeviceMissing,
    diskSpaceBlocked,
    initRecording,
    startingNativeRecorder,
    recording,
    recordingDeviceWarning,
    recordingNoAudioWarning,
    recordingOfflineBuffering,
    recordingRouteChanged,
    pausedUser,
    interruptedSystem,
    resuming,
    resumeFailed,
    stopConfirm,
    stoppingNativeRecorder,
    processingMapping,
    speakerReview,
    shareReview,
    waitingForUploads,
    finalizing,
    success,
    errorRecoverable,
    errorUnrecoverable,
};

template <> struct RawEnumTraits<RecordingPhase> {
    static constexpr std::array<std::pair<RecordingPhase, std::string_view>, 29> table{{
        {RecordingPhase::signedOut, "signed_out"},
        {RecordingPhase::idle, "idle"},
        {RecordingPhase::updateRequired, "update_required"},
        {RecordingPhase::preflightCheck, "preflight_check"},
        {RecordingPhase::permissionMicrophoneNeeded, "permission_microphone_needed"},
        {RecordingPhase::permissionSystemAudioNeeded, "permission_system_audio_needed"},
        {RecordingPhase::audioDeviceMissing, "audio_device_missing"},
        {RecordingPhase::diskSpaceBlocked, "disk_space_blocked"},
        {RecordingPhase::initRecording, "init_recording"},
        {RecordingPhase::startingNativeRecorder, "starting_native_recorder"},
        {RecordingPhase::recording, "recording"},
        {RecordingPhase::recordingDeviceWarning, "recording_device_warning"},
        {RecordingPhase::recordingNoAudioWarning, "recording_no_audio_warning"},
        {RecordingPhase::recordingOfflineBuffering, "recording_offline_buffering"},
        {RecordingPhase::recordingRouteChanged, "recording_route_changed"},
        {RecordingPhase::pausedUser, "paused_user"},
        {RecordingPhase::interruptedSystem, "interrupted_system"},
        {RecordingPhase::resuming, "resuming"},
        {RecordingPhase::resumeFailed, "resume_failed"},
        {RecordingPhase::stopConfirm, "stop_confirm"},
        {RecordingPhase::stoppingNativeRecorder, "stopping_native_recorder"},
        {RecordingPhase::processingMapping, "processing_mapping"},
        {RecordingPhase::speakerReview, "speaker_review"},
        {RecordingPhase::shareReview, "share_review"},
        {RecordingPhase::waitingForUploads, "waiting_for_uploads"},
        {RecordingPhase::finalizing, "finalizing"},
        {RecordingPhase::success, "success"},
        {RecordingPhase::errorRecoverable, "error_recoverable"},
        {RecordingPhase::errorUnrecoverable, "error_unrecoverable"},
    }};
};

// Audio is being captured (a stop confirmation still captures).
bool isCapturing(RecordingPhase phase);
// A recording is under way or still waits to be finalised; false for the blockers, success and the
// unrecoverable error.
bool isInActiveSession(RecordingPhase phase);
// The flow overlay is shown; blockers are shown on the idle screen instead.
bool presentsFlowOverlay(RecordingPhase phase);

// JSON form: the raw text. Reading an unknown text throws DecodingError.
void to_json(Json& json, RecordingPhase phase);
void from_json(const Json& json, RecordingPhase& phase);

} // namespace kavelo
