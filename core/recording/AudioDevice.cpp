#include "core/recording/AudioDevice.h"

namespace kavelo {

Json toJson(const AudioDevice& device) {
    Json json{{"id", device.id},
              {"name", device.name},
              {"kind", std::string(toRaw(device.kind))},
              {"isDefault", device.isDefault}};
    if (device.transport) {
        json["transport"] = *device.transport;
    }
    return json;
}

AudioDevice audioDeviceFromJson(const Json& json) {
    try {
        AudioDevice device;
        device.id = json.at("id").get<std::string>();
        device.name = json.at("name").get<std::string>();
        auto kind = fromRaw<AudioDevice::Kind>(json.at("kind").get<std::string>());
        if (!kind) {
            throw DecodingError("unknown audio device kind");
        }
        device.kind = *kind;
        device.isDefault = json.at("isDefault").get<bool>();
        if (json.contains("transport") && !json["transport"].is_null()) {
            device.transport = json["transport"].get<std::string>();
        }
        return device;
    } catch (const Json::exception& e) {
        throw DecodingError(std::string("audio device: ") + e.what());
    }
}

} // namespace kavelo
