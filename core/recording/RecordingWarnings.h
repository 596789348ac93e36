#pragma once

#include <optional>
#include <string>

namespace kavelo {

// The warnings shown during a recording. Reset as a whole only when a recording starts.
struct RecordingWarnings {
    std::optional<std::string> deviceWarning; // set by an audio error or an error state
    bool noAudio = false;                     // silence, or no first chunk; cleared by the next chunk
    bool offlineBuffering = false;            // between the recorder's offline and online states
    std::optional<std::string> routeChange;   // the new route's name
    bool systemAudioFallback = false;         // system audio could not be captured; the microphone goes on
    bool diskFull = false;     // the disk refuses chunks: they wait in memory until it takes them again
    bool diskSpaceLow = false; // free space fell below the running limit; cleared when it rises again

    bool operator==(const RecordingWarnings&) const = default;
};

} // namespace kavelo
