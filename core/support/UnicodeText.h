#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kavelo {

// The few Unicode-aware text operations that user-facing names and addresses need, on UTF-8 text.
//
// A "character" here is a code point together with the combining marks, variation selectors and
// zero-width-joined code points that follow it, so that a limit of N characters never splits an accented
// letter or a joined emoji. Case folding covers Latin, Greek and Cyrillic, which is what names typed by
// people in this market use. Bytes that are not valid UTF-8 count as one character each and stay as they are.
class UnicodeText {
  public:
    // Spaces and tabs: the Unicode space separators and U+0009.
    static std::string trimBlanks(std::string_view text);
    // Blanks and line breaks (U+000A..U+000D, U+0085, U+2028, U+2029).
    static std::string trimBlanksAndNewlines(std::string_view text);
    static bool isBlankOrNewline(char32_t c);

    static std::string lowercased(std::string_view text);
    static std::size_t characterCount(std::string_view text);
    // The first maxCharacters characters of text.
    static std::string prefix(std::string_view text, std::size_t maxCharacters);

    // Decodes UTF-8. An invalid byte b becomes the lone surrogate U+DC00 + b, which encode() turns back into
    // that byte, so a round trip never changes the text.
    static std::vector<char32_t> decode(std::string_view text);
    static std::string encode(const std::vector<char32_t>& codePoints);
};

} // namespace kavelo
