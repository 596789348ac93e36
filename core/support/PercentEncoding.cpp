#include "core/support/PercentEncoding.h"

namespace kavelo {

std::string PercentEncoding::path(std::string_view text) {
    static constexpr char hex[] = "0123456789ABCDEF";
    static constexpr std::string_view kept = "-._~!$&'()*+,;=:@/";
    std::string out;
    out.reserve(text.size());
    for (const char ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        const bool alnum = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
        if (alnum || kept.find(ch) != std::string_view::npos) {
            out += ch;
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 0xF];
        }
    }
    return out;
}

} // namespace kavelo
