#include "app/capture/PulseAudioDevices.h"

#include "app/capture/PulseConnection.h"
#include "app/capture/SystemAudioTargets.h"

#include <pulse/pulseaudio.h>

namespace kavelo {

namespace {
bool isOurs(const std::string& name) {
    return name.rfind("kavely", 0) == 0;
}

void onSuccess(pa_context*, int success, void* userdata) {
    auto* result = static_cast<std::pair<PulseConnection*, bool>*>(userdata);
    result->second = success != 0;
    result->first->signal();
}
} // namespace

std::optional<PulseServerSnapshot> PulseAudioDevices::snapshot() {
    auto connection = PulseConnection::connect("Kavely devices");
    if (!connection) {
        return std::nullopt;
    }
    return PulseServerSnapshot::read(*connection);
}

std::string PulseAudioDevices::transportFor(const PulseServerSnapshot::Device& device) {
    if (device.bus == "usb") {
        return "usb";
    }
    if (device.bus == "bluetooth") {
        return "bluetooth";
    }
    if (!device.hardware) {
        return "virtual";
    }
    if (device.bus == "pci" || device.bus == "isa" || device.bus == "platform" ||
        device.formFactor == "internal") {
        return "builtin";
    }
    return "other";
}

std::vector<AudioDevice> PulseAudioDevices::devicesFrom(const PulseServerSnapshot& snapshot, bool input) {
    std::vector<AudioDevice> list;
    const auto& devices = input ? snapshot.sources : snapshot.sinks;
    const auto& defaultName = input ? snapshot.defaultSource : snapshot.defaultSink;
    for (const auto& d : devices) {
        if (d.channels < 1 || d.name.empty() || isOurs(d.name) || (input && d.isMonitor)) {
            continue;
        }
        list.push_back(AudioDevice{d.name, d.description,
                                   input ? AudioDevice::Kind::microphone : AudioDevice::Kind::output,
                                   d.name == defaultName, transportFor(d)});
    }
    return list;
}

std::vector<AudioDevice> PulseAudioDevices::listMicrophones() {
    auto s = snapshot();
    return s ? devicesFrom(*s, true) : std::vector<AudioDevice>{};
}

std::vector<AudioDevice> PulseAudioDevices::listOutputDevices() {
    auto s = snapshot();
    return s ? devicesFrom(*s, false) : std::vector<AudioDevice>{};
}

std::vector<AudioDevice> PulseAudioDevices::listSystemAudioSources() {
    auto s = snapshot();
    return SystemAudioTargets::sources(s ? *s : PulseServerSnapshot{});
}

std::optional<std::string> PulseAudioDevices::deviceName(const std::string& deviceId) {
    auto s = snapshot();
    if (!s) {
        return std::nullopt;
    }
    if (const auto* d = s->source(deviceId)) {
        return d->description;
    }
    if (const auto* d = s->sink(deviceId)) {
        return d->description;
    }
    return std::nullopt;
}

bool PulseAudioDevices::setDefaultOutputDevice(const std::string& deviceId) {
    auto connection = PulseConnection::connect("Kavely devices");
    if (!connection) {
        return false;
    }
    auto s = PulseServerSnapshot::read(*connection);
    if (!s || s->sink(deviceId) == nullptr || isOurs(deviceId)) {
        return false;
    }
    if (s->defaultSink == deviceId) {
        return true;
    }
    std::pair<PulseConnection*, bool> result{connection.get(), false};
    PulseConnection::Lock lock(*connection);
    bool done = connection->await(
        pa_context_set_default_sink(connection->context(), deviceId.c_str(), onSuccess, &result));
    return done && result.second;
}

PermissionState PulseAudioDevices::microphoneAccess() {
    int error = 0;
    auto connection = PulseConnection::connect("Kavely devices", &error);
    if (connection) {
        return PermissionState::granted;
    }
    return error == PA_ERR_ACCESS ? PermissionState::denied : PermissionState::notDetermined;
}

bool PulseAudioDevices::systemAudioAccess() {
    auto s = snapshot();
    if (!s) {
        return false;
    }
    const auto* sink = s->sink(s->defaultSink);
    return sink != nullptr && s->source(sink->monitorSource) != nullptr;
}

} // namespace kavelo
