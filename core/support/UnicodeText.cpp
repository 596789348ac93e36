#include "core/support/UnicodeText.h"

namespace kavelo {

namespace {

constexpr char32_t kEscapeBase = 0xDC00;

bool isBlank(char32_t c) {
    return c == 0x09 || c == 0x20 || c == 0xA0 || c == 0x1680 || (c >= 0x2000 && c <= 0x200A) ||
           c == 0x202F || c == 0x205F || c == 0x3000;
}

bool isNewline(char32_t c) {
    return (c >= 0x0A && c <= 0x0D) || c == 0x85 || c == 0x2028 || c == 0x2029;
}

// Code points that belong to the character before them.
bool extendsPrevious(char32_t c) {
    return (c >= 0x0300 && c <= 0x036F) || (c >= 0x1AB0 && c <= 0x1AFF) || (c >= 0x1DC0 && c <= 0x1DFF) ||
           (c >= 0x20D0 && c <= 0x20FF) || (c >= 0xFE00 && c <= 0xFE0F) || (c >= 0xFE20 && c <= 0xFE2F) ||
           c == 0x200D || (c >= 0x1F3FB && c <= 0x1F3FF) || (c >= 0xE0100 && c <= 0xE01EF);
}

char32_t lower(char32_t c) {
    if (c >= 'A' && c <= 'Z') {
        return c + 0x20;
    }
    if (c < 0xC0) {
        return c;
    }
    if (c <= 0xDE) {
        return c == 0xD7 ? c : c + 0x20;
    }
    if (c >= 0x100 && c <= 0x17F) {
        if (c == 0x130) {
            return 'i';
        }
        if (c == 0x178) {
            return 0xFF;
        }
        bool evenUpper = (c <= 0x137) || (c >= 0x14A && c <= 0x177);
        bool oddUpper = (c >= 0x139 && c <= 0x148) || (c >= 0x179 && c <= 0x17E);
        if ((evenUpper && c % 2 == 0) || (oddUpper && c % 2 == 1)) {
            return c + 1;
        }
        return c;
    }
    if (c == 0x386) {
        return 0x3AC;
    }
    if (c >= 0x388 && c <= 0x38A) {
        return c + 37;
    }
    if (c == 0x38C) {
        return 0x3CC;
    }
    if (c == 0x38E || c == 0x38F) {
        return c + 63;
    }
    if (c >= 0x391 && c <= 0x3AB && c != 0x3A2) {
        return c + 0x20;
    }
    if (c >= 0x400 && c <= 0x40F) {
        return c + 0x50;
    }
    if (c >= 0x410 && c <= 0x42F) {
        return c + 0x20;
    }
    if (c >= 0x1E00 && c <= 0x1EFF && !(c >= 0x1E96 && c <= 0x1E9F) && c % 2 == 0) {
        return c + 1;
    }
    return c;
}

std::string trimWith(std::string_view text, bool (*drop)(char32_t)) {
    auto cps = UnicodeText::decode(text);
    std::size_t begin = 0;
    std::size_t end = cps.size();
    while (begin < end && drop(cps[begin])) {
        ++begin;
    }
    while (end > begin && drop(cps[end - 1])) {
        --end;
    }
    return UnicodeText::encode(std::vector<char32_t>(cps.begin() + static_cast<std::ptrdiff_t>(begin),
                                                     cps.begin() + static_cast<std::ptrdiff_t>(end)));
}

// Index one past the character that starts at i.
std::size_t nextCharacter(const std::vector<char32_t>& cps, std::size_t i) {
    bool joined = false;
    ++i;
    while (i < cps.size()) {
        if (joined) {
            joined = false;
            ++i;
            continue;
        }
        if (!extendsPrevious(cps[i])) {
            break;
        }
        joined = cps[i] == 0x200D;
        ++i;
    }
    return i;
}

} // namespace

bool UnicodeText::isBlankOrNewline(char32_t c) {
    return isBlank(c) || isNewline(c);
}

std::string UnicodeText::trimBlanks(std::string_view text) {
    return trimWith(text, isBlank);
}

std::string UnicodeText::trimBlanksAndNewlines(std::string_view text) {
    return trimWith(text, isBlankOrNewline);
}

std::string UnicodeText::lowercased(std::string_view text) {
    auto cps = decode(text);
    for (auto& c : cps) {
        c = lower(c);
    }
    return encode(cps);
}

std::size_t UnicodeText::characterCount(std::string_view text) {
    auto cps = decode(text);
    std::size_t count = 0;
    for (std::size_t i = 0; i < cps.size(); i = nextCharacter(cps, i)) {
        ++count;
    }
    return count;
}

std::string UnicodeText::prefix(std::string_view text, std::size_t maxCharacters) {
    auto cps = decode(text);
    std::size_t i = 0;
    for (std::size_t taken = 0; i < cps.size() && taken < maxCharacters; ++taken) {
        i = nextCharacter(cps, i);
    }
    cps.resize(i);
    return encode(cps);
}

std::vector<char32_t> UnicodeText::decode(std::string_view text) {
    std::vector<char32_t> out;
    out.reserve(text.size());
    auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    std::size_t i = 0;
    while (i < text.size()) {
        unsigned char b = byte(i);
        std::size_t len = b < 0x80 ? 1 : (b >> 5) == 0x6 ? 2 : (b >> 4) == 0xE ? 3 : (b >> 3) == 0x1E ? 4 : 0;
        char32_t cp = len == 1 ? b : len == 2 ? (b & 0x1F) : len == 3 ? (b & 0x0F) : (b & 0x07);
        bool ok = len != 0 && i + len <= text.size();
        for (std::size_t k = 1; ok && k < len; ++k) {
            ok = (byte(i + k) & 0xC0) == 0x80;
            cp = (cp << 6) | (byte(i + k) & 0x3F);
        }
        // Overlong forms, surrogates and values past U+10FFFF are not valid UTF-8.
        static constexpr char32_t minimum[] = {0, 0, 0x80, 0x800, 0x10000};
        if (ok && (cp < minimum[len] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))) {
            ok = false;
        }
        if (!ok) {
            out.push_back(kEscapeBase + b);
            ++i;
            continue;
        }
        out.push_back(cp);
        i += len;
    }
    return out;
}

std::string UnicodeText::encode(const std::vector<char32_t>& codePoints) {
    std::string out;
    out.reserve(codePoints.size());
    for (char32_t c : codePoints) {
        if (c >= kEscapeBase + 0x80 && c <= kEscapeBase + 0xFF) {
            out.push_back(static_cast<char>(c - kEscapeBase));
        } else if (c < 0x80) {
            out.push_back(static_cast<char>(c));
        } else if (c < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (c >> 6)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else if (c < 0x10000) {
            out.push_back(static_cast<char>(0xE0 | (c >> 12)));
            out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xF0 | (c >> 18)));
            out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    return out;
}

} // namespace kavelo
