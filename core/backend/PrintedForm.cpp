#include "core/backend/PrintedForm.h"

#include <cstdio>

namespace kavelo {

std::string PrintedForm::quoted(std::string_view text) {
    std::string out = "\"";
    for (char c : text) {
        switch (c) {
        case '"':
            out += "\\\"";
            break;
        case '\\':
            out += "\\\\";
            break;
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) {
                char buf[12];
                std::snprintf(buf, sizeof buf, "\\u{%x}", static_cast<unsigned>(c));
                out += buf;
            } else {
                out += c;
            }
        }
    }
    return out + "\"";
}

std::string PrintedForm::optional(const std::optional<std::string>& text) {
    return text ? "Optional(" + quoted(*text) + ")" : "nil";
}

} // namespace kavelo
