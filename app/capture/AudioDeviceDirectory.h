#pragma once

#include "core/recording/AudioDevice.h"
#include "core/recording/PermissionState.h"

#include <optional>
#include <string>
#include <vector>

namespace kavelo {

// Devices and rights as the audio server tells them. Never throws: what cannot be read is left out.
// Implemented over the PulseAudio API by PulseAudioDevices (also on pipewire-pulse).
class AudioDeviceDirectory {
  public:
    virtual ~AudioDeviceDirectory() = default;

    virtual std::vector<AudioDevice> listMicrophones() = 0;
    virtual std::vector<AudioDevice> listOutputDevices() = 0;
    // "system" first, then each known meeting application that plays audio now.
    virtual std::vector<AudioDevice> listSystemAudioSources() = 0;
    virtual std::optional<std::string> deviceName(const std::string& deviceId) = 0;
    // True when the device is the default output afterwards.
    virtual bool setDefaultOutputDevice(const std::string& deviceId) = 0;

    // granted when the audio server lets us record, denied when it refuses us, notDetermined when no
    // audio server answers.
    virtual PermissionState microphoneAccess() = 0;
    // Whether the default output's sound can be read (a monitor of it exists and we may record it).
    virtual bool systemAudioAccess() = 0;
};

} // namespace kavelo
