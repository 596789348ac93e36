#pragma once

#include "core/recording/NativeRecorder.h"

#include <memory>

namespace kavelo {

// A recorder that passes every call to another one. Front ends and tests derive from it to watch or
// change one or two calls without restating the whole contract.
class ForwardingRecorder : public NativeRecorder {
  public:
    explicit ForwardingRecorder(std::shared_ptr<NativeRecorder> inner);

    void setEventHandlers(RecorderEventHandlers handlers) override;
    PermissionState checkMicrophonePermission() override;
    PermissionState requestMicrophonePermission() override;
    PermissionState checkSystemAudioPermission() override;
    PermissionState requestSystemAudioPermission() override;
    PermissionState checkAudioCapturePermission() override;
    PermissionState requestAudioCapturePermission() override;
    std::vector<AudioDevice> listMicrophones() override;
    std::vector<AudioDevice> listOutputDevices() override;
    std::vector<AudioDevice> listSystemAudioSources() override;
    void start(const StartRecordingInput& input) override;
    int stop() override;
    void pause() override;
    void resume() override;
    void switchMicrophone(const std::string& deviceId) override;
    void switchOutputDevice(const std::string& deviceId) override;
    void switchSystemAudioSource(SystemAudioMode mode, const std::optional<std::string>& targetId) override;
    RecorderRuntimeState runtimeState() override;
    std::vector<int> uploadedSequences() override;
    std::vector<int> pendingSequences() override;
    std::vector<FailedChunk> failedChunks() override;
    std::map<std::string, std::string> diagnosticsSnapshot() override;

  protected:
    const std::shared_ptr<NativeRecorder> inner_;
};

} // namespace kavelo
