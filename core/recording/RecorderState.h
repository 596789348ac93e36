#pragma once

#include "core/support/RawEnum.h"

#include <optional>
#include <string>

namespace kavelo {

// The recorder's own state words.
enum class RecorderState {
    recording,
    stopping,
    stopped,
    paused,
    interrupted,
    restarting,
    resuming,
    resumeFailed,
    routeChanged,
    networkOnline,
    networkOffline,
    thermalWarning,
    lowPowerMode,
    error,
};

template <> struct RawEnumTraits<RecorderState> {
    static constexpr std::array<std::pair<RecorderState, std::string_view>, 14> table{{
        {RecorderState::recording, "recording"},
        {RecorderState::stopping, "stopping"},
        {RecorderState::stopped, "stopped"},
        {RecorderState::paused, "paused"},
        {RecorderState::interrupted, "interrupted"},
        {RecorderState::restarting, "restarting"},
        {RecorderState::resuming, "resuming"},
        {RecorderState::resumeFailed, "resume_failed"},
        {RecorderState::routeChanged, "routeChanged"},
        {RecorderState::networkOnline, "networkOnline"},
        {RecorderState::networkOffline, "networkOffline"},
        {RecorderState::thermalWarning, "thermalWarning"},
        {RecorderState::lowPowerMode, "lowPowerMode"},
        {RecorderState::error, "error"},
    }};
};

// What one state event carries.
struct RecorderStateChange {
    RecorderState state = RecorderState::recording;
    std::optional<std::string> reason; // "user", "system", or a code such as "device_disconnected"
    std::optional<std::string> route;
    std::optional<double> sampleRate;
    std::optional<bool> inputChanged;
    std::optional<bool> sampleRateChanged;
    std::optional<std::string> inputName;
    std::optional<std::string> friendlyName; // preferred over inputName for a route change
    std::optional<std::string> errorCode;

    bool operator==(const RecorderStateChange&) const = default;
};

} // namespace kavelo
