#include "app/capture/PulseServerSnapshot.h"

#include "app/capture/PulseConnection.h"

#include <pulse/pulseaudio.h>

namespace kavelo {

namespace {
struct Reading {
    PulseConnection* connection;
    PulseServerSnapshot* snapshot;
};

std::optional<std::string> property(pa_proplist* props, const char* key) {
    const char* value = props ? pa_proplist_gets(props, key) : nullptr;
    if (value == nullptr || *value == '\0') {
        return std::nullopt;
    }
    return std::string(value);
}

template <class Info> PulseServerSnapshot::Device deviceFrom(const Info* info, bool hardware) {
    PulseServerSnapshot::Device device;
    device.index = info->index;
    device.name = info->name ? info->name : "";
    device.description = info->description ? info->description : device.name;
    device.channels = info->sample_spec.channels;
    device.hardware = hardware;
    device.bus = property(info->proplist, PA_PROP_DEVICE_BUS);
    device.formFactor = property(info->proplist, PA_PROP_DEVICE_FORM_FACTOR);
    return device;
}

void onServerInfo(pa_context*, const pa_server_info* info, void* userdata) {
    auto* r = static_cast<Reading*>(userdata);
    if (info != nullptr) {
        r->snapshot->defaultSink = info->default_sink_name ? info->default_sink_name : "";
        r->snapshot->defaultSource = info->default_source_name ? info->default_source_name : "";
    }
    r->connection->signal();
}

void onSource(pa_context*, const pa_source_info* info, int eol, void* userdata) {
    auto* r = static_cast<Reading*>(userdata);
    if (eol == 0 && info != nullptr) {
        auto device = deviceFrom(info, (info->flags & PA_SOURCE_HARDWARE) != 0);
        device.isMonitor = info->monitor_of_sink != PA_INVALID_INDEX;
        r->snapshot->sources.push_back(std::move(device));
    }
    if (eol != 0) {
        r->connection->signal();
    }
}

void onSink(pa_context*, const pa_sink_info* info, int eol, void* userdata) {
    auto* r = static_cast<Reading*>(userdata);
    if (eol == 0 && info != nullptr) {
        auto device = deviceFrom(info, (info->flags & PA_SINK_HARDWARE) != 0);
        device.monitorSource = info->monitor_source_name ? info->monitor_source_name : "";
        r->snapshot->sinks.push_back(std::move(device));
    }
    if (eol != 0) {
        r->connection->signal();
    }
}

void onSinkInput(pa_context*, const pa_sink_input_info* info, int eol, void* userdata) {
    auto* r = static_cast<Reading*>(userdata);
    if (eol == 0 && info != nullptr) {
        PulseServerSnapshot::Stream stream;
        stream.index = info->index;
        stream.sink = info->sink;
        stream.corked = info->corked != 0;
        stream.applicationName = property(info->proplist, PA_PROP_APPLICATION_NAME).value_or("");
        stream.processBinary = property(info->proplist, PA_PROP_APPLICATION_PROCESS_BINARY).value_or("");
        stream.applicationId = property(info->proplist, PA_PROP_APPLICATION_ID).value_or("");
        r->snapshot->sinkInputs.push_back(std::move(stream));
    }
    if (eol != 0) {
        r->connection->signal();
    }
}
} // namespace

std::optional<PulseServerSnapshot> PulseServerSnapshot::read(PulseConnection& connection) {
    PulseServerSnapshot snapshot;
    Reading reading{&connection, &snapshot};
    PulseConnection::Lock lock(connection);
    pa_context* c = connection.context();
    if (!connection.await(pa_context_get_server_info(c, onServerInfo, &reading)) ||
        !connection.await(pa_context_get_source_info_list(c, onSource, &reading)) ||
        !connection.await(pa_context_get_sink_info_list(c, onSink, &reading)) ||
        !connection.await(pa_context_get_sink_input_info_list(c, onSinkInput, &reading))) {
        return std::nullopt;
    }
    return snapshot;
}

const PulseServerSnapshot::Device* PulseServerSnapshot::sink(const std::string& name) const {
    for (const auto& d : sinks) {
        if (d.name == name) {
            return &d;
        }
    }
    return nullptr;
}

const PulseServerSnapshot::Device* PulseServerSnapshot::source(const std::string& name) const {
    for (const auto& d : sources) {
        if (d.name == name) {
            return &d;
        }
    }
    return nullptr;
}

} // namespace kavelo
