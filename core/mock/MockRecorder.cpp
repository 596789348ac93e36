#include "core/mock/MockRecorder.h"

#include "core/recording/RecorderError.h"

#include <algorithm>
#include <set>

namespace kavelo {

namespace {

RecorderStateChange stateChange(RecorderState state) {
    RecorderStateChange change;
    change.state = state;
    return change;
}

constexpr std::size_t kFrameBytes = 256;
constexpr std::size_t kHeaderBytes = 7;

// The header of one mono 48 kHz AAC-LC frame of the given length, as the real encoder writes it.
void writeHeader(std::uint8_t* p, std::size_t length) {
    p[0] = 0xFF;
    p[1] = 0xF1;
    p[2] = 0x4C;
    p[3] = static_cast<std::uint8_t>(0x40 | ((length >> 11) & 0x03));
    p[4] = static_cast<std::uint8_t>((length >> 3) & 0xFF);
    p[5] = static_cast<std::uint8_t>(((length & 0x07) << 5) | 0x1F);
    p[6] = 0xFC;
}

} // namespace

Bytes MockRecorder::chunkContent(int sequence, std::size_t size) {
    Bytes data(size, static_cast<std::uint8_t>(sequence % 251));
    if (size < kFrameBytes) {
        if (size >= kHeaderBytes) {
            writeHeader(data.data(), size);
        }
        return data;
    }
    // Whole frames; the last one takes the remainder, staying far below the 13-bit length limit.
    for (std::size_t offset = 0; offset < size; offset += kFrameBytes) {
        const bool last = size - offset < 2 * kFrameBytes;
        writeHeader(data.data() + offset, last ? size - offset : kFrameBytes);
        if (last) {
            break;
        }
    }
    return data;
}

MockRecorder::MockRecorder(Behavior behavior, std::shared_ptr<Clock> clock,
                           std::shared_ptr<UploadWorker> uploader)
    : behavior_(behavior), clock_(std::move(clock)), uploader_(std::move(uploader)),
      resumeFailuresLeft_(behavior.failResumeTimes), micPermissionState_(behavior.micPermission),
      systemPermissionState_(behavior.systemAudioPermission) {}

MockRecorder::~MockRecorder() {
    // The loop holds us weakly; when its last strong reference went away on the loop's own thread,
    // join returns at once and the loop ends at its next check.
    chunkTask_.cancelAndJoin();
}

void MockRecorder::attachUploader(std::shared_ptr<UploadWorker> uploader) {
    std::lock_guard lock(mutex_);
    uploader_ = std::move(uploader);
}

void MockRecorder::setEventHandlers(RecorderEventHandlers handlers) {
    std::lock_guard lock(mutex_);
    handlers_ = std::move(handlers);
}

PermissionState MockRecorder::checkMicrophonePermission() {
    std::lock_guard lock(mutex_);
    return micPermissionState_;
}

PermissionState MockRecorder::requestMicrophonePermission() {
    std::lock_guard lock(mutex_);
    if (micPermissionState_ == PermissionState::notDetermined) {
        micPermissionState_ = PermissionState::granted;
    }
    return micPermissionState_;
}

PermissionState MockRecorder::checkSystemAudioPermission() {
    std::lock_guard lock(mutex_);
    return systemPermissionState_;
}

PermissionState MockRecorder::requestSystemAudioPermission() {
    std::lock_guard lock(mutex_);
    if (systemPermissionState_ == PermissionState::notDetermined) {
        systemPermissionState_ = PermissionState::granted;
    }
    return systemPermissionState_;
}

std::vector<AudioDevice> MockRecorder::listMicrophones() {
    using K = AudioDevice::Kind;
    return {{"mock-mic-builtin", "Ingebouwde microfoon", K::microphone, true, "builtin"},
            {"mock-mic-airpods", "AirPods Pro", K::microphone, false, "bluetooth"}};
}

std::vector<AudioDevice> MockRecorder::listOutputDevices() {
    using K = AudioDevice::Kind;
    return {{"mock-out-speakers", "Ingebouwde luidsprekers", K::output, true, "builtin"},
            {"mock-out-airpods", "AirPods Pro", K::output, false, "bluetooth"}};
}

std::vector<AudioDevice> MockRecorder::listSystemAudioSources() {
    using K = AudioDevice::Kind;
    return {{"system", "Alle systeemaudio", K::systemAudioSource, true, std::nullopt},
            {"app-teams", "Microsoft Teams", K::systemAudioSource, false, std::nullopt},
            {"app-zoom", "Zoom", K::systemAudioSource, false, std::nullopt}};
}

void MockRecorder::start(const StartRecordingInput& input) {
    if (behavior_.failStart) {
        throw RecorderError::startFailed("mock start failure");
    }
    {
        std::lock_guard lock(mutex_);
        active_ = true;
        sequence_ = 0;
        slicesFilled_ = 0;
        if (!input.microphoneDeviceId.empty()) {
            currentMicrophoneId_ = input.microphoneDeviceId;
        }
        currentSystemAudioMode_ = input.systemAudioMode;
    }
    reportState(stateChange(RecorderState::recording));

    cancelChunkLoop();
    // The loop holds the recorder only for one step at a time, so dropping the recorder ends it.
    std::weak_ptr<MockRecorder> weak = weak_from_this();
    const double step = behavior_.chunkInterval / std::max(1, behavior_.journalSlices);
    auto task = Task::run([weak, clock = clock_, interval = step] {
        for (;;) {
            try {
                clock->sleep(interval);
            } catch (...) {
                return;
            }
            if (Task::isCurrentCancelled()) {
                return;
            }
            auto self = weak.lock();
            if (!self) {
                return;
            }
            self->chunkLoopStep();
        }
    });
    std::lock_guard lock(mutex_);
    chunkTask_ = task;
}

void MockRecorder::chunkLoopStep() {
    std::optional<int> produced;
    std::function<void(double, double)> onLevel;
    std::shared_ptr<UploadWorker> uploader;
    double micLevel = 0;
    double systemLevel = 0;
    const int slices = std::max(1, behavior_.journalSlices);
    int slice = 0;
    bool filling = false;
    {
        std::lock_guard lock(mutex_);
        if (!active_ || paused_) {
            return;
        }
        slice = slicesFilled_++;
        filling = slicesFilled_ < slices;
        if (filling) {
            produced = sequence_ + 1; // still filling: this step's share goes to the journal only
            uploader = uploader_;
        } else {
            slicesFilled_ = 0;
            produced = ++sequence_;
        }
        onLevel = handlers_.onLevel;
        micLevel = std::uniform_real_distribution<double>(0.1, 0.7)(random_);
        systemLevel = std::uniform_real_distribution<double>(0.05, 0.5)(random_);
    }
    if (filling) {
        if (!uploader) {
            return;
        }
        // The share of this step, cut at frame boundaries as the real encoder delivers whole frames.
        const auto content = chunkContent(*produced, static_cast<std::size_t>(behavior_.chunkBytes));
        const std::size_t frames = content.size() / kFrameBytes;
        const auto from = long(frames * std::size_t(slice) / std::size_t(slices) * kFrameBytes);
        const auto to = long(frames * std::size_t(slice + 1) / std::size_t(slices) * kFrameBytes);
        uploader->journal(Bytes(content.begin() + from, content.begin() + to), *produced);
        return;
    }
    emitChunk(*produced, false);
    if (onLevel) {
        onLevel(micLevel, systemLevel);
    }
}

void MockRecorder::emitChunk(int sequence, bool isFinal) {
    std::shared_ptr<UploadWorker> uploader;
    std::function<void(const AudioChunkEvent&)> onChunk;
    {
        std::lock_guard lock(mutex_);
        uploader = uploader_;
        onChunk = handlers_.onAudioChunk;
    }
    if (uploader) {
        uploader->enqueue(chunkContent(sequence, static_cast<std::size_t>(behavior_.chunkBytes)), sequence,
                          isFinal, 48000.0, 1);
    }
    if (onChunk) {
        onChunk(AudioChunkEvent{sequence, behavior_.chunkBytes, isFinal, 48000.0, 1});
    }
}

void MockRecorder::reportState(const RecorderStateChange& change) {
    std::function<void(const RecorderStateChange&)> onState;
    {
        std::lock_guard lock(mutex_);
        onState = handlers_.onStateChange;
    }
    if (onState) {
        onState(change);
    }
}

void MockRecorder::cancelChunkLoop() {
    Task task;
    {
        std::lock_guard lock(mutex_);
        task = std::exchange(chunkTask_, Task());
    }
    // Joined so that a loop chunk never overtakes the final one.
    task.cancelAndJoin();
}

int MockRecorder::stop() {
    cancelChunkLoop();
    int last;
    {
        std::lock_guard lock(mutex_);
        if (active_) {
            active_ = false;
            sequence_ += 1;
        }
        last = sequence_;
    }
    emitChunk(last, true);
    reportState(stateChange(RecorderState::stopped));
    return last;
}

void MockRecorder::pause() {
    if (behavior_.failPause) {
        throw RecorderError::startFailed("mock pause failure");
    }
    {
        std::lock_guard lock(mutex_);
        paused_ = true;
    }
    auto change = stateChange(RecorderState::paused);
    change.reason = "user";
    reportState(change);
}

void MockRecorder::resume() {
    {
        std::lock_guard lock(mutex_);
        if (resumeFailuresLeft_ > 0) {
            resumeFailuresLeft_ -= 1;
            throw RecorderError::resumeFailed("mock resume failure");
        }
        paused_ = false;
    }
    reportState(stateChange(RecorderState::recording));
}

void MockRecorder::switchMicrophone(const std::string& deviceId) {
    {
        std::lock_guard lock(mutex_);
        currentMicrophoneId_ = deviceId;
    }
    auto change = stateChange(RecorderState::routeChanged);
    change.inputChanged = true;
    change.inputName = deviceId;
    change.friendlyName = deviceId;
    reportState(change);
}

void MockRecorder::switchOutputDevice(const std::string& deviceId) {
    {
        std::lock_guard lock(mutex_);
        currentOutputId_ = deviceId;
    }
    auto change = stateChange(RecorderState::routeChanged);
    change.inputChanged = false;
    reportState(change);
}

void MockRecorder::switchSystemAudioSource(SystemAudioMode mode, const std::optional<std::string>& targetId) {
    {
        std::lock_guard lock(mutex_);
        currentSystemAudioMode_ = mode;
    }
    auto change = stateChange(RecorderState::routeChanged);
    change.route = targetId.value_or(std::string(toRaw(mode)));
    change.inputChanged = false;
    reportState(change);
}

RecorderRuntimeState MockRecorder::runtimeState() {
    std::lock_guard lock(mutex_);
    return RecorderRuntimeState{active_, paused_, false, sequence_, sequence_ * behavior_.chunkBytes, 0};
}

std::vector<int> MockRecorder::uploadedSequences() {
    std::shared_ptr<UploadWorker> uploader;
    {
        std::lock_guard lock(mutex_);
        uploader = uploader_;
    }
    if (!uploader) {
        return {};
    }
    auto list = uploader->uploadedSequences();
    std::sort(list.begin(), list.end());
    return list;
}

std::vector<int> MockRecorder::pendingSequences() {
    std::shared_ptr<UploadWorker> uploader;
    {
        std::lock_guard lock(mutex_);
        uploader = uploader_;
    }
    if (!uploader) {
        return {};
    }
    // The worker's pending list already holds what is in flight; a set keeps the union free of repeats.
    auto list = uploader->pendingSequences();
    std::set<int> unique(list.begin(), list.end());
    return {unique.begin(), unique.end()};
}

std::vector<FailedChunk> MockRecorder::failedChunks() {
    std::shared_ptr<UploadWorker> uploader;
    {
        std::lock_guard lock(mutex_);
        uploader = uploader_;
    }
    return uploader ? uploader->failedChunks() : std::vector<FailedChunk>{};
}

std::map<std::string, std::string> MockRecorder::diagnosticsSnapshot() {
    return {{"platform", "linux-mock"}, {"engine", "MockRecorder"}};
}

void MockRecorder::simulateSilentAudio() {
    std::function<void(const AudioErrorEvent&)> onError;
    {
        std::lock_guard lock(mutex_);
        onError = handlers_.onAudioError;
    }
    if (onError) {
        onError(
            AudioErrorEvent{"SILENT_AUDIO_DETECTED", "No audio detected for ~10 seconds. Check microphone."});
    }
}

void MockRecorder::simulateDeviceLoss() {
    auto change = stateChange(RecorderState::error);
    change.reason = "device_disconnected";
    change.errorCode = "DEVICE_DISCONNECTED";
    reportState(change);
}

void MockRecorder::simulateInterruption() {
    auto change = stateChange(RecorderState::interrupted);
    change.reason = "system";
    reportState(change);
}

void MockRecorder::simulateNetworkOffline() {
    reportState(stateChange(RecorderState::networkOffline));
}

void MockRecorder::simulateNetworkOnline() {
    reportState(stateChange(RecorderState::networkOnline));
}

std::string MockRecorder::currentMicrophoneId() const {
    std::lock_guard lock(mutex_);
    return currentMicrophoneId_;
}

std::string MockRecorder::currentOutputId() const {
    std::lock_guard lock(mutex_);
    return currentOutputId_;
}

SystemAudioMode MockRecorder::currentSystemAudioMode() const {
    std::lock_guard lock(mutex_);
    return currentSystemAudioMode_;
}

} // namespace kavelo
