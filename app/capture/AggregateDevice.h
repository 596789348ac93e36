#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kavelo {

// One device cycle of the aggregate graph as it reaches the engine: a list of buffers, each holding
// `channels` interleaved float channels. The microphone's channels come first, all further channels are
// the system audio's. A buffer's data may be missing; its channels still count.
struct IOBufferList {
    struct Buffer {
        int channels = 1;
        const float* data = nullptr;
        std::size_t byteSize = 0;
    };
    std::vector<Buffer> buffers;
};

// What a build found.
struct AggregateDeviceInfo {
    int microphoneChannels = 0;
    int totalChannels = 0;
    double sampleRate = 48000.0;
    int systemFormatChannels = 2; // the channels the output's monitor offers, for the log
};

// The platform half of the aggregate engine: microphone and the default output's sound in one graph,
// under one clock. Implemented over PipeWire by PipeWireAggregateDevice; tests put a fake behind it.
//
// build, startIO and teardown are called from the engine's control queue only, one at a time.
class AggregateDevice {
  public:
    using IOHandler = std::function<void(const IOBufferList&)>;
    virtual ~AggregateDevice() = default;

    // Picks the microphone (the preferred one when it exists, else the default input) and the default
    // output, and builds the graph. Throws std::runtime_error with a description.
    virtual AggregateDeviceInfo build(const std::optional<std::string>& preferredMicrophone) = 0;
    // Starts the cycles. handler runs on the device's worker thread, never on the real-time thread.
    virtual void startIO(IOHandler handler) = 0;
    // Stops and removes the graph; no handler call is under way or comes once it returns.
    virtual void teardown() = 0;
    // Called (on any thread) when the default input or output changes; an empty function removes it.
    virtual void setDefaultDeviceListener(std::function<void()> listener) = 0;
    // Cycles the audio server produced that never reached the handler because the handler fell seconds
    // behind, over every graph this device built. Control queue only.
    [[nodiscard]] virtual std::uint64_t droppedCycles() const = 0;
};

} // namespace kavelo
