#pragma once

#include "core/support/RawEnum.h"

namespace kavelo {

// Which world the process talks to: the hosted backend or the in-process fake one.
enum class AppEnvironmentMode { live, mock };

template <> struct RawEnumTraits<AppEnvironmentMode> {
    static constexpr std::array<std::pair<AppEnvironmentMode, std::string_view>, 2> table{{
        {AppEnvironmentMode::live, "live"},
        {AppEnvironmentMode::mock, "mock"},
    }};
};

} // namespace kavelo
