#include "core/recording/ForwardingRecorder.h"

namespace kavelo {

ForwardingRecorder::ForwardingRecorder(std::shared_ptr<NativeRecorder> inner) : inner_(std::move(inner)) {}

void ForwardingRecorder::setEventHandlers(RecorderEventHandlers handlers) {
    inner_->setEventHandlers(std::move(handlers));
}
PermissionState ForwardingRecorder::checkMicrophonePermission() {
    return inner_->checkMicrophonePermission();
}
PermissionState ForwardingRecorder::requestMicrophonePermission() {
    return inner_->requestMicrophonePermission();
}
PermissionState ForwardingRecorder::checkSystemAudioPermission() {
    return inner_->checkSystemAudioPermission();
}
PermissionState ForwardingRecorder::requestSystemAudioPermission() {
    return inner_->requestSystemAudioPermission();
}
PermissionState ForwardingRecorder::checkAudioCapturePermission() {
    return inner_->checkAudioCapturePermission();
}
PermissionState ForwardingRecorder::requestAudioCapturePermission() {
    return inner_->requestAudioCapturePermission();
}
std::vector<AudioDevice> ForwardingRecorder::listMicrophones() {
    return inner_->listMicrophones();
}
std::vector<AudioDevice> ForwardingRecorder::listOutputDevices() {
    return inner_->listOutputDevices();
}
std::vector<AudioDevice> ForwardingRecorder::listSystemAudioSources() {
    return inner_->listSystemAudioSources();
}
void ForwardingRecorder::start(const StartRecordingInput& input) {
    inner_->start(input);
}
int ForwardingRecorder::stop() {
    return inner_->stop();
}
void ForwardingRecorder::pause() {
    inner_->pause();
}
void ForwardingRecorder::resume() {
    inner_->resume();
}
void ForwardingRecorder::switchMicrophone(const std::string& deviceId) {
    inner_->switchMicrophone(deviceId);
}
void ForwardingRecorder::switchOutputDevice(const std::string& deviceId) {
    inner_->switchOutputDevice(deviceId);
}
void ForwardingRecorder::switchSystemAudioSource(SystemAudioMode mode,
                                                 const std::optional<std::string>& targetId) {
    inner_->switchSystemAudioSource(mode, targetId);
}
RecorderRuntimeState ForwardingRecorder::runtimeState() {
    return inner_->runtimeState();
}
std::vector<int> ForwardingRecorder::uploadedSequences() {
    return inner_->uploadedSequences();
}
std::vector<int> ForwardingRecorder::pendingSequences() {
    return inner_->pendingSequences();
}
std::vector<FailedChunk> ForwardingRecorder::failedChunks() {
    return inner_->failedChunks();
}
std::map<std::string, std::string> ForwardingRecorder::diagnosticsSnapshot() {
    return inner_->diagnosticsSnapshot();
}

} // namespace kavelo
