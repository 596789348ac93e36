#include "app/audiotest/AudioTestController.h"

#include "app/audiotest/IntervalRms.h"
#include "app/audiotest/LevelMath.h"

#include <exception>

namespace kavelo {

std::shared_ptr<AudioTestController> AudioTestController::make(Dependencies dependencies) {
    return std::shared_ptr<AudioTestController>(new AudioTestController(std::move(dependencies)));
}

AudioTestController::AudioTestController(Dependencies dependencies) : deps_(std::move(dependencies)) {}

AudioTestController::~AudioTestController() {
    Task silence;
    Task tone;
    SharedStream mic;
    SharedStream probe;
    {
        std::lock_guard lock(mutex_);
        silence = silenceTask_;
        tone = toneTask_;
        mic = std::move(micStream_);
        probe = std::move(probeStream_);
        ++micGeneration_;
        ++probeGeneration_;
    }
    if (silence) {
        silence.cancelAndJoin();
    }
    if (tone) {
        tone.join(); // a tone lasts under a second; its engine must not outlive us unjoined
    }
    // Closing here rather than on the queue: the queue ends with this object.
    const bool micWasRunning = mic != nullptr;
    mic.reset();
    probe.reset();
    if (micWasRunning && deps_.onMicrophoneTestRunning) {
        deps_.onMicrophoneTestRunning(false);
    }
}

void AudioTestController::setStateHandler(std::function<void(const AudioTestState&)> handler) {
    std::lock_guard lock(mutex_);
    onState_ = std::move(handler);
}

AudioTestState AudioTestController::state() const {
    std::lock_guard lock(mutex_);
    return state_;
}

void AudioTestController::start(const AudioTestRequest& request) {
    bool restartMicrophone = false;
    std::optional<ProbeSource> probe;
    bool stopProbe = false;
    {
        std::lock_guard lock(mutex_);
        outputId_ = request.outputId;
        restartMicrophone = !micDevice_ || *micDevice_ != request.microphoneId;
        const ProbeSource source{request.systemAudioMode, request.systemSourceId, request.allowFallback};
        if (request.systemAudioMode == SystemAudioMode::off) {
            stopProbe = probeSource_.has_value();
        } else if (!probeSource_ || *probeSource_ != source) {
            probe = source;
        }
    }
    if (restartMicrophone) {
        startMicrophone(request.microphoneId);
    }
    if (stopProbe) {
        stopSystemProbe();
    } else if (probe) {
        startSystemProbe(*probe);
    }
}

void AudioTestController::stop() {
    stopMicrophone();
    stopSystemProbe();
}

void AudioTestController::waitUntilIdle() {
    queue_.sync([] {});
}

void AudioTestController::startMicrophone(const std::string& deviceId) {
    SharedStream old;
    std::uint64_t generation = 0;
    {
        std::lock_guard lock(mutex_);
        generation = ++micGeneration_;
        micDevice_ = deviceId;
        state_.micActive = true;
        old = std::move(micStream_);
    }
    publish();
    auto handler = levelHandler(true, generation);
    std::weak_ptr<AudioTestController> weak = weak_from_this();
    queue_.post([old, weak, engines = deps_.engines, post = deps_.postToMain, deviceId, generation,
                 handler]() mutable {
        old.reset(); // the device is free before the new stream asks for it
        if (weak.expired()) {
            return; // the controller is being destroyed: nobody would see this stream
        }
        SharedStream stream;
        try {
            stream = engines->openMicrophone(deviceId, handler);
        } catch (const std::exception&) {
            // Silent: the level stays 0 and the flag goes false.
        }
        post([weak, generation, stream] {
            if (auto self = weak.lock()) {
                self->microphoneOpened(generation, stream);
            }
        });
    });
}

void AudioTestController::microphoneOpened(std::uint64_t generation, SharedStream stream) {
    bool running = false;
    {
        std::lock_guard lock(mutex_);
        if (generation != micGeneration_) {
            // A newer start or a stop came while this one opened: this stream was never wanted.
        } else if (stream == nullptr) {
            state_.micActive = false;
            micDevice_.reset();
        } else {
            micStream_ = stream;
            running = true;
            stream.reset();
        }
    }
    if (stream) {
        closeOnQueue(std::move(stream));
        return;
    }
    if (running && deps_.onMicrophoneTestRunning) {
        deps_.onMicrophoneTestRunning(true);
    }
    publish();
}

void AudioTestController::stopMicrophone() {
    SharedStream old;
    bool wasRunning = false;
    {
        std::lock_guard lock(mutex_);
        ++micGeneration_;
        wasRunning = micStream_ != nullptr;
        old = std::move(micStream_);
        micDevice_.reset();
        state_.micActive = false;
        state_.micLevel = 0.0;
    }
    if (old) {
        closeOnQueue(std::move(old));
    }
    if (wasRunning && deps_.onMicrophoneTestRunning) {
        deps_.onMicrophoneTestRunning(false);
    }
    publish();
}

void AudioTestController::startSystemProbe(const ProbeSource& source) {
    stopSystemProbe();
    std::uint64_t generation = 0;
    {
        std::lock_guard lock(mutex_);
        generation = ++probeGeneration_;
        probeSource_ = source;
    }
    auto handler = levelHandler(false, generation);
    std::weak_ptr<AudioTestController> weak = weak_from_this();
    queue_.post([weak, engines = deps_.engines, post = deps_.postToMain, source, generation, handler] {
        if (weak.expired()) {
            return;
        }
        SharedStream stream;
        try {
            stream = engines->openSystemProbe(source.mode, source.sourceId, source.allowFallback, handler);
        } catch (const std::exception&) {
            // Silent, as for the microphone.
        }
        post([weak, generation, stream] {
            if (auto self = weak.lock()) {
                self->probeOpened(generation, stream);
            }
        });
    });
}

void AudioTestController::probeOpened(std::uint64_t generation, SharedStream stream) {
    bool running = false;
    {
        std::lock_guard lock(mutex_);
        if (generation != probeGeneration_) {
            // Overtaken by a newer start or a stop, as for the microphone.
        } else if (stream == nullptr) {
            state_.systemProbeActive = false;
            probeSource_.reset();
        } else {
            probeStream_ = stream;
            state_.systemProbeActive = true;
            lastProbeLevelAt_ = deps_.clock->now();
            running = true;
            stream.reset();
        }
    }
    if (stream) {
        closeOnQueue(std::move(stream));
        return;
    }
    if (running) {
        // The probe says nothing during silence, so a tick lowers a level that has had no news.
        std::weak_ptr<AudioTestController> weak = weak_from_this();
        auto task = Task::run([weak, clock = deps_.clock, post = deps_.postToMain, generation] {
            while (!Task::isCurrentCancelled()) {
                clock->sleep(silenceTick);
                post([weak, generation] {
                    if (auto self = weak.lock()) {
                        self->silenceTickArrived(generation);
                    }
                });
            }
        });
        std::lock_guard lock(mutex_);
        silenceTask_ = task;
    }
    publish();
}

void AudioTestController::silenceTickArrived(std::uint64_t generation) {
    {
        std::lock_guard lock(mutex_);
        if (generation != probeGeneration_ || state_.systemLevel == 0.0 ||
            secondsBetween(lastProbeLevelAt_, deps_.clock->now()) <= silenceAfter) {
            return;
        }
        state_.systemLevel = 0.0;
    }
    publish();
}

void AudioTestController::stopSystemProbe() {
    SharedStream old;
    Task silence;
    {
        std::lock_guard lock(mutex_);
        ++probeGeneration_;
        old = std::move(probeStream_);
        silence = silenceTask_;
        silenceTask_ = Task();
        probeSource_.reset();
        state_.systemProbeActive = false;
        state_.systemLevel = 0.0;
    }
    if (silence) {
        silence.cancelAndJoin(); // its sleep wakes at once on cancellation
    }
    if (old) {
        closeOnQueue(std::move(old));
    }
    publish();
}

AudioTestEngines::SampleHandler AudioTestController::levelHandler(bool microphone, std::uint64_t generation) {
    // Runs on the stream's worker: only the sum of squares and, a dozen times a second, one post.
    auto meter = std::make_shared<IntervalRms>(LevelMath::publishInterval);
    std::weak_ptr<AudioTestController> weak = weak_from_this();
    return [meter, weak, clock = deps_.clock, post = deps_.postToMain, microphone,
            generation](const float* samples, std::size_t count) {
        auto rms = meter->add(samples, count, clock->now());
        if (!rms) {
            return;
        }
        const double level = LevelMath::displayLevel(*rms);
        post([weak, microphone, generation, level] {
            if (auto self = weak.lock()) {
                self->levelArrived(microphone, generation, level);
            }
        });
    };
}

void AudioTestController::levelArrived(bool microphone, std::uint64_t generation, double level) {
    {
        std::lock_guard lock(mutex_);
        if (microphone) {
            if (generation != micGeneration_ || micStream_ == nullptr) {
                return;
            }
            state_.micLevel = level;
        } else {
            if (generation != probeGeneration_ || probeStream_ == nullptr) {
                return;
            }
            state_.systemLevel = level;
            lastProbeLevelAt_ = deps_.clock->now();
        }
    }
    publish();
}

void AudioTestController::playTestTone() {
    std::string output;
    Task previous;
    {
        std::lock_guard lock(mutex_);
        if (state_.playingTestSound) {
            return;
        }
        state_.playingTestSound = true;
        output = outputId_;
        previous = toneTask_;
    }
    publish();
    if (previous) {
        previous.join(); // it has posted its end already: this returns at once
    }
    std::weak_ptr<AudioTestController> weak = weak_from_this();
    auto task = Task::run([weak, engines = deps_.engines, post = deps_.postToMain, output] {
        try {
            engines->playTone(output);
        } catch (const std::exception&) {
            // Silent: the user simply hears nothing.
        }
        post([weak] {
            if (auto self = weak.lock()) {
                self->toneEnded();
            }
        });
    });
    std::lock_guard lock(mutex_);
    toneTask_ = task;
}

void AudioTestController::toneEnded() {
    {
        std::lock_guard lock(mutex_);
        state_.playingTestSound = false;
    }
    publish();
}

void AudioTestController::closeOnQueue(SharedStream stream) {
    queue_.post([stream]() mutable { stream.reset(); });
}

void AudioTestController::publish() {
    std::function<void(const AudioTestState&)> handler;
    AudioTestState state;
    {
        std::lock_guard lock(mutex_);
        handler = onState_;
        state = state_;
    }
    if (handler) {
        handler(state);
    }
}

} // namespace kavelo
