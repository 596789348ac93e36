#pragma once

#include "core/recording/SystemAudioMode.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kavelo {

// What the audio test needs from an audio server: streams opened for a level only, and a tone. Every call
// blocks, and the controller makes them on its own queue, never on the GUI thread.
class AudioTestEngines {
  public:
    // Samples as they arrive, on the stream's own worker thread; the pointer is valid for the call only.
    using SampleHandler = std::function<void(const float* samples, std::size_t count)>;

    // A running stream. Destroying it stops it: once the destructor has returned no handler call is under
    // way or will come.
    class Stream {
      public:
        virtual ~Stream() = default;
    };

    virtual ~AudioTestEngines() = default;

    // A microphone stream: the device of that id, the default input when the id is empty or unknown.
    // Throws std::runtime_error when there is no input or it will not start.
    virtual std::unique_ptr<Stream> openMicrophone(const std::string& deviceId, SampleHandler onSamples) = 0;
    // A probe of what the system plays: the graph path when the server offers it, else, when allowed, the
    // monitor of the output (or of one application's stream, for mode app). Null when neither runs.
    virtual std::unique_ptr<Stream> openSystemProbe(SystemAudioMode mode,
                                                    const std::optional<std::string>& sourceId,
                                                    bool allowFallback, SampleHandler onSamples) = 0;
    // Plays a short tone on the output of that id (the default output when empty) and returns when it has
    // been played; throws std::runtime_error when the output will not take it.
    virtual void playTone(const std::string& outputId) = 0;
};

} // namespace kavelo
