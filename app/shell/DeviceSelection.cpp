#include "app/shell/DeviceSelection.h"

#include <algorithm>

namespace kavelo {

std::string DeviceSelection::microphone(const std::vector<AudioDevice>& devices, const std::string& current) {
    if (!current.empty() &&
        std::any_of(devices.begin(), devices.end(), [&](const AudioDevice& d) { return d.id == current; })) {
        return current;
    }
    return output(devices);
}

std::string DeviceSelection::output(const std::vector<AudioDevice>& devices) {
    const auto preferred =
        std::find_if(devices.begin(), devices.end(), [](const AudioDevice& d) { return d.isDefault; });
    if (preferred != devices.end()) {
        return preferred->id;
    }
    return devices.empty() ? std::string() : devices.front().id;
}

} // namespace kavelo
