#pragma once

#include <string>

namespace kavelo {

// A chunk has been produced (the bytes themselves went to the upload worker, not to the coordinator).
struct AudioChunkEvent {
    int sequence = 0;
    long long bytes = 0;
    bool isFinal = false;
    double sampleRate = 48000.0;
    int channels = 1;
    bool operator==(const AudioChunkEvent&) const = default;
};

// An audio error. Codes with a meaning of their own: "SILENT_AUDIO_DETECTED", "ENGINE_STALLED_PERMANENT",
// "NO_MICROPHONE_INPUT", "SYSTEM_AUDIO_TAP_UNAVAILABLE"; any other code is a device warning showing message.
struct AudioErrorEvent {
    std::string code;
    std::string message;
    bool operator==(const AudioErrorEvent&) const = default;
};

} // namespace kavelo
