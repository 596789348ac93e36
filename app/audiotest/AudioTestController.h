#pragma once

#include "app/audiotest/AudioTestEngines.h"
#include "app/capture/SerialExecutor.h"
#include "core/support/Clock.h"
#include "core/support/Task.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kavelo {

// What the user picked in the audio settings or on the dashboard.
struct AudioTestRequest {
    std::string microphoneId; // empty: the default input
    SystemAudioMode systemAudioMode = SystemAudioMode::system;
    std::optional<std::string> systemSourceId; // "app:<prefix>" for mode app
    std::string outputId;                      // where the test tone plays; empty: the default output
    // The settings panel may fall back to the output's monitor when the graph path is not there; the
    // dashboard passes false and shows no system level rather than open a second kind of stream.
    bool allowFallback = true;
    bool operator==(const AudioTestRequest&) const = default;
};

struct AudioTestState {
    double micLevel = 0.0;    // 0...1 on the display scale
    double systemLevel = 0.0; // 0...1 on the display scale
    bool micActive = false;
    bool systemProbeActive = false;
    bool playingTestSound = false;
    bool operator==(const AudioTestState&) const = default;
};

// Live levels while no recording runs: a throw-away microphone stream, a probe of what the system plays,
// and a test tone. It owns its streams and never touches a recording's; the owner calls stop() the moment
// a recording can start, and waitUntilIdle() before the recorder opens its devices.
//
// Threads: every public function is called on the GUI thread, and the state handler is called there too.
// Opening and closing streams happens on a serial queue of its own, since a device may take its time; the
// streams' samples are reduced to a level on their own worker threads and handed back through postToMain.
// Failures are silent by design: a test must not bother the user, its level stays 0 and its flag false.
//
// Starts are asynchronous, so every start has a generation: a stream that comes up after a newer start or
// a stop tears itself down instead of being kept.
class AudioTestController : public std::enable_shared_from_this<AudioTestController> {
  public:
    // Queues a function to run on the GUI thread; callable from any thread.
    using MainThreadPoster = std::function<void(std::function<void()>)>;
    struct Dependencies {
        std::shared_ptr<AudioTestEngines> engines;
        std::shared_ptr<Clock> clock;
        MainThreadPoster postToMain;
        // Told true while the test's own microphone stream runs, so that meeting detection does not take
        // it for a call; told false when it stops.
        std::function<void(bool)> onMicrophoneTestRunning;
    };

    // The system probe delivers nothing while nothing plays: a level with no news for this long falls to
    // 0, checked on a tick of this interval.
    static constexpr double silenceAfter = 0.6;
    static constexpr double silenceTick = 0.5;

    static std::shared_ptr<AudioTestController> make(Dependencies dependencies);
    ~AudioTestController();
    AudioTestController(const AudioTestController&) = delete;
    AudioTestController& operator=(const AudioTestController&) = delete;

    void setStateHandler(std::function<void(const AudioTestState&)> handler);
    [[nodiscard]] AudioTestState state() const;

    // Starts what is not running yet: the microphone stream (again, when the microphone changed) and, unless
    // system audio is off, the probe (again, when its source changed). Mode off stops the probe.
    void start(const AudioTestRequest& request);
    // Stops both streams and sets the levels to 0; the streams close on the queue right after.
    void stop();
    // Blocks until every close and open asked for so far is done. Not from the state handler.
    void waitUntilIdle();
    // A 440 Hz tone at a quarter of full scale for 0.8 s on the chosen output; ignored while one plays.
    void playTestTone();

  private:
    struct ProbeSource {
        SystemAudioMode mode = SystemAudioMode::system;
        std::optional<std::string> sourceId;
        bool allowFallback = true;
        bool operator==(const ProbeSource&) const = default;
    };
    using SharedStream = std::shared_ptr<AudioTestEngines::Stream>;

    explicit AudioTestController(Dependencies dependencies);
    void startMicrophone(const std::string& deviceId);
    void stopMicrophone();
    void startSystemProbe(const ProbeSource& source);
    void stopSystemProbe();
    AudioTestEngines::SampleHandler levelHandler(bool microphone, std::uint64_t generation);
    void microphoneOpened(std::uint64_t generation, SharedStream stream);
    void probeOpened(std::uint64_t generation, SharedStream stream);
    void levelArrived(bool microphone, std::uint64_t generation, double level);
    void silenceTickArrived(std::uint64_t generation);
    void toneEnded();
    void closeOnQueue(SharedStream stream);
    void publish();

    const Dependencies deps_;
    mutable std::mutex mutex_;
    AudioTestState state_;                               // guarded by mutex_
    std::function<void(const AudioTestState&)> onState_; // guarded by mutex_
    std::uint64_t micGeneration_ = 0;                    // guarded by mutex_
    std::uint64_t probeGeneration_ = 0;                  // guarded by mutex_
    std::optional<std::string> micDevice_;               // guarded by mutex_: the microphone asked for
    std::optional<ProbeSource> probeSource_;             // guarded by mutex_: the probe asked for
    SharedStream micStream_;                             // guarded by mutex_
    SharedStream probeStream_;                           // guarded by mutex_
    TimePoint lastProbeLevelAt_;                         // guarded by mutex_
    std::string outputId_;                               // guarded by mutex_
    Task silenceTask_;                                   // guarded by mutex_
    Task toneTask_;                                      // guarded by mutex_
    SerialExecutor queue_; // opens and closes streams; declared last, so it ends first
};

} // namespace kavelo
