#pragma once

#include <optional>
#include <string>

namespace kavelo {

// The server's answer to a speaker-mapping trigger.
struct EarlyMappingDispatch {
    std::optional<std::string> status;
    std::optional<std::string> reason;

    // Whether a mapping result is on its way (or already there), so that polling the meeting row pays off.
    [[nodiscard]] bool shouldPoll() const;
    bool operator==(const EarlyMappingDispatch&) const = default;
};

} // namespace kavelo
