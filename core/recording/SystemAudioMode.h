#pragma once

#include "core/support/RawEnum.h"

namespace kavelo {

// What is captured besides the microphone.
enum class SystemAudioMode { off, system, app };

template <> struct RawEnumTraits<SystemAudioMode> {
    static constexpr std::array<std::pair<SystemAudioMode, std::string_view>, 3> table{
        {{SystemAudioMode::off, "off"}, {SystemAudioMode::system, "system"}, {SystemAudioMode::app, "app"}}};
};

} // namespace kavelo
