#pragma once

#include "core/support/RawEnum.h"

namespace kavelo {

enum class PermissionState { granted, denied, notDetermined };

template <> struct RawEnumTraits<PermissionState> {
    static constexpr std::array<std::pair<PermissionState, std::string_view>, 3> table{
        {{PermissionState::granted, "granted"},
         {PermissionState::denied, "denied"},
         {PermissionState::notDetermined, "notDetermined"}}};
};

} // namespace kavelo
