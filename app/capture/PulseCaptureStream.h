#pragma once

#include "app/capture/CaptureBackend.h"

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

struct pa_stream;

namespace kavelo {

class PulseConnection;

// One record stream of the fallback path, 48 kHz mono float (the server converts from the device's own
// format), fetched from the server in fragments of 100 ms and delivered to its handler in buffers of 1024
// frames on a worker thread of its own.
//
// The server's callback only appends to a bounded queue; the worker takes whole buffers from it and calls
// the handler without any libpulse lock held, so the handler may take its own locks and even destroy this
// object. Serves as microphone or as system audio (the monitor of an output, or of one application's
// stream on it).
class PulseCaptureStream final : public MicrophoneCapture, public SystemAudioCapture {
  public:
    static constexpr std::size_t framesPerBuffer = 1024;
    // What the server collects before it wakes us: 100 ms. A meeting recorder needs no lower latency, and
    // each wake-up of the server, the client library and our worker costs more than the samples it brings.
    static constexpr std::size_t framesPerFragment = 4800;
    static constexpr std::size_t maxQueuedFrames = 4 * 48000; // a worker that falls behind loses the oldest

    struct Target {
        std::string source;                     // the source to record from (a device or a monitor)
        std::optional<std::uint32_t> sinkInput; // record only this playback stream (from source, its monitor)
        bool allowMoves = true;                 // false: end rather than be moved to another source
        std::string streamName;
    };

    // Connects and waits until the stream runs on exactly the source asked for. Throws std::runtime_error
    // with a description otherwise.
    static std::unique_ptr<PulseCaptureStream> open(std::unique_ptr<PulseConnection> connection,
                                                    const Target& target, MonoBufferHandler handler);
    ~PulseCaptureStream() override;
    bool waitForFirstSamples(double timeoutSeconds) override;

  private:
    // What the worker thread shares with this object; it outlives the object when the handler destroys it.
    struct Shared {
        std::mutex mutex;
        std::condition_variable changed;
        std::vector<float> pending; // guarded by mutex
        bool closing = false;       // guarded by mutex
        bool received = false;      // guarded by mutex: the server has sent samples
        MonoBufferHandler handler;  // fixed before the worker starts
    };

    PulseCaptureStream() = default;
    static void onState(pa_stream* stream, void* userdata);
    static void onRead(pa_stream* stream, std::size_t bytes, void* userdata);
    static void work(const std::shared_ptr<Shared>& shared);
    void closeStream();

    std::unique_ptr<PulseConnection> connection_;
    pa_stream* stream_ = nullptr; // touched only under the connection's loop lock
    std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
    std::thread worker_;
};

} // namespace kavelo
