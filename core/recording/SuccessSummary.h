#pragma once

#include <string>

namespace kavelo {

// What the success screen shows after the report was asked for.
struct SuccessSummary {
    std::string meetingName;
    int durationSeconds = 0;
    int externalRecipientCount = 0;

    // "alleen jij", "jij + 1", "jij + 3": who gets the report, the user included.
    [[nodiscard]] std::string recipientLabel() const;

    bool operator==(const SuccessSummary&) const = default;
};

} // namespace kavelo
