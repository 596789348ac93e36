#pragma once

#include "core/support/Task.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kavelo {

class PulseConnection;

// Follows which other programs capture from a real input device, from the audio server's events on
// recording streams (no polling). A stream counts when it records from a source that is no sink's monitor,
// is not corked, is no level meter (a peak-detect stream, as mixers open to draw their meters), belongs to
// a client (not to a filter module of the server), and does not come from this process or another
// Kavely program.
//
// onChange gets the new list after each change, on a task thread of the monitor; a caller with a GUI moves
// it to its own thread. stop() (and destruction) ends the listening and waits for a read in progress: no
// onChange comes after it returns.
class CaptureStreamMonitor {
  public:
    struct Owner {
        std::uint32_t stream = 0; // the server's index of the recording stream
        pid_t pid = 0;            // application.process.id, 0 when absent or unreadable
        std::string applicationName;
        std::string processBinary;
        std::string applicationId;
        bool operator==(const Owner&) const = default;
    };

    // What the server says about one recording stream, before the filter.
    struct RawStream {
        Owner owner;
        std::uint32_t source = 0;
        bool corked = false;
        bool peakDetect = false;   // resampled by "peaks", or marked stream.monitor by PipeWire
        bool serverModule = false; // no client: a filter of the server itself (remap, loopback, echo cancel)
    };

    // A server with more recording streams than this is not read further: the list feeds a decision, and
    // a runaway client must not make us hold an unbounded list.
    static constexpr std::size_t maxStreams = 256;
    static constexpr std::size_t maxPropertyLength = 256;

    static std::shared_ptr<CaptureStreamMonitor> make();
    ~CaptureStreamMonitor();
    CaptureStreamMonitor(const CaptureStreamMonitor&) = delete;
    CaptureStreamMonitor& operator=(const CaptureStreamMonitor&) = delete;

    // Reads the current streams (current() answers them; onChange reports only later changes), then
    // listens. False when no audio server answers.
    bool start(std::function<void(const std::vector<Owner>&)> onChange);
    void stop();
    [[nodiscard]] std::vector<Owner> current() const;

    // The filter, on one reading: streams that count, in the server's order.
    [[nodiscard]] static std::vector<Owner> select(const std::vector<RawStream>& streams,
                                                   const std::vector<std::uint32_t>& monitorSources,
                                                   pid_t ownPid);

    // One event from the server. Called by the subscription.
    void notify();

  private:
    CaptureStreamMonitor() = default;
    void readLoop();

    mutable std::mutex mutex_;
    // Shared with a read in progress, which must not hold mutex_ while it waits for the server.
    std::shared_ptr<PulseConnection> connection_;             // guarded by mutex_
    std::function<void(const std::vector<Owner>&)> onChange_; // guarded by mutex_
    std::vector<Owner> current_;                              // guarded by mutex_
    bool reading_ = false;                                    // guarded by mutex_
    bool dirty_ = false;                                      // guarded by mutex_
    Task reader_;                                             // guarded by mutex_
};

} // namespace kavelo
