#pragma once

#include "core/support/Bytes.h"
#include "core/support/CoreJSON.h"
#include "core/workspace/DashboardTip.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kavelo {

// The tips answer and the cache under the preferences, in one form. Wire keys: "segment", "tips",
// "meeting_count".
//
// fromJson refuses, with DecodingError, anything beyond the limits below, a tip without id or body, and a
// negative meeting count. The same reader serves the answer and the cache, so a cache edited by hand is held
// to the server's limits.
struct TipsResponse {
    static constexpr std::size_t kMaxTips = 50;
    static constexpr std::size_t kMaxTipBodyBytes = 1024;
    static constexpr std::size_t kMaxIdBytes = 128;
    static constexpr std::size_t kMaxSegmentBytes = 128;
    // The whole answer: fifty full tips and their keys fit well within it.
    static constexpr std::size_t kMaxBytes = 96 * 1024;

    std::optional<std::string> segment;
    std::vector<DashboardTip> tips;
    std::optional<std::int64_t> meetingCount;

    static TipsResponse fromJson(const Json& json);
    // Also refuses a body larger than kMaxBytes and text that is not JSON.
    static TipsResponse parse(const Bytes& body);
    [[nodiscard]] Json toJson() const;

    bool operator==(const TipsResponse&) const = default;
};

} // namespace kavelo
