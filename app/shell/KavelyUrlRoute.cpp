#include "app/shell/KavelyUrlRoute.h"

#include <algorithm>
#include <cctype>

namespace kavelo {

std::optional<KavelyUrlRoute> KavelyUrlRoute::parse(std::string_view url) {
    constexpr std::string_view scheme = "kavely://";
    if (url.size() > kMaxLength || url.size() < scheme.size()) {
        return std::nullopt;
    }
    std::string lower(url.substr(0, scheme.size()));
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    if (lower != scheme) {
        return std::nullopt;
    }
    auto rest = url.substr(scheme.size());
    rest = rest.substr(0, rest.find_first_of("?#"));
    while (!rest.empty() && rest.back() == '/') {
        rest.remove_suffix(1);
    }
    for (const std::string_view section : {"home", "settings"}) {
        if (rest == std::string("open/") + std::string(section)) {
            return KavelyUrlRoute{Kind::openSection, std::string(section)};
        }
    }
    return std::nullopt;
}

} // namespace kavelo
