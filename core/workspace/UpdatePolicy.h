#pragma once

#include "core/support/Time.h"

#include <optional>
#include <string>

namespace kavelo {

// What the update host says about supported versions. Linux has no self-update: downloadURL is the page
// the desktop program opens in the browser when the user chooses to update.
struct UpdatePolicy {
    std::string minimumSupportedVersion;
    std::string latestVersion;
    std::optional<std::string> downloadURL;
    std::optional<TimePoint> mandatoryAfter; // below the minimum, the update is only offered until then

    bool operator==(const UpdatePolicy&) const = default;
};

} // namespace kavelo
