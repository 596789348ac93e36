#include "core/backend/SupabaseErrorText.h"

#include <algorithm>

namespace kavelo {

namespace {

bool isValidUTF8(const std::string& s) {
    std::size_t i = 0;
    while (i < s.size()) {
        auto c = static_cast<unsigned char>(s[i]);
        std::size_t len;
        std::uint32_t cp;
        if (c < 0x80) {
            ++i;
            continue;
        } else if ((c & 0xE0) == 0xC0) {
            len = 2;
            cp = c & 0x1F;
        } else if ((c & 0xF0) == 0xE0) {
            len = 3;
            cp = c & 0x0F;
        } else if ((c & 0xF8) == 0xF0) {
            len = 4;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (i + len > s.size()) {
            return false;
        }
        for (std::size_t k = 1; k < len; ++k) {
            auto cc = static_cast<unsigned char>(s[i + k]);
            if ((cc & 0xC0) != 0x80) {
                return false;
            }
            cp = (cp << 6) | (cc & 0x3F);
        }
        // Overlong forms, surrogates and values past the last code point are not UTF-8.
        static constexpr std::uint32_t minimum[5] = {0, 0, 0x80, 0x800, 0x10000};
        if (cp < minimum[len] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
            return false;
        }
        i += len;
    }
    return true;
}

} // namespace

std::optional<std::string> SupabaseErrorText::bodyPrefix(const Bytes& body) {
    std::string text(body.begin(),
                     body.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(body.size(), 300)));
    if (!isValidUTF8(text)) {
        return std::nullopt;
    }
    return text;
}

} // namespace kavelo
