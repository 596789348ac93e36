#pragma once

#include "core/recording/SystemAudioMode.h"

#include <optional>
#include <string>

namespace kavelo {

// The whole of what the recorder is told at start.
struct StartRecordingInput {
    std::string recordingId;
    std::optional<std::string> recordingSecret; // authorises chunk uploads; never logged
    std::string supabaseUrl;
    std::optional<std::string> anonKey;
    std::optional<std::string> accessToken; // never logged
    std::string microphoneDeviceId;
    SystemAudioMode systemAudioMode = SystemAudioMode::system;
    std::optional<std::string> systemAudioTargetId;
    std::optional<std::string> outputDeviceId;

    bool operator==(const StartRecordingInput&) const = default;
};

} // namespace kavelo
