#pragma once

#include "core/recording/NativeRecorder.h"

#include <functional>
#include <memory>

namespace kavelo::cli {

// Passes every call to the real recorder and lets the command line see each event before the
// coordinator does, so that it can print chunks and warnings as they happen.
class ObservingRecorder final : public NativeRecorder {
  public:
    ObservingRecorder(std::shared_ptr<NativeRecorder> inner, RecorderEventHandlers observers);

    void setEventHandlers(RecorderEventHandlers handlers) override;
    PermissionState checkMicrophonePermission() override { return inner_->checkMicrophonePermission(); }
    PermissionState requestMicrophonePermission() override { return inner_->requestMicrophonePermission(); }
    PermissionState checkSystemAudioPermission() override { return inner_->checkSystemAudioPermission(); }
    PermissionState requestSystemAudioPermission() override { return inner_->requestSystemAudioPermission(); }
    PermissionState checkAudioCapturePermission() override { return inner_->checkAudioCapturePermission(); }
    PermissionState requestAudioCapturePermission() override {
        return inner_->requestAudioCapturePermission();
    }
    std::vector<AudioDevice> listMicrophones() override { return inner_->listMicrophones(); }
    std::vector<AudioDevice> listOutputDevices() override { return inner_->listOutputDevices(); }
    std::vector<AudioDevice> listSystemAudioSources() override { return inner_->listSystemAudioSources(); }
    void start(const StartRecordingInput& input) override { inner_->start(input); }
    int stop() override { return inner_->stop(); }
    void pause() override { inner_->pause(); }
    void resume() override { inner_->resume(); }
    void switchMicrophone(const std::string& deviceId) override { inner_->switchMicrophone(deviceId); }
    void switchOutputDevice(const std::string& deviceId) override { inner_->switchOutputDevice(deviceId); }
    void switchSystemAudioSource(SystemAudioMode mode, const std::optional<std::string>& targetId) override {
        inner_->switchSystemAudioSource(mode, targetId);
    }
    RecorderRuntimeState runtimeState() override { return inner_->runtimeState(); }
    std::vector<int> uploadedSequences() override { return inner_->uploadedSequences(); }
    std::vector<int> pendingSequences() override { return inner_->pendingSequences(); }
    std::vector<FailedChunk> failedChunks() override { return inner_->failedChunks(); }
    std::map<std::string, std::string> diagnosticsSnapshot() override {
        return inner_->diagnosticsSnapshot();
    }

  private:
    std::shared_ptr<NativeRecorder> inner_;
    const RecorderEventHandlers observers_;
};

} // namespace kavelo::cli
