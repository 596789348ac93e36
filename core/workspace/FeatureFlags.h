#pragma once

#include "core/support/CoreJSON.h"

#include <cstddef>
#include <map>
#include <string>

namespace kavelo {

// The switches the backend may hand out. Serialised by field name, every key required, so a cache from an
// older layout reads as nothing rather than half.
struct FeatureFlags {
    // The most raw flags kept, and the longest name; a larger set from the backend or the disk is refused.
    static constexpr std::size_t kMaxRawFlags = 200;
    static constexpr std::size_t kMaxNameBytes = 128;

    bool templateChooser = true;
    bool meetingDetection = true;
    bool calendarIntegration = false;
    bool connectors = false;
    bool wordAttachment = true;
    std::map<std::string, bool> raw;

    static FeatureFlags defaults() { return {}; }
    // Throws DecodingError for a missing or mistyped key and for a raw set beyond the limits.
    static FeatureFlags fromJson(const Json& json);
    [[nodiscard]] Json toJson() const;
    // True when the set is within the limits above.
    static bool isAcceptable(const std::map<std::string, bool>& raw);

    bool operator==(const FeatureFlags&) const = default;
};

} // namespace kavelo
