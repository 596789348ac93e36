#pragma once

#include <functional>
#include <mutex>
#include <vector>

namespace kavelo {

// The levels shown while a recording runs: microphone, system audio, and a rolling waveform of the last
// two seconds or so. A plain class; the desktop model wraps it for the screens and learns of changes
// through the change handler, which is called after every change, outside the lock.
class AudioLevelsModel {
  public:
    static constexpr std::size_t waveformLength = 24;
    // Bars never shrink to nothing, so the waveform stays visible through silence.
    static constexpr double waveformFloor = 0.05;

    AudioLevelsModel();

    void setChangeHandler(std::function<void()> handler);
    // Both levels to 0, the waveform back to its floor: the start of every recording.
    void reset();
    // One throttled level report: both levels as given (clamped to 0...1), and the waveform moves one
    // place, taking the mean of the two with the floor under it.
    void publish(double microphone, double system);

    [[nodiscard]] double micLevel() const;
    [[nodiscard]] double systemLevel() const;
    [[nodiscard]] std::vector<double> waveform() const;

  private:
    void changed();

    mutable std::mutex mutex_;
    double micLevel_ = 0.0;          // guarded by mutex_
    double systemLevel_ = 0.0;       // guarded by mutex_
    std::vector<double> waveform_;   // guarded by mutex_; always waveformLength entries
    std::function<void()> onChange_; // guarded by mutex_
};

} // namespace kavelo
