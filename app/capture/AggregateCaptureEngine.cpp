#include "app/capture/AggregateCaptureEngine.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <utility>

namespace kavelo {

namespace {
long long nanoseconds(TimePoint t) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(t.time_since_epoch()).count();
}
} // namespace

std::shared_ptr<AggregateCaptureEngine>
AggregateCaptureEngine::make(std::shared_ptr<AggregateDevice> device, std::shared_ptr<Clock> clock,
                             std::optional<std::string> preferredMicrophone, Log log) {
    return std::shared_ptr<AggregateCaptureEngine>(new AggregateCaptureEngine(
        std::move(device), std::move(clock), std::move(preferredMicrophone), std::move(log)));
}

AggregateCaptureEngine::AggregateCaptureEngine(std::shared_ptr<AggregateDevice> device,
                                               std::shared_ptr<Clock> clock,
                                               std::optional<std::string> preferredMicrophone, Log log)
    : device_(std::move(device)), clock_(std::move(clock)),
      preferredMicrophone_(std::move(preferredMicrophone)), log_(std::move(log)) {}

AggregateCaptureEngine::~AggregateCaptureEngine() {
    stop();
}

void AggregateCaptureEngine::setHandlers(MonoBufferHandler onSystemBuffer, MonoBufferHandler onMicBuffer,
                                         InterruptionHandler onInterruptionStateChanged) {
    onSystemBuffer_ = std::move(onSystemBuffer);
    onMicBuffer_ = std::move(onMicBuffer);
    onInterruptionStateChanged_ = std::move(onInterruptionStateChanged);
}

long long AggregateCaptureEngine::droppedCycles() const {
    return droppedCycles_.load();
}

AggregateCaptureEngine::Counters AggregateCaptureEngine::counters() const {
    return {callbackCount_.load(), rawCallbackCount_.load(), isRunning_.load(), droppedCycles_.load()};
}

double AggregateCaptureEngine::secondsSince(const std::atomic<long long>& stamp) const {
    return double(nanoseconds(clock_->now()) - stamp.load()) / 1e9;
}

void AggregateCaptureEngine::stamp(std::atomic<long long>& field) {
    field.store(nanoseconds(clock_->now()));
}

// MARK: - Start and stop

void AggregateCaptureEngine::start() {
    control_->sync([this] {
        shouldBeRunning_ = true;
        hasGivenUp_ = false;
        rebuildAttempts_ = 0;
        buildAndStart();
    });
}

void AggregateCaptureEngine::stop() {
    Task rebuildDelay;
    auto body = [&] {
        shouldBeRunning_ = false;
        rebuildDelay = std::exchange(rebuildDelay_, {});
        teardown();
    };
    if (control_->isCurrent()) {
        body();
    } else {
        control_->sync(body);
    }
    for (Task* task : {&watchdog_, &diagnosticTimer_, &rebuildDelay}) {
        task->cancelAndJoin();
        *task = {};
    }
}

Task AggregateCaptureEngine::repeat(double first, double every, void (AggregateCaptureEngine::*tick)()) {
    std::weak_ptr<AggregateCaptureEngine> weak = weak_from_this();
    auto clock = clock_;
    return Task::run([weak, clock, first, every, tick] {
        double wait = first;
        for (;;) {
            clock->sleep(wait); // a cancelled sleep throws and ends the task
            wait = every;
            auto self = weak.lock();
            if (!self) {
                return;
            }
            self->control_->post([weak, tick] {
                if (auto engine = weak.lock()) {
                    ((*engine).*tick)();
                }
            });
        }
    });
}

void AggregateCaptureEngine::startWatchdog() {
    watchdog_.cancelAndJoin();
    watchdog_ = repeat(5, 3, &AggregateCaptureEngine::watchdogTick);
}

void AggregateCaptureEngine::startDiagnosticLogger() {
    diagnosticTimer_.cancelAndJoin();
    diagnosticTimer_ = repeat(5, 5, &AggregateCaptureEngine::diagnosticTick);
}

bool AggregateCaptureEngine::waitForFirstAudio(double timeoutSeconds) {
    auto deadline = addSeconds(clock_->now(), timeoutSeconds);
    for (;;) {
        if (clock_->now() >= deadline) {
            return false;
        }
        if (callbackCount_.load() >= 1) {
            return true;
        }
        try {
            clock_->sleep(0.1);
        } catch (...) {
        }
    }
}

// MARK: - Build and teardown (control queue)

void AggregateCaptureEngine::buildAndStart() {
    auto info = device_->build(preferredMicrophone_);
    micChannelCount_ = info.microphoneChannels;
    totalChannelCount_ = std::max(info.totalChannels, micChannelCount_);
    aggregateSampleRate_ = info.sampleRate > 0 ? info.sampleRate : 48000.0;
    char line[160];
    std::snprintf(line, sizeof line, "aggregate built: rate=%dHz total=%dch (mic=%d, sys=%d, tapFmt=%dch)",
                  int(aggregateSampleRate_), totalChannelCount_, micChannelCount_,
                  std::max(totalChannelCount_ - micChannelCount_, 0), info.systemFormatChannels);
    log_(line);
    allocateBuffers();

    callbackCount_ = 0;
    rawCallbackCount_ = 0;
    sawNonZeroSinceBuild_ = false;
    startedAt_ = nanoseconds(clock_->now());
    lastCallbackTime_ = startedAt_;
    lastNonZeroTime_ = startedAt_;
    try {
        // The handler may use this engine without holding it: teardown stops the cycles before it goes.
        device_->startIO([this](const IOBufferList& list) { handleIO(list); });
    } catch (...) {
        device_->teardown();
        throw;
    }
    isRunning_ = true;
    std::weak_ptr<AggregateCaptureEngine> weak = weak_from_this();
    // The listener runs on the audio server's loop thread and must never hold the engine there: the last
    // reference dropped on that thread would tear down the graph whose loop it is.
    device_->setDefaultDeviceListener([weak, control = control_] {
        control->post([weak] {
            if (auto engine = weak.lock()) {
                engine->onDefaultDeviceChanged();
            }
        });
    });
    log_("aggregate capture started");
}

void AggregateCaptureEngine::allocateBuffers() {
    micMix_.assign(maxFramesPerCallback, 0.0f);
    sysMix_.assign(maxFramesPerCallback, 0.0f);
    needsResample_ = std::abs(aggregateSampleRate_ - targetSampleRate) > 1.0;
    if (needsResample_) {
        micConverter_ = std::make_unique<MonoResampler>(aggregateSampleRate_, maxFramesPerCallback);
        sysConverter_ = std::make_unique<MonoResampler>(aggregateSampleRate_, maxFramesPerCallback);
        if (!micConverter_->isReady() || !sysConverter_->isReady()) {
            throw std::runtime_error("make 48k mono format");
        }
    } else {
        micConverter_.reset();
        sysConverter_.reset();
    }
}

void AggregateCaptureEngine::teardown() {
    device_->setDefaultDeviceListener({});
    device_->teardown();
    noteDroppedCycles();
    micMix_ = {};
    sysMix_ = {};
    micConverter_.reset();
    sysConverter_.reset();
    // A stop after a failed rebuild, or a second stop, has nothing to report.
    if (isRunning_.exchange(false)) {
        log_("aggregate capture stopped");
    }
}

// MARK: - IO (device worker thread)

void AggregateCaptureEngine::handleIO(const IOBufferList& list) {
    ++rawCallbackCount_;
    if (micMix_.empty() || sysMix_.empty() || list.buffers.empty()) {
        return;
    }
    auto channelsOf = [](const IOBufferList::Buffer& b) { return b.channels <= 1 ? 1 : b.channels; };
    const auto& first = list.buffers.front();
    const std::size_t frames = first.byteSize / (sizeof(float) * std::size_t(channelsOf(first)));
    if (frames == 0 || frames > maxFramesPerCallback) {
        return;
    }
    std::fill_n(micMix_.begin(), frames, 0.0f);
    std::fill_n(sysMix_.begin(), frames, 0.0f);
    bool sawSignal = false;
    int channelIndex = 0;
    for (const auto& buffer : list.buffers) {
        const int c = channelsOf(buffer);
        if (buffer.data == nullptr) {
            channelIndex += c;
            continue;
        }
        const std::size_t n = std::min(frames, buffer.byteSize / (sizeof(float) * std::size_t(c)));
        for (int k = 0; k < c; ++k) {
            float* target = channelIndex + k < micChannelCount_ ? micMix_.data() : sysMix_.data();
            for (std::size_t f = 0; f < n; ++f) {
                float sample = buffer.data[f * std::size_t(c) + std::size_t(k)];
                target[f] += sample;
                sawSignal = sawSignal || sample != 0.0f;
            }
        }
        channelIndex += c;
    }
    if (micChannelCount_ >= 1) {
        const float scale = 1.0f / float(micChannelCount_);
        std::for_each_n(micMix_.begin(), frames, [scale](float& s) { s *= scale; });
    }
    const int systemChannels = totalChannelCount_ - micChannelCount_;
    float peak = 0;
    if (systemChannels >= 1) {
        const float scale = 1.0f / float(systemChannels);
        std::for_each_n(sysMix_.begin(), frames, [&](float& s) {
            s *= scale;
            peak = std::max(peak, std::abs(s));
        });
    }
    stamp(lastCallbackTime_);
    bool firstSignal = false;
    if (sawSignal) {
        stamp(lastNonZeroTime_);
        firstSignal = !sawNonZeroSinceBuild_.exchange(true);
    }
    ++callbackCount_;
    float previous = maxSystemPeakSinceLog_.load();
    while (peak > previous && !maxSystemPeakSinceLog_.compare_exchange_weak(previous, peak)) {
    }
    if (firstSignal) {
        markRecovered();
    }

    // System always before microphone, so that the recorder's ring holds this cycle's system samples when
    // the microphone buffer arrives to be mixed.
    if (needsResample_) {
        if (systemChannels >= 1 && onSystemBuffer_) {
            if (auto n = sysConverter_->convert(sysMix_.data(), frames); n > 0) {
                onSystemBuffer_(sysConverter_->output(), n);
            }
        }
        if (onMicBuffer_) {
            if (auto n = micConverter_->convert(micMix_.data(), frames); n > 0) {
                onMicBuffer_(micConverter_->output(), n);
            }
        }
        return;
    }
    if (systemChannels >= 1 && onSystemBuffer_) {
        onSystemBuffer_(sysMix_.data(), frames);
    }
    if (onMicBuffer_) {
        onMicBuffer_(micMix_.data(), frames);
    }
}

// MARK: - Recovery machine (control queue)

void AggregateCaptureEngine::watchdogTick() {
    if (!shouldBeRunning_ || isRebuilding_ || hasGivenUp_ || !isRunning_) {
        return;
    }
    if (double(nanoseconds(clock_->now()) - startedAt_) / 1e9 <= startupGrace) {
        return;
    }
    // Only missing cycles count as a dead graph: exact zeros are what a muted microphone and a quiet output
    // deliver for as long as a meeting lasts.
    if (secondsSince(lastCallbackTime_) > stallThreshold) {
        rebuild("io stalled");
    }
}

void AggregateCaptureEngine::noteDroppedCycles() {
    const auto dropped = static_cast<long long>(device_->droppedCycles());
    const auto before = droppedCycles_.exchange(dropped);
    if (dropped > before) {
        log_("aggregate lost " + std::to_string(dropped - before) + " cycles (" + std::to_string(dropped) +
             " in all): the capture worker fell behind");
    }
}

void AggregateCaptureEngine::diagnosticTick() {
    noteDroppedCycles();
    char line[200];
    std::snprintf(line, sizeof line,
                  "aggregate alive: %lld callbacks (raw=%lld), rate=%dHz, quiet=%ds, sysPeak=%.4f",
                  callbackCount_.load(), rawCallbackCount_.load(), int(aggregateSampleRate_),
                  int(secondsSince(lastNonZeroTime_)), double(maxSystemPeakSinceLog_.exchange(0)));
    log_(line);
}

void AggregateCaptureEngine::rebuild(const std::string& reason) {
    if (!shouldBeRunning_ || isRebuilding_ || hasGivenUp_) {
        return;
    }
    isRebuilding_ = true;
    const int attempt = ++rebuildAttempts_;
    if (attempt > maxRebuildAttempts) {
        isRebuilding_ = false;
        markGivenUp(reason); // the running graph stays up, so that audio that comes back is noticed
        return;
    }
    log_("aggregate rebuild (" + reason + ") — attempt " + std::to_string(attempt) + "/" +
         std::to_string(maxRebuildAttempts));
    teardown();
    const double delay = std::min(std::pow(2.0, attempt - 1), 8.0);
    std::weak_ptr<AggregateCaptureEngine> weak = weak_from_this();
    auto clock = clock_;
    rebuildDelay_.cancel();
    rebuildDelay_ = Task::run([weak, clock, delay] {
        clock->sleep(delay); // cancelled by stop: the rebuild is dropped with the engine's wish to run
        auto self = weak.lock();
        if (!self) {
            return;
        }
        self->control_->post([weak] {
            auto engine = weak.lock();
            if (!engine) {
                return;
            }
            if (engine->shouldBeRunning_) {
                try {
                    engine->buildAndStart();
                    engine->log_("aggregate rebuilt — waiting for buffers");
                } catch (const std::exception& e) {
                    engine->log_(std::string("aggregate rebuild failed: ") + e.what());
                }
            }
            engine->isRebuilding_ = false;
        });
    });
}

void AggregateCaptureEngine::markRecovered() {
    std::weak_ptr<AggregateCaptureEngine> weak = weak_from_this();
    control_->post([weak] {
        auto self = weak.lock();
        if (!self) {
            return;
        }
        bool wasGivenUp = self->hasGivenUp_;
        self->rebuildAttempts_ = 0;
        self->hasGivenUp_ = false;
        if (wasGivenUp) {
            self->log_("aggregate audio flowing again — clearing interruption state");
            if (self->onInterruptionStateChanged_) {
                self->onInterruptionStateChanged_(false);
            }
        }
    });
}

void AggregateCaptureEngine::markGivenUp(const std::string& reason) {
    if (hasGivenUp_) {
        return;
    }
    hasGivenUp_ = true;
    log_("aggregate engine gave up after " + std::to_string(maxRebuildAttempts) + " attempts (" + reason +
         ") — audio device unavailable");
    if (onInterruptionStateChanged_) {
        onInterruptionStateChanged_(true);
    }
}

void AggregateCaptureEngine::onDefaultDeviceChanged() {
    hasGivenUp_ = false;
    rebuildAttempts_ = 0;
    rebuild("default device changed");
}

} // namespace kavelo
