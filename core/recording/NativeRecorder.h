#pragma once

#include "core/recording/AudioDevice.h"
#include "core/recording/PermissionState.h"
#include "core/recording/RecorderEventHandlers.h"
#include "core/recording/RecorderRuntimeState.h"
#include "core/recording/StartRecordingInput.h"
#include "core/transport/FailedChunk.h"

#include <map>
#include <string>
#include <vector>

namespace kavelo {

// The seam between the platform-free core and everything that touches audio hardware.
//
// The recorder produces numbered encoded chunks, hands them to the upload worker itself, and tells the
// coordinator only small records through the handlers. Operations that fail throw RecorderError.
// - start returns only when capture runs, and reports "recording".
// - stop ends capture, delivers a last chunk with isFinal, reports "stopped" and returns that chunk's
//   number; a recorder that was not active answers its current sequence.
// - pause and resume keep the sequence running; pause reports "paused" (reason "user" when asked by the
//   user), resume reports "recording" or throws.
// - the switch operations run during a recording and report "routeChanged".
class NativeRecorder {
  public:
    virtual ~NativeRecorder() = default;

    virtual void setEventHandlers(RecorderEventHandlers handlers) = 0;
    virtual PermissionState checkMicrophonePermission() = 0;
    virtual PermissionState requestMicrophonePermission() = 0;
    virtual PermissionState checkSystemAudioPermission() = 0;
    virtual PermissionState requestSystemAudioPermission() = 0;
    virtual PermissionState checkAudioCapturePermission() { return PermissionState::granted; }
    virtual PermissionState requestAudioCapturePermission() { return PermissionState::granted; }
    virtual std::vector<AudioDevice> listMicrophones() = 0;
    virtual std::vector<AudioDevice> listOutputDevices() = 0;
    virtual std::vector<AudioDevice> listSystemAudioSources() = 0;
    virtual void start(const StartRecordingInput& input) = 0;
    virtual int stop() = 0;
    virtual void pause() = 0;
    virtual void resume() = 0;
    virtual void switchMicrophone(const std::string& deviceId) = 0;
    virtual void switchOutputDevice(const std::string& deviceId) = 0;
    virtual void switchSystemAudioSource(SystemAudioMode mode,
                                         const std::optional<std::string>& targetId) = 0;
    virtual RecorderRuntimeState runtimeState() = 0;
    virtual std::vector<int> uploadedSequences() = 0;
    virtual std::vector<int> pendingSequences() = 0;
    virtual std::vector<FailedChunk> failedChunks() = 0;
    virtual std::map<std::string, std::string> diagnosticsSnapshot() = 0;
};

} // namespace kavelo
