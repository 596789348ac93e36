#pragma once

#include <string>

namespace kavelo {

// One hint on the dashboard. Wire keys: "id", "body", "sort_order".
struct DashboardTip {
    std::string id;
    std::string body;
    int sortOrder = 0;

    bool operator==(const DashboardTip&) const = default;
};

} // namespace kavelo
