#pragma once

namespace kavelo {

struct RecorderRuntimeState {
    bool recordingActive = false;
    bool userPaused = false;
    bool stoppingOrRestarting = false;
    int lastSequence = 0;
    long long totalBytesEncoded = 0;
    long long droppedCycles = 0; // audio the capture lost because the recorder's worker fell behind

    static constexpr RecorderRuntimeState idle() { return {}; }
    bool operator==(const RecorderRuntimeState&) const = default;
};

} // namespace kavelo
