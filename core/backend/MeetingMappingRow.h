#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kavelo {

// What the meetings row says about speaker mapping. Empty participants and no status when the row is not
// there (yet).
struct MeetingMappingRow {
    std::vector<std::string> participants;
    std::optional<std::string> earlyMappingStatus;

    bool operator==(const MeetingMappingRow&) const = default;
};

} // namespace kavelo
