#pragma once

#include "core/support/Clock.h"
#include "core/support/Task.h"

#include <functional>
#include <memory>
#include <mutex>

namespace kavelo {

class PulseConnection;

// Turns the audio server's notices about devices coming and going and defaults changing into one call:
// a burst of notices ends in one onChange, 0.4 seconds after the first of them (not after the last).
//
// onChange runs on a task thread of the watcher; a caller with a GUI moves it to its own thread. stop()
// ends the listening; a call already pending still comes. Destruction stops and waits for that call.
class AudioDeviceListWatcher : public std::enable_shared_from_this<AudioDeviceListWatcher> {
  public:
    static constexpr double debounceSeconds = 0.4;

    static std::shared_ptr<AudioDeviceListWatcher> make(std::shared_ptr<Clock> clock);
    ~AudioDeviceListWatcher();
    AudioDeviceListWatcher(const AudioDeviceListWatcher&) = delete;
    AudioDeviceListWatcher& operator=(const AudioDeviceListWatcher&) = delete;

    // False when no audio server answers; the watcher then hears only notify() calls.
    bool start(std::function<void()> onChange);
    void stop();

    // One notice from the server. Called by the subscription; tests call it to make a burst.
    void notify();

  private:
    explicit AudioDeviceListWatcher(std::shared_ptr<Clock> clock);

    const std::shared_ptr<Clock> clock_;
    std::mutex mutex_;
    std::unique_ptr<PulseConnection> connection_; // guarded by mutex_
    std::function<void()> onChange_;              // guarded by mutex_
    bool pending_ = false;                        // guarded by mutex_
    Task debounce_;                               // guarded by mutex_
};

} // namespace kavelo
