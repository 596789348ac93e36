#pragma once

#include "core/support/CoreJSON.h"

#include <optional>
#include <string>

namespace kavelo {

// One addressee of the report.
struct FinalizeRecipient {
    std::string email;
    std::optional<std::string> name;

    [[nodiscard]] Json toJson() const;
    static FinalizeRecipient fromJson(const Json& json);
    bool operator==(const FinalizeRecipient&) const = default;
};

} // namespace kavelo
