#pragma once

#include "core/recording/AudioDevice.h"

#include <string>
#include <vector>

namespace kavelo {

// Which device is chosen after the device lists were read again.
class DeviceSelection {
  public:
    // A microphone the user chose stays chosen while it is present; otherwise the desktop's default,
    // else the first one, else none ("").
    static std::string microphone(const std::vector<AudioDevice>& devices, const std::string& current);
    // The output always follows the desktop's default, whatever was chosen before.
    static std::string output(const std::vector<AudioDevice>& devices);
};

} // namespace kavelo
