#pragma once

#include "core/support/Time.h"

#include <optional>
#include <string>

namespace kavelo {

// One entry of "what is new" in a version.
struct ReleaseNote {
    std::string version;
    std::optional<TimePoint> date;
    std::string title;
    std::string body;

    bool operator==(const ReleaseNote&) const = default;
};

} // namespace kavelo
