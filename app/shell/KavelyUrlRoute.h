#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kavelo {

// What a kavely:// address handed to the program asks for. Addresses come from other programs (a
// browser, a second start), so anything unexpected is refused rather than guessed at.
struct KavelyUrlRoute {
    enum class Kind { openSection };
    static constexpr std::size_t kMaxLength = 2048;

    Kind kind = Kind::openSection;
    std::string section; // "home" or "settings"

    // "kavely://open/home", "kavely://open/settings" (a trailing slash, query or fragment is ignored);
    // nullopt for anything else.
    static std::optional<KavelyUrlRoute> parse(std::string_view url);
};

} // namespace kavelo
