#pragma once

#include "core/support/RawEnum.h"

#include <array>
#include <string_view>
#include <utility>

namespace kavelo {

// Where a submitted recording stands on its way to the inbox, as the dashboard shows it. The cases are in
// the order an item passes them; an item never moves back.
enum class DashboardActivityPhase { submitted, transcribing, generating, delivered };

template <> struct RawEnumTraits<DashboardActivityPhase> {
    static constexpr std::array<std::pair<DashboardActivityPhase, std::string_view>, 4> table{{
        {DashboardActivityPhase::submitted, "submitted"},
        {DashboardActivityPhase::transcribing, "transcribing"},
        {DashboardActivityPhase::generating, "generating"},
        {DashboardActivityPhase::delivered, "delivered"},
    }};
};

} // namespace kavelo
