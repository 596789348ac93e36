#pragma once

#include "core/recording/AudioChunkEvent.h"
#include "core/recording/RecorderState.h"
#include "core/transport/NativeUploadEvent.h"

#include <functional>

namespace kavelo {

// The recorder's five callbacks; any may be empty, and a new record replaces the old one whole.
// They may be called on any thread, in the order things happened.
struct RecorderEventHandlers {
    std::function<void(const AudioChunkEvent&)> onAudioChunk;
    std::function<void(const RecorderStateChange&)> onStateChange;
    std::function<void(const AudioErrorEvent&)> onAudioError;
    std::function<void(const NativeUploadEvent&)> onNativeUpload;
    std::function<void(double microphoneLevel, double systemLevel)> onLevel; // each 0 to 1
};

} // namespace kavelo
