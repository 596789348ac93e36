#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kavelo {

// How error values print themselves: texts quoted with their escapes, optionals as Optional(...) or nil. The
// finalize and sign-in services pass such printed errors on as text, so the form is kept stable.
class PrintedForm {
  public:
    static std::string quoted(std::string_view text);
    static std::string optional(const std::optional<std::string>& text);
};

} // namespace kavelo
