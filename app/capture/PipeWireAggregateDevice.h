#pragma once

#include "app/capture/AggregateDevice.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <semaphore>
#include <thread>
#include <vector>

namespace kavelo {

// The aggregate graph on PipeWire: one filter node of ours with an input port per channel, linked to the
// microphone's capture ports and to the default output's monitor ports. PipeWire schedules all of them
// from one driver, so every cycle brings microphone and system samples of the same instant.
//
// The filter's process callback runs on PipeWire's real-time thread and only copies the ports' samples
// into a preallocated ring of a few seconds (CycleRing) and wakes the worker; the worker thread hands each
// cycle to the engine, whose encoding and chunk writing may take their time there. Nothing on the
// real-time thread locks, allocates or logs.
//
// The default input and output come from PipeWire's "default" metadata; a change of either is reported
// to the listener. Our own node is named "kavely.capture" and is never offered as a device.
class PipeWireAggregateDevice final : public AggregateDevice {
  public:
    PipeWireAggregateDevice();
    ~PipeWireAggregateDevice() override;

    // Whether a PipeWire server answers at all.
    static bool serverAnswers();
    // Whether the default output's sound could be read: a default sink with monitor ports exists.
    static bool canCaptureDefaultOutput();

    AggregateDeviceInfo build(const std::optional<std::string>& preferredMicrophone) override;
    void startIO(IOHandler handler) override;
    void teardown() override;
    void setDefaultDeviceListener(std::function<void()> listener) override;
    [[nodiscard]] std::uint64_t droppedCycles() const override;

    struct Graph; // PipeWire objects and the registry as seen; defined in the source file

  private:
    void work();
    void stopWorker();

    std::shared_ptr<Graph> graph_;    // control queue only (build/startIO/teardown); shared with the worker
    std::thread worker_;              // control queue only
    std::uint64_t droppedBefore_ = 0; // control queue only: cycles lost in graphs torn down

    std::mutex mutex_;
    std::function<void()> listener_; // guarded by mutex_
};

} // namespace kavelo
