#include "core/recording/RecordingPhase.h"

#include <string>

namespace kavelo {

bool isCapturing(RecordingPhase phase) {
    switch (phase) {
    case RecordingPhase::recording:
    case RecordingPhase::recordingDeviceWarning:
    case RecordingPhase::recordingNoAudioWarning:
    case RecordingPhase::recordingOfflineBuffering:
    case RecordingPhase::recordingRouteChanged:
    case RecordingPhase::stopConfirm:
        return true;
    default:
        return false;
    }
}

bool presentsFlowOverlay(RecordingPhase phase) {
    switch (phase) {
    case RecordingPhase::signedOut:
    case RecordingPhase::idle:
    case RecordingPhase::updateRequired:
    case RecordingPhase::permissionMicrophoneNeeded:
    case RecordingPhase::permissionSystemAudioNeeded:
    case RecordingPhase::audioDeviceMissing:
    case RecordingPhase::diskSpaceBlocked:
        return false;
    default:
        return true;
    }
}

// The blockers never start a session; the two endings close it.
bool isInActiveSession(RecordingPhase phase) {
    return presentsFlowOverlay(phase) && phase != RecordingPhase::success &&
           phase != RecordingPhase::errorUnrecoverable;
}

void to_json(Json& json, RecordingPhase phase) {
    json = std::string(toRaw(phase));
}

void from_json(const Json& json, RecordingPhase& phase) {
    if (!json.is_string()) {
        throw DecodingError("recording phase: not a text");
    }
    auto parsed = fromRaw<RecordingPhase>(json.get<std::string>());
    if (!parsed) {
        throw DecodingError("recording phase: unknown value");
    }
    phase = *parsed;
}

} // namespace kavelo
