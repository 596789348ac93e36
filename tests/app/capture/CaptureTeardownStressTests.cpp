#include "FakeCapture.h"
#include "app/capture/AggregateCaptureEngine.h"
#include "app/capture/LinuxNativeRecorder.h"
#include "core/support/SystemClock.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <future>
#include <random>
#include <thread>

using namespace kavelo;
using namespace kavelo::testing;

namespace {

// Deliveries run as fast as the machine allows, each capture on a thread of its own, so that every
// start, stop and switch of the test meets buffers in flight. `stalled` holds them back, as a dead
// audio server would.
struct Deliveries {
    std::atomic<bool> stalled{false};
    std::atomic<int> running{0};
};

// A capture stream of the fallback path: a thread that pushes until the stream is destroyed.
class ThreadedStream final : public MicrophoneCapture, public SystemAudioCapture {
  public:
    ThreadedStream(Deliveries& deliveries, MonoBufferHandler handler) : deliveries_(deliveries) {
        ++deliveries_.running;
        worker_ = std::thread([this, handler = std::move(handler)] {
            std::vector<float> samples(1024, 0.05f);
            while (!stop_.load()) {
                if (!deliveries_.stalled.load()) {
                    handler(samples.data(), samples.size());
                }
                std::this_thread::yield();
            }
        });
    }
    ~ThreadedStream() override {
        stop_ = true;
        worker_.join();
        --deliveries_.running;
    }

  private:
    Deliveries& deliveries_;
    std::atomic<bool> stop_{false};
    std::thread worker_;
};

// The aggregate graph's stand-in: cycles of one microphone and two system channels from a worker thread,
// the first one delivered before startIO returns so that the engine's wait for audio ends at once.
class ThreadedDevice final : public AggregateDevice {
  public:
    explicit ThreadedDevice(Deliveries& deliveries) : deliveries_(deliveries) {}
    ~ThreadedDevice() override { stopWorker(); }

    AggregateDeviceInfo build(const std::optional<std::string>&) override {
        stopWorker();
        return {1, 3, 48000.0, 2};
    }
    void startIO(IOHandler handler) override {
        stopWorker();
        stop_ = false;
        ++deliveries_.running;
        std::promise<void> first;
        auto firstDelivered = first.get_future();
        worker_ = std::thread([this, handler = std::move(handler), first = std::move(first)]() mutable {
            std::vector<float> samples(3 * 1024, 0.05f);
            const IOBufferList list{{{3, samples.data(), samples.size() * sizeof(float)}}};
            handler(list);
            first.set_value();
            while (!stop_.load()) {
                if (!deliveries_.stalled.load()) {
                    handler(list);
                }
                std::this_thread::yield();
            }
        });
        firstDelivered.wait();
    }
    void teardown() override { stopWorker(); }
    void setDefaultDeviceListener(std::function<void()> listener) override {
        std::lock_guard lock(mutex_);
        listener_ = std::move(listener);
    }
    std::uint64_t droppedCycles() const override { return 0; }

    void changeDefaultDevice() {
        std::function<void()> listener;
        {
            std::lock_guard lock(mutex_);
            listener = listener_;
        }
        if (listener) {
            listener();
        }
    }

  private:
    void stopWorker() {
        if (!worker_.joinable()) {
            return;
        }
        stop_ = true;
        worker_.join();
        --deliveries_.running;
    }

    Deliveries& deliveries_;
    std::atomic<bool> stop_{false};
    std::thread worker_; // engine's control queue only
    std::mutex mutex_;
    std::function<void()> listener_; // guarded by mutex_
};

class ThreadedBackend final : public CaptureBackend {
  public:
    std::unique_ptr<MicrophoneCapture> startMicrophone(const std::string&,
                                                       MonoBufferHandler onBuffer) override {
        return std::make_unique<ThreadedStream>(deliveries, std::move(onBuffer));
    }
    SystemAudioStartResult startSystemAudio(SystemAudioMode, const std::optional<std::string>&,
                                            MonoBufferHandler onSamples) override {
        SystemAudioStartResult result;
        result.outcome = SystemAudioStartResult::Outcome::started;
        result.capture = std::make_unique<ThreadedStream>(deliveries, std::move(onSamples));
        return result;
    }
    bool aggregatePathSupported() override { return true; }
    std::shared_ptr<AggregateCapture> makeAggregateCapture(std::optional<std::string> preferred,
                                                           LogFunction log) override {
        auto device = std::make_shared<ThreadedDevice>(deliveries);
        {
            std::lock_guard lock(mutex);
            latestDevice = device;
        }
        return AggregateCaptureEngine::make(device, std::make_shared<SystemClock>(), std::move(preferred),
                                            std::move(log));
    }
    bool probeAudioCapture() override { return true; }

    void changeDefaultDevice() {
        std::shared_ptr<ThreadedDevice> device;
        {
            std::lock_guard lock(mutex);
            device = latestDevice.lock();
        }
        if (device) {
            device->changeDefaultDevice();
        }
    }

    Deliveries deliveries;
    std::mutex mutex;
    std::weak_ptr<ThreadedDevice> latestDevice; // guarded by mutex
};

int rounds() {
    const char* value = std::getenv("KAVELO_STRESS_ROUNDS");
    const int asked = value != nullptr ? std::atoi(value) : 0;
    return asked > 0 ? asked : 40;
}

} // namespace

// Start, stop, pause, resume, switches, default-device changes, forced restarts and the recorder's own
// destruction, in a random order against captures that deliver all the time. Run it under the address
// and thread sanitizers; KAVELO_STRESS_ROUNDS=200 for the long run.
TEST(CaptureTeardownStressTest, EveryStepMeetsBuffersInFlightAndLeavesNoCaptureBehind) {
    auto backend = std::make_shared<ThreadedBackend>();
    auto devices = std::make_shared<FakeDeviceDirectory>();
    auto uploader = std::make_shared<FakeUploadWorker>();
    auto clock = std::make_shared<SystemClock>();
    auto logger = std::make_shared<CoreLogger>(clock, 200);
    RecordedEvents events;
    auto makeRecorder = [&] {
        auto recorder = LinuxNativeRecorder::make(
            {uploader, logger, clock, backend, devices, [](const std::string&) { return std::nullopt; }});
        recorder->setEventHandlers(events.handlers());
        return recorder;
    };
    auto recorder = makeRecorder();
    std::mt19937 random(13);
    bool active = false, paused = false;
    StartRecordingInput input;
    input.recordingId = "stress";
    const int total = rounds();
    for (int round = 0; round < total; ++round) {
        input.systemAudioMode = round % 3 == 0 ? SystemAudioMode::app : SystemAudioMode::system;
        backend->deliveries.stalled = false;
        switch (random() % 8) {
        case 0:
        case 1:
            if (!active) {
                recorder->start(input);
                active = true;
                paused = false;
            } else {
                recorder->stop();
                active = false;
            }
            break;
        case 2:
            if (active && !paused) {
                recorder->pause();
                paused = true;
            } else if (active) {
                recorder->resume();
                paused = false;
            }
            break;
        case 3:
            recorder->switchMicrophone(round % 2 == 0 ? "mic-a" : "mic-b");
            break;
        case 4:
            recorder->switchSystemAudioSource(round % 2 == 0 ? SystemAudioMode::app : SystemAudioMode::system,
                                              std::nullopt);
            break;
        case 5:
            backend->changeDefaultDevice();
            break;
        case 6:
            // A dead pipeline: two stale health ticks force a restart, which the next step may cut short.
            backend->deliveries.stalled = true;
            recorder->healthCheckTick();
            recorder->healthCheckTick();
            break;
        case 7:
            recorder = makeRecorder(); // the old one goes with its captures running
            active = paused = false;
            break;
        }
    }
    recorder->stop();
    recorder.reset();
    EXPECT_EQ(backend->deliveries.running.load(), 0) << "a capture outlived its recorder";
}
