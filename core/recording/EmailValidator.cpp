#include "core/recording/EmailValidator.h"

#include "core/support/UnicodeText.h"

#include <algorithm>

namespace kavelo {

std::string EmailValidator::normalized(std::string_view email) {
    return UnicodeText::lowercased(UnicodeText::trimBlanksAndNewlines(email));
}

bool EmailValidator::isValid(std::string_view email) {
    auto trimmed = UnicodeText::trimBlanksAndNewlines(email);
    if (trimmed.empty() || UnicodeText::characterCount(trimmed) > maxLength) {
        return false;
    }
    // The pattern ^[^@\s]+@[^@\s]+\.[^@\s]{2,}$, matched by hand on code points so that "two characters"
    // means characters and not bytes.
    auto cps = UnicodeText::decode(trimmed);
    if (std::any_of(cps.begin(), cps.end(), [](char32_t c) { return UnicodeText::isBlankOrNewline(c); })) {
        return false;
    }
    auto at = std::find(cps.begin(), cps.end(), U'@');
    if (at == cps.begin() || at == cps.end() || std::find(at + 1, cps.end(), U'@') != cps.end()) {
        return false;
    }
    std::vector<char32_t> domain(at + 1, cps.end());
    for (std::size_t dot = 1; dot < domain.size(); ++dot) {
        if (domain[dot] == U'.' && domain.size() - dot - 1 >= 2 &&
            UnicodeText::characterCount(UnicodeText::encode(
                {domain.begin() + static_cast<std::ptrdiff_t>(dot) + 1, domain.end()})) >= 2) {
            return true;
        }
    }
    return false;
}

} // namespace kavelo
