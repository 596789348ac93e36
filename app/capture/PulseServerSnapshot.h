#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kavelo {

class PulseConnection;

// What a PulseAudio-protocol server holds at one moment: its devices, their defaults and what plays. Read
// in one go, then interpreted by plain functions (device lists, system-audio targets).
struct PulseServerSnapshot {
    struct Device {
        std::uint32_t index = 0;
        std::string name;        // stable node name: the id we hand out
        std::string description; // what a person reads
        int channels = 0;
        bool hardware = false;                 // backed by a real device (not a null sink, remap or filter)
        std::optional<std::string> bus;        // "usb", "bluetooth", "pci", ... (device.bus)
        std::optional<std::string> formFactor; // "internal", "headset", ... (device.form_factor)
        bool isMonitor = false;                // a source that is the monitor of a sink
        std::string monitorSource;             // for a sink: the name of its monitor source
    };
    struct Stream {
        std::uint32_t index = 0;
        std::uint32_t sink = 0;
        bool corked = false;
        std::string applicationName;
        std::string processBinary;
        std::string applicationId;
    };

    std::string defaultSink;
    std::string defaultSource;
    std::vector<Device> sources;
    std::vector<Device> sinks;
    std::vector<Stream> sinkInputs;

    // Empty when the server stopped answering half-way.
    static std::optional<PulseServerSnapshot> read(PulseConnection& connection);

    [[nodiscard]] const Device* sink(const std::string& name) const;
    [[nodiscard]] const Device* source(const std::string& name) const;
};

} // namespace kavelo
