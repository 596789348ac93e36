#include "app/capture/LinuxNativeRecorder.h"

#include "app/capture/ADTSAACEncoder.h"
#include "core/recording/RecorderError.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <utility>
#include <vector>

namespace kavelo {

namespace {
constexpr const char* onlyMicrophone = "Alleen microfoon";

RecorderStateChange stateChange(RecorderState state, std::optional<std::string> reason = std::nullopt) {
    RecorderStateChange change;
    change.state = state;
    change.reason = std::move(reason);
    return change;
}

// A cancelled or failing wait counts as a finished one: the caller goes on with its next step.
void waitQuietly(Clock& clock, double seconds) {
    try {
        clock.sleep(seconds);
    } catch (...) {
    }
}
} // namespace

std::shared_ptr<LinuxNativeRecorder> LinuxNativeRecorder::make(Dependencies dependencies) {
    return std::shared_ptr<LinuxNativeRecorder>(new LinuxNativeRecorder(std::move(dependencies)));
}

LinuxNativeRecorder::LinuxNativeRecorder(Dependencies dependencies)
    : uploader_(std::move(dependencies.uploader)), logger_(std::move(dependencies.logger)),
      clock_(std::move(dependencies.clock)), backend_(std::move(dependencies.backend)),
      devices_(std::move(dependencies.devices)), environment_(std::move(dependencies.environment)) {}

LinuxNativeRecorder::~LinuxNativeRecorder() {
    Task health, restart;
    {
        std::lock_guard lock(mutex_);
        health = std::exchange(healthTask_, {});
        restart = std::exchange(restartTask_, {});
    }
    // The tasks first: a restart under way would otherwise start a capture after the ones below are gone.
    health.cancelAndJoin();
    restart.cancelAndJoin();
    std::shared_ptr<AggregateCapture> aggregate;
    std::unique_ptr<MicrophoneCapture> microphone;
    std::unique_ptr<SystemAudioCapture> system;
    {
        std::lock_guard lock(mutex_);
        aggregate = std::exchange(aggregateEngine_, {});
        microphone = std::move(microphone_);
        system = std::move(systemAudio_);
    }
    // Every capture stops here, while all of this object still exists: their handlers point at it.
    if (aggregate) {
        aggregate->stop();
    }
    microphone.reset();
    system.reset();
}

// MARK: - Handlers

void LinuxNativeRecorder::setEventHandlers(RecorderEventHandlers handlers) {
    std::lock_guard lock(mutex_);
    handlers_ = std::move(handlers);
}

void LinuxNativeRecorder::sendState(RecorderStateChange change) {
    std::function<void(const RecorderStateChange&)> handler;
    {
        std::lock_guard lock(mutex_);
        handler = handlers_.onStateChange;
    }
    if (handler) {
        handler(change);
    }
}

void LinuxNativeRecorder::sendError(std::string code, std::string message) {
    std::function<void(const AudioErrorEvent&)> handler;
    {
        std::lock_guard lock(mutex_);
        handler = handlers_.onAudioError;
    }
    if (handler) {
        handler(AudioErrorEvent{std::move(code), std::move(message)});
    }
}

void LinuxNativeRecorder::sendLevel() {
    std::function<void(double, double)> handler;
    double mic, system;
    {
        std::lock_guard lock(mutex_);
        handler = handlers_.onLevel;
        mic = micLevel_;
        system = systemLevel_;
    }
    if (handler) {
        handler(mic, system);
    }
}

// MARK: - Start and the choice of capture path

void LinuxNativeRecorder::start(const StartRecordingInput& input) {
    if (devices_->microphoneAccess() != PermissionState::granted) {
        throw RecorderError::permissionDenied();
    }
    {
        std::lock_guard lock(mutex_);
        startInput_ = input;
        sequence_ = 0;
        chunkBuffer_.clear();
        journaled_ = {};
        totalBytesEncoded_ = 0;
        silentBufferCount_ = 0;
        consecutiveStaleChecks_ = 0;
        forceRestartCount_ = 0;
        buffersDelivered_ = 0;
        droppedCycles_ = 0;
        userPaused_ = false;
        stoppingOrRestarting_ = false;
    }
    startCapture(input);
    awaitFirstMicrophoneSamples();
    bool aggregate;
    {
        std::lock_guard lock(mutex_);
        recordingActive_ = true;
        aggregate = aggregateEngine_ != nullptr;
    }
    startHealthCheck();
    sendState(stateChange(RecorderState::recording));
    logger_->info("LinuxNativeRecorder started (mic=" + input.microphoneDeviceId +
                  ", system=" + std::string(toRaw(input.systemAudioMode)) +
                  ", engine=" + (aggregate ? "aggregate-tap" : "dual") + ")");
}

// The recording's clock starts when start returns: returning before the microphone sends samples would
// make every recording shorter than its time by however long the server took to link and wake the device.
// The aggregate path waits for its first cycle itself.
// Called by start and resume only: the capture they made stays theirs while they wait (the restart and
// health tasks are not running yet).
void LinuxNativeRecorder::awaitFirstMicrophoneSamples() {
    MicrophoneCapture* microphone = nullptr;
    {
        std::lock_guard lock(mutex_);
        microphone = microphone_.get();
    }
    if (microphone != nullptr && !microphone->waitForFirstSamples(firstAudioWaitSeconds)) {
        logger_->warn("microphone sent nothing within 2.5s; recording goes on, the health check watches it");
    }
}

bool LinuxNativeRecorder::audioTapDisabled() const {
    std::optional<std::string> value;
    if (environment_) {
        value = environment_("KAVELO_DISABLE_AUDIO_TAP");
    } else if (const char* raw = std::getenv("KAVELO_DISABLE_AUDIO_TAP")) {
        value = raw;
    }
    return value == "1";
}

void LinuxNativeRecorder::startCapture(const StartRecordingInput& input) {
    {
        // System audio left over from an earlier capture run (another meeting, or before a pause) must not
        // be mixed into this one.
        std::lock_guard lock(mutex_);
        systemRing_.clear();
    }
    bool tryAggregate = input.systemAudioMode == SystemAudioMode::system && !audioTapDisabled() &&
                        backend_->aggregatePathSupported();
    if (tryAggregate) {
        if (startAggregateCapture(input.microphoneDeviceId)) {
            return;
        }
        logger_->warn("aggregate capture unavailable — falling back to PulseAudio (geen telefonie-audio)");
        sendError("SYSTEM_AUDIO_TAP_UNAVAILABLE",
                  "Systeemaudio loopt op het terugvalpad; belgesprekken worden niet opgenomen.");
    }
    startEngineGraph(input.microphoneDeviceId);
    if (input.systemAudioMode != SystemAudioMode::off) {
        startSystemAudioCapture(input.systemAudioMode, input.systemAudioTargetId);
    }
}

// Capture handlers and the encoder's output hold this recorder by plain pointer, never by a reference of
// their own: a capture worker that held the last one would run the destructor, which stops that very
// worker. The destructor stops every capture before anything of this object goes.
std::shared_ptr<ADTSAACEncoder> LinuxNativeRecorder::makeEncoder() {
    auto encoder = std::make_shared<ADTSAACEncoder>();
    encoder->setOnEncodedData([this](const Bytes& data) { appendEncodedData(data); });
    return encoder;
}

void LinuxNativeRecorder::retireEncoder() {
    std::shared_ptr<ADTSAACEncoder> encoder;
    {
        std::lock_guard lock(mutex_);
        encoder = std::exchange(encoder_, {});
    }
    // The capture that fed it has stopped: what the encoder still holds is the run's last audio.
    if (encoder) {
        encoder->flush();
    }
}

bool LinuxNativeRecorder::startAggregateCapture(const std::string& microphoneId) {
    auto encoder = makeEncoder();
    std::optional<std::string> preference;
    if (!microphoneId.empty()) {
        preference = microphoneId;
    }
    auto logger = logger_;
    auto engine = backend_->makeAggregateCapture(
        preference, [logger](const std::string& line) { logger->info("[tap] " + line); });
    if (!engine) {
        return false;
    }
    engine->setHandlers(
        [this](const float* samples, std::size_t frames) { handleAggregateSystemBuffer(samples, frames); },
        [this](const float* samples, std::size_t frames) { handleMicBuffer(samples, frames); },
        [logger](bool interrupted) {
            // The health check is what catches a dead engine; this is only worth a line in the log.
            logger->warn(std::string("[tap] interruption state: ") + (interrupted ? "true" : "false"));
        });
    std::shared_ptr<AggregateCapture> previous;
    {
        std::lock_guard lock(mutex_);
        encoder_ = encoder;
        previous = std::exchange(aggregateEngine_, engine);
    }
    // Stopped outside the lock: its worker may be waiting for the lock in a handler.
    if (previous) {
        previous->stop();
    }
    try {
        engine->start();
    } catch (const std::exception& e) {
        logger_->warn(std::string("[tap] start failed: ") + e.what() +
                      " — runs PipeWire, and may we read the output? (pw-cli info 0)");
        engine->stop();
        std::lock_guard lock(mutex_);
        aggregateEngine_.reset();
        return false;
    }
    engine->startWatchdog();
    engine->startDiagnosticLogger();
    if (!engine->waitForFirstAudio(firstAudioWaitSeconds)) {
        logger_->warn("[tap] no IO callbacks within 2.5s — tearing down");
        engine->stop();
        std::lock_guard lock(mutex_);
        aggregateEngine_.reset();
        return false;
    }
    logger_->info(
        "[tap] aggregate capture actief (mic=" + (preference ? *preference : std::string("default")) + ")");
    return true;
}

void LinuxNativeRecorder::stopAggregateCapture() {
    std::shared_ptr<AggregateCapture> engine;
    {
        std::lock_guard lock(mutex_);
        engine = std::exchange(aggregateEngine_, {});
    }
    if (!engine) {
        return;
    }
    engine->stop();
    {
        std::lock_guard lock(mutex_);
        droppedCycles_ += engine->droppedCycles();
    }
    retireEncoder();
}

void LinuxNativeRecorder::startEngineGraph(const std::string& microphoneId) {
    // The encoder is in place before the first buffer can come, so nothing of the new stream is lost.
    auto encoder = makeEncoder();
    {
        std::lock_guard lock(mutex_);
        encoder_ = encoder;
    }
    auto microphone = backend_->startMicrophone(
        microphoneId, [this](const float* samples, std::size_t frames) { handleMicBuffer(samples, frames); });
    std::unique_ptr<MicrophoneCapture> previous;
    {
        std::lock_guard lock(mutex_);
        previous = std::exchange(microphone_, std::move(microphone));
    }
}

void LinuxNativeRecorder::teardownEngine() {
    std::unique_ptr<MicrophoneCapture> microphone;
    {
        std::lock_guard lock(mutex_);
        microphone = std::move(microphone_);
    }
    // Destroyed here, with the lock released: its worker may be waiting for the lock in handleMicBuffer.
    microphone.reset();
    retireEncoder();
}

void LinuxNativeRecorder::startSystemAudioCapture(SystemAudioMode mode,
                                                  const std::optional<std::string>& targetId) {
    auto result =
        backend_->startSystemAudio(mode, targetId, [this](const float* samples, std::size_t frames) {
            appendSystemSamples(samples, frames, rms(samples, frames));
        });
    using Outcome = SystemAudioStartResult::Outcome;
    switch (result.outcome) {
    case Outcome::started: {
        std::unique_ptr<SystemAudioCapture> previous;
        {
            std::lock_guard lock(mutex_);
            previous = std::exchange(systemAudio_, std::move(result.capture));
        }
        previous.reset();
        logger_->info("system audio capture started (mode=" + std::string(toRaw(mode)) + ")");
        return;
    }
    case Outcome::unavailable: {
        logger_->warn(
            "the audio server refuses to let us read its output; continuing with the microphone only");
        auto change = stateChange(RecorderState::routeChanged, "system_audio_unavailable");
        change.friendlyName = onlyMicrophone;
        sendState(change);
        return;
    }
    case Outcome::noOutput:
        return;
    case Outcome::failed: {
        logger_->warn("system audio capture failed: " + result.errorText + " — continuing mic-only");
        auto change = stateChange(RecorderState::routeChanged, "system_audio_failed");
        change.friendlyName = onlyMicrophone;
        sendState(change);
        return;
    }
    }
}

void LinuxNativeRecorder::stopSystemAudioCapture() {
    std::unique_ptr<SystemAudioCapture> system;
    {
        std::lock_guard lock(mutex_);
        system = std::move(systemAudio_);
    }
    system.reset();
}

void LinuxNativeRecorder::tearDownCapture() {
    stopAggregateCapture();
    stopSystemAudioCapture();
    teardownEngine();
}

// MARK: - Buffers

double LinuxNativeRecorder::rms(const float* samples, std::size_t frames) {
    if (samples == nullptr || frames == 0) {
        return 0;
    }
    // Four running sums instead of one: a single sum waits for its previous addition at every sample,
    // and this runs over every buffer of both streams.
    double sums[4] = {};
    std::size_t i = 0;
    for (; i + 4 <= frames; i += 4) {
        for (std::size_t k = 0; k < 4; ++k) {
            sums[k] += double(samples[i + k]) * double(samples[i + k]);
        }
    }
    for (; i < frames; ++i) {
        sums[0] += double(samples[i]) * double(samples[i]);
    }
    return std::sqrt(((sums[0] + sums[1]) + (sums[2] + sums[3])) / double(frames));
}

void LinuxNativeRecorder::handleMicBuffer(const float* samples, std::size_t frames) {
    {
        std::lock_guard lock(mutex_);
        if (userPaused_ || !recordingActive_) {
            return;
        }
        ++buffersDelivered_;
    }
    const double level = rms(samples, frames);
    bool alarm = false;
    {
        std::lock_guard lock(mutex_);
        micLevel_ = std::min(level * levelGain, 1.0);
    }
    sendLevel();
    {
        std::lock_guard lock(mutex_);
        if (level < micSilenceLimit && systemLevel_ < systemSilenceLimit) {
            if (++silentBufferCount_ >= silentBuffersBeforeAlarm) {
                silentBufferCount_ = 0;
                alarm = true;
            }
        } else {
            silentBufferCount_ = 0;
        }
    }
    if (alarm) {
        sendError("SILENT_AUDIO_DETECTED", "Geen geluid gedetecteerd (~10 sec). Controleer je microfoon.");
    }
    if (samples == nullptr || frames == 0) {
        return;
    }
    // The capture's buffer is read-only and reused by it; the mix goes into a copy of our own.
    std::vector<float> mixed(samples, samples + frames);
    mixInSystemAudio(mixed.data(), frames);
    std::shared_ptr<ADTSAACEncoder> encoder;
    {
        std::lock_guard lock(mutex_);
        encoder = encoder_;
    }
    if (encoder) {
        encoder->encode(mixed.data(), frames);
    }
}

void LinuxNativeRecorder::handleAggregateSystemBuffer(const float* samples, std::size_t frames) {
    if (samples == nullptr || frames == 0) {
        return;
    }
    appendSystemSamples(samples, frames, rms(samples, frames));
}

void LinuxNativeRecorder::appendSystemSamples(const float* samples, std::size_t frames, double rms) {
    {
        std::lock_guard lock(mutex_);
        systemLevel_ = std::min(rms * levelGain, 1.0);
        systemRing_.insert(systemRing_.end(), samples, samples + frames);
        if (systemRing_.size() > systemRingCapacity) {
            systemRing_.erase(systemRing_.begin(),
                              systemRing_.begin() + long(systemRing_.size() - systemRingCapacity));
        }
    }
    sendLevel();
}

void LinuxNativeRecorder::mixInSystemAudio(float* buffer, std::size_t frames) {
    std::lock_guard lock(mutex_);
    const std::size_t n = std::min(systemRing_.size(), frames);
    // Walked with an iterator: indexing a deque finds the block of every sample anew.
    auto source = systemRing_.begin();
    for (std::size_t i = 0; i < n; ++i, ++source) {
        buffer[i] = std::clamp(buffer[i] + *source, -1.0f, 1.0f);
    }
    systemRing_.erase(systemRing_.begin(), source);
}

std::vector<float> LinuxNativeRecorder::systemRingSnapshot() const {
    std::lock_guard lock(mutex_);
    return {systemRing_.begin(), systemRing_.end()};
}

// MARK: - Chunks

void LinuxNativeRecorder::appendEncodedData(const Bytes& data) {
    Bytes chunk;
    int sequence;
    Bytes journal;
    {
        std::lock_guard lock(mutex_);
        chunkBuffer_.insert(chunkBuffer_.end(), data.begin(), data.end());
        totalBytesEncoded_ += static_cast<long long>(data.size());
        if (chunkBuffer_.size() < chunkCutBytes) {
            // About once a second the chunk being filled grows in its journal, so a crash loses no more.
            const auto now = clock_->now();
            if (secondsBetween(journaled_.at, now) < journalIntervalSeconds) {
                return;
            }
            if (journaled_.sequence != sequence_ + 1) {
                journaled_ = {sequence_ + 1, 0, journaled_.at}; // every cut starts a new journal
            }
            journal.assign(chunkBuffer_.begin() + long(journaled_.bytes), chunkBuffer_.end());
            journaled_ = {sequence_ + 1, chunkBuffer_.size(), now};
            sequence = sequence_ + 1;
        } else {
            sequence = ++sequence_;
            chunk = std::exchange(chunkBuffer_, {});
        }
    }
    if (!journal.empty()) {
        uploader_->journal(journal, sequence);
        return;
    }
    emitChunk(chunk, sequence, false);
}

void LinuxNativeRecorder::emitChunk(const Bytes& data, int sequence, bool isFinal) {
    uploader_->enqueue(data, sequence, isFinal, 48000.0, 1);
    std::function<void(const AudioChunkEvent&)> handler;
    {
        std::lock_guard lock(mutex_);
        handler = handlers_.onAudioChunk;
    }
    if (handler) {
        handler(AudioChunkEvent{sequence, static_cast<long long>(data.size()), isFinal, 48000.0, 1});
    }
}

// MARK: - Stop, pause, resume

bool LinuxNativeRecorder::cancelPendingRestart() {
    Task restart;
    {
        std::lock_guard lock(mutex_);
        restart = std::exchange(restartTask_, {});
    }
    // A forced restart still waiting to bring capture back must not do so after a stop, a pause or a
    // switch has decided what runs.
    restart.cancelAndJoin();
    std::lock_guard lock(mutex_);
    return std::exchange(stoppingOrRestarting_, false);
}

int LinuxNativeRecorder::stop() {
    // The health check first: a tick under way may still order a restart, which the next line cancels.
    stopHealthCheck();
    cancelPendingRestart();
    {
        std::lock_guard lock(mutex_);
        stoppingOrRestarting_ = true;
    }
    sendState(stateChange(RecorderState::stopping));
    // The capture delivers what it still buffers and the encoder its tail before the last chunk is cut.
    tearDownCapture();
    Bytes last;
    int lastSequence;
    {
        std::lock_guard lock(mutex_);
        recordingActive_ = false;
        userPaused_ = false;
        if (!chunkBuffer_.empty()) {
            ++sequence_;
            last = std::exchange(chunkBuffer_, {});
        }
        lastSequence = sequence_;
        stoppingOrRestarting_ = false;
    }
    if (!last.empty()) {
        emitChunk(last, lastSequence, true);
    }
    sendState(stateChange(RecorderState::stopped));
    logger_->info("LinuxNativeRecorder stopped lastSequence=" + std::to_string(lastSequence));
    return lastSequence;
}

void LinuxNativeRecorder::pause() {
    {
        std::lock_guard lock(mutex_);
        if (!recordingActive_ || userPaused_) {
            throw RecorderError::notRecording();
        }
    }
    stopHealthCheck();
    cancelPendingRestart();
    // Everything captured up to the pause still goes into this chunk: the capture is drained and the
    // encoder flushed before the cut, and only then are buffers refused.
    tearDownCapture();
    Bytes taken;
    int sequence = 0;
    {
        std::lock_guard lock(mutex_);
        userPaused_ = true;
        stoppingOrRestarting_ = false;
        if (!chunkBuffer_.empty()) {
            sequence = ++sequence_;
            taken = std::exchange(chunkBuffer_, {});
        }
    }
    if (!taken.empty()) {
        emitChunk(taken, sequence, false);
    }
    sendState(stateChange(RecorderState::paused, "user"));
}

void LinuxNativeRecorder::resume() {
    std::optional<StartRecordingInput> input;
    {
        std::lock_guard lock(mutex_);
        input = startInput_;
    }
    if (!input) {
        throw RecorderError::notRecording();
    }
    static constexpr double waits[] = {0.3, 0.5, 0.5};
    std::string lastError;
    bool started = false;
    for (double wait : waits) {
        try {
            startCapture(*input);
            started = true;
            break;
        } catch (const std::exception& e) {
            lastError = e.what();
            tearDownCapture();
        }
        waitQuietly(*clock_, wait);
    }
    if (!started) {
        sendState(stateChange(RecorderState::resumeFailed));
        throw RecorderError::resumeFailed(lastError);
    }
    awaitFirstMicrophoneSamples();
    {
        std::lock_guard lock(mutex_);
        userPaused_ = false;
    }
    startHealthCheck();
    sendState(stateChange(RecorderState::recording));
}

// MARK: - Switches

std::string LinuxNativeRecorder::displayName(const std::string& deviceId) {
    return devices_->deviceName(deviceId).value_or(deviceId);
}

void LinuxNativeRecorder::switchMicrophone(const std::string& deviceId) {
    // The switch decides what runs: a forced restart left waiting would start a second capture, and one
    // cut short leaves nothing running, so the switch brings the whole capture back.
    const bool captureDown = cancelPendingRestart();
    bool active, paused, aggregate;
    std::optional<StartRecordingInput> input;
    {
        std::lock_guard lock(mutex_);
        if (startInput_) {
            startInput_->microphoneDeviceId = deviceId;
        }
        active = recordingActive_;
        paused = userPaused_;
        aggregate = aggregateEngine_ != nullptr;
        input = startInput_;
    }
    if (paused || !active) {
        return;
    }
    if (captureDown && input) {
        tearDownCapture();
        startCapture(*input);
    } else if (!aggregate) {
        teardownEngine();
        startEngineGraph(deviceId);
    } else {
        stopAggregateCapture();
        if (input) {
            startCapture(*input);
        }
    }
    auto name = displayName(deviceId);
    auto change = stateChange(RecorderState::routeChanged);
    change.inputChanged = true;
    change.inputName = name;
    change.friendlyName = name;
    sendState(change);
}

void LinuxNativeRecorder::switchOutputDevice(const std::string& deviceId) {
    auto name = displayName(deviceId);
    if (!devices_->setDefaultOutputDevice(deviceId)) {
        logger_->warn("kon systeemuitvoer niet omzetten naar " + name);
    }
    auto change = stateChange(RecorderState::routeChanged);
    change.inputChanged = false;
    change.friendlyName = name;
    sendState(change);
}

void LinuxNativeRecorder::switchSystemAudioSource(SystemAudioMode mode,
                                                  const std::optional<std::string>& targetId) {
    const bool captureDown = cancelPendingRestart();
    bool active, aggregate;
    std::optional<StartRecordingInput> input;
    {
        std::lock_guard lock(mutex_);
        if (startInput_) {
            startInput_->systemAudioMode = mode;
            startInput_->systemAudioTargetId = targetId;
        }
        active = recordingActive_ && !userPaused_;
        aggregate = aggregateEngine_ != nullptr;
        input = startInput_;
    }
    if (!active) {
        return;
    }
    if (!captureDown && !aggregate && mode != SystemAudioMode::system) {
        stopSystemAudioCapture();
        if (mode != SystemAudioMode::off) {
            startSystemAudioCapture(mode, targetId);
        }
    } else {
        tearDownCapture();
        if (input) {
            startCapture(*input);
        }
    }
    auto change = stateChange(RecorderState::routeChanged);
    change.inputChanged = false;
    change.friendlyName = targetId ? *targetId : std::string(toRaw(mode));
    sendState(change);
}

// MARK: - Health check

void LinuxNativeRecorder::startHealthCheck() {
    stopHealthCheck();
    std::weak_ptr<LinuxNativeRecorder> weak = weak_from_this();
    auto clock = clock_;
    std::lock_guard lock(mutex_);
    lastHealthBuffers_ = buffersDelivered_;
    healthTask_ = Task::run([weak, clock] {
        for (;;) {
            waitQuietly(*clock, healthTickSeconds);
            if (Task::isCurrentCancelled()) {
                return;
            }
            auto self = weak.lock();
            if (!self) {
                return;
            }
            self->healthCheckTick();
        }
    });
}

void LinuxNativeRecorder::stopHealthCheck() {
    Task task;
    {
        std::lock_guard lock(mutex_);
        task = std::exchange(healthTask_, {});
    }
    // Joining from inside the tick (the permanent stall stops its own timer) returns at once.
    task.cancelAndJoin();
}

void LinuxNativeRecorder::healthCheckTick() {
    int stale = 0;
    int restarts;
    {
        std::lock_guard lock(mutex_);
        // Health is audio arriving, silent or not. Chunks are no measure: a quiet meeting encodes to a few
        // hundred bytes a second and fills a chunk only every few minutes.
        if (recordingActive_ && !userPaused_ && !stoppingOrRestarting_) {
            if (buffersDelivered_ == lastHealthBuffers_) {
                ++consecutiveStaleChecks_;
            } else {
                consecutiveStaleChecks_ = 0;
                forceRestartCount_ = 0;
                lastHealthBuffers_ = buffersDelivered_;
            }
            stale = consecutiveStaleChecks_;
        }
        restarts = forceRestartCount_;
    }
    if (stale < staleTicksBeforeRestart) {
        return;
    }
    if (restarts >= forcedRestartLimit) {
        logger_->error("engine stalled permanently after " + std::to_string(restarts) + " restarts");
        sendError("ENGINE_STALLED_PERMANENT", "De audio-engine reageert niet meer.");
        auto change = stateChange(RecorderState::error, "engine_stalled_permanent");
        change.errorCode = "engine_stalled_permanent";
        sendState(change);
        stopHealthCheck();
        return;
    }
    int count;
    {
        std::lock_guard lock(mutex_);
        count = ++forceRestartCount_;
        consecutiveStaleChecks_ = 0;
        stoppingOrRestarting_ = true;
    }
    forceRestart(count);
}

void LinuxNativeRecorder::forceRestart(int count) {
    std::optional<StartRecordingInput> input;
    {
        std::lock_guard lock(mutex_);
        input = startInput_;
    }
    logger_->warn("engine stalled — force restart #" + std::to_string(count));
    sendState(stateChange(RecorderState::restarting, "engine_stalled"));
    tearDownCapture();
    std::weak_ptr<LinuxNativeRecorder> weak = weak_from_this();
    auto clock = clock_;
    auto task = Task::run([weak, clock, input] {
        waitQuietly(*clock, restartPauseSeconds);
        if (Task::isCurrentCancelled()) {
            return; // the recording was stopped meanwhile
        }
        auto self = weak.lock();
        if (!self) {
            return;
        }
        std::optional<std::string> failure;
        try {
            if (input) {
                self->startCapture(*input);
            } else {
                self->startEngineGraph("");
            }
        } catch (const std::exception& e) {
            failure = e.what();
        }
        {
            std::lock_guard lock(self->mutex_);
            self->stoppingOrRestarting_ = false;
        }
        if (failure) {
            self->sendError("ENGINE_RESTART_FAILED", *failure);
        } else {
            self->sendState(stateChange(RecorderState::recording, "restarted"));
        }
    });
    Task previous;
    {
        std::lock_guard lock(mutex_);
        previous = std::exchange(restartTask_, task);
    }
    // A previous restart finished long ago (ticks are 30 seconds apart); this only releases its handle.
    previous.cancelAndJoin();
}

// MARK: - State and forwarding

RecorderRuntimeState LinuxNativeRecorder::runtimeState() {
    std::shared_ptr<AggregateCapture> engine;
    RecorderRuntimeState state;
    {
        std::lock_guard lock(mutex_);
        state = RecorderRuntimeState{recordingActive_, userPaused_,        stoppingOrRestarting_,
                                     sequence_,        totalBytesEncoded_, droppedCycles_};
        engine = aggregateEngine_;
    }
    if (engine) {
        state.droppedCycles += engine->droppedCycles();
    }
    return state;
}

std::map<std::string, std::string> LinuxNativeRecorder::diagnosticsSnapshot() {
    const auto state = runtimeState();
    std::lock_guard lock(mutex_);
    return {
        {"platform", "linux"},
        {"engine", aggregateEngine_ ? "PipeWireAggregate" : "PulseAudio"},
        {"lastSequence", std::to_string(sequence_)},
        {"bytesEncoded", std::to_string(totalBytesEncoded_)},
        {"droppedCycles", std::to_string(state.droppedCycles)},
    };
}

std::vector<int> LinuxNativeRecorder::uploadedSequences() {
    return uploader_->uploadedSequences();
}
std::vector<int> LinuxNativeRecorder::pendingSequences() {
    return uploader_->pendingSequences();
}
std::vector<FailedChunk> LinuxNativeRecorder::failedChunks() {
    return uploader_->failedChunks();
}

std::vector<AudioDevice> LinuxNativeRecorder::listMicrophones() {
    return devices_->listMicrophones();
}
std::vector<AudioDevice> LinuxNativeRecorder::listOutputDevices() {
    return devices_->listOutputDevices();
}
std::vector<AudioDevice> LinuxNativeRecorder::listSystemAudioSources() {
    return devices_->listSystemAudioSources();
}

// MARK: - Permissions

PermissionState LinuxNativeRecorder::checkMicrophonePermission() {
    return devices_->microphoneAccess();
}

// A desktop session has no prompt for the microphone: the audio server's answer is the whole story.
PermissionState LinuxNativeRecorder::requestMicrophonePermission() {
    return devices_->microphoneAccess();
}

PermissionState LinuxNativeRecorder::checkSystemAudioPermission() {
    return devices_->systemAudioAccess() ? PermissionState::granted : PermissionState::notDetermined;
}

PermissionState LinuxNativeRecorder::requestSystemAudioPermission() {
    if (!devices_->systemAudioAccess()) {
        return PermissionState::denied;
    }
    primeAudioCaptureTap();
    return PermissionState::granted;
}

void LinuxNativeRecorder::primeAudioCaptureTap() {
    if (audioTapDisabled() || !backend_->aggregatePathSupported()) {
        return;
    }
    bool allowed = backend_->probeAudioCapture();
    logger_->info(std::string("[tap] audio-capture permissie geprimed: ") +
                  (allowed ? "toegestaan" : "geweigerd/onbeslist"));
}

PermissionState LinuxNativeRecorder::checkAudioCapturePermission() {
    if (audioTapDisabled() || !backend_->aggregatePathSupported()) {
        return PermissionState::granted;
    }
    bool allowed = backend_->probeAudioCapture();
    logger_->info(std::string("[tap] audio-capture toestemming: ") +
                  (allowed ? "ja" : "nee — belgesprekken worden niet opgenomen"));
    return allowed ? PermissionState::granted : PermissionState::notDetermined;
}

PermissionState LinuxNativeRecorder::requestAudioCapturePermission() {
    if (audioTapDisabled() || !backend_->aggregatePathSupported()) {
        return PermissionState::granted;
    }
    if (backend_->probeAudioCapture()) {
        return PermissionState::granted;
    }
    for (int attempt = 0; attempt < 20; ++attempt) {
        waitQuietly(*clock_, 0.5);
        if (backend_->probeAudioCapture()) {
            return PermissionState::granted;
        }
    }
    logger_->warn("[tap] audio-capture permissie niet verleend — belgesprekken worden niet opgenomen");
    return PermissionState::denied;
}

} // namespace kavelo
