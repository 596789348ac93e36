#include "app/audiotest/AudioLevelsModel.h"

#include <algorithm>

namespace kavelo {

namespace {
// Levels arrive from a recorder's arithmetic; a NaN or an out-of-range value must not reach a meter.
double clampLevel(double value) {
    if (!(value > 0.0)) {
        return 0.0;
    }
    return std::min(value, 1.0);
}
} // namespace

AudioLevelsModel::AudioLevelsModel() : waveform_(waveformLength, waveformFloor) {}

void AudioLevelsModel::setChangeHandler(std::function<void()> handler) {
    std::lock_guard lock(mutex_);
    onChange_ = std::move(handler);
}

void AudioLevelsModel::reset() {
    {
        std::lock_guard lock(mutex_);
        micLevel_ = 0.0;
        systemLevel_ = 0.0;
        waveform_.assign(waveformLength, waveformFloor);
    }
    changed();
}

void AudioLevelsModel::publish(double microphone, double system) {
    {
        std::lock_guard lock(mutex_);
        micLevel_ = clampLevel(microphone);
        systemLevel_ = clampLevel(system);
        waveform_.erase(waveform_.begin());
        waveform_.push_back(std::max((micLevel_ + systemLevel_) * 0.5, waveformFloor));
    }
    changed();
}

double AudioLevelsModel::micLevel() const {
    std::lock_guard lock(mutex_);
    return micLevel_;
}

double AudioLevelsModel::systemLevel() const {
    std::lock_guard lock(mutex_);
    return systemLevel_;
}

std::vector<double> AudioLevelsModel::waveform() const {
    std::lock_guard lock(mutex_);
    return waveform_;
}

void AudioLevelsModel::changed() {
    std::function<void()> handler;
    {
        std::lock_guard lock(mutex_);
        handler = onChange_;
    }
    if (handler) {
        handler();
    }
}

} // namespace kavelo
