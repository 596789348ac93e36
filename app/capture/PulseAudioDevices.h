#pragma once

#include "app/capture/AudioDeviceDirectory.h"
#include "app/capture/PulseServerSnapshot.h"

namespace kavelo {

// Devices and rights over the PulseAudio API (PulseAudio itself, or PipeWire through pipewire-pulse).
// Stateless: every call opens a short connection, so it may be called from any thread.
//
// A device's id is its node name, stable over reboots and re-plugs. Monitors are never offered as
// microphones, and our own objects (names beginning with "kavely") are never offered at all.
class PulseAudioDevices final : public AudioDeviceDirectory {
  public:
    std::vector<AudioDevice> listMicrophones() override;
    std::vector<AudioDevice> listOutputDevices() override;
    std::vector<AudioDevice> listSystemAudioSources() override;
    std::optional<std::string> deviceName(const std::string& deviceId) override;
    bool setDefaultOutputDevice(const std::string& deviceId) override;
    PermissionState microphoneAccess() override;
    bool systemAudioAccess() override;

    // The plain part, from a snapshot: the list of one kind, in the server's order.
    static std::vector<AudioDevice> devicesFrom(const PulseServerSnapshot& snapshot, bool input);
    // "usb", "bluetooth", "builtin" (a bus on the mainboard or an internal form factor), "virtual" (no
    // hardware behind it), or "other".
    static std::string transportFor(const PulseServerSnapshot::Device& device);

  private:
    static std::optional<PulseServerSnapshot> snapshot();
};

} // namespace kavelo
