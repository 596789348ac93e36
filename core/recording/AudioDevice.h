#pragma once

#include "core/support/CoreJSON.h"
#include "core/support/RawEnum.h"

#include <optional>
#include <string>

namespace kavelo {

struct AudioDevice {
    enum class Kind { microphone, output, systemAudioSource };

    std::string id;   // stable identifier; what the switch operations take
    std::string name; // display name
    Kind kind = Kind::microphone;
    bool isDefault = false;
    std::optional<std::string> transport; // "builtin", "bluetooth", ...; absent for system audio sources

    bool operator==(const AudioDevice&) const = default;
};

template <> struct RawEnumTraits<AudioDevice::Kind> {
    static constexpr std::array<std::pair<AudioDevice::Kind, std::string_view>, 3> table{
        {{AudioDevice::Kind::microphone, "microphone"},
         {AudioDevice::Kind::output, "output"},
         {AudioDevice::Kind::systemAudioSource, "systemAudioSource"}}};
};

// JSON keys: id, name, kind, isDefault, transport (left out when absent).
Json toJson(const AudioDevice& device);
AudioDevice audioDeviceFromJson(const Json& json); // throws DecodingError

} // namespace kavelo
