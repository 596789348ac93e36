#pragma once

namespace kavelo {

struct RecorderRuntimeState {
    bool recordingActive = false;
    bool userPaused = false;
    bool stoppingOrRestarting = false;
    int lastSequence = 0;
    long long totalBytesEncoded = 0;

    static constexpr RecorderRuntimeState idle() { return {}; }
    bool operator==(const RecorderRuntimeState&) const = default;
};

} // namespace kavelo
