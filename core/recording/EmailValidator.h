#pragma once

#include <string>
#include <string_view>

namespace kavelo {

// The two rules by which the share screen judges and compares e-mail addresses.
class EmailValidator {
  public:
    // Trimmed of blanks and line breaks, then lowercased: the form in which addresses are stored and
    // compared.
    [[nodiscard]] static std::string normalized(std::string_view email);
    // After trimming: not empty, fewer than 255 characters, and of the form local@domain.tld with a top-level
    // part of at least two characters, no "@" besides the one, and no whitespace.
    [[nodiscard]] static bool isValid(std::string_view email);

    static constexpr std::size_t maxLength = 254;
};

} // namespace kavelo
