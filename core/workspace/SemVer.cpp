#include "core/workspace/SemVer.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace kavelo {

namespace {

std::vector<std::string_view> pieces(std::string_view version) {
    std::vector<std::string_view> result;
    std::size_t start = 0;
    while (start <= version.size()) {
        const std::size_t dot = version.find('.', start);
        const std::size_t end = dot == std::string_view::npos ? version.size() : dot;
        if (end > start) {
            result.push_back(version.substr(start, end - start));
        }
        if (dot == std::string_view::npos) {
            break;
        }
        start = dot + 1;
    }
    return result;
}

// The digits of a piece without leading zeros; "" for zero and for anything that is not a decimal number.
// Comparing digit strings by length and then by text needs no integer type, so no piece can overflow.
std::string_view numericValue(std::string_view piece) {
    if (piece.empty() ||
        !std::all_of(piece.begin(), piece.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        return {};
    }
    const std::size_t first = piece.find_first_not_of('0');
    return first == std::string_view::npos ? std::string_view{} : piece.substr(first);
}

int compareNumbers(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return a.size() < b.size() ? -1 : 1;
    }
    const int c = a.compare(b);
    return c < 0 ? -1 : (c > 0 ? 1 : 0);
}

} // namespace

int SemVer::compare(std::string_view a, std::string_view b) {
    const auto left = pieces(a);
    const auto right = pieces(b);
    const std::size_t count = std::max(left.size(), right.size());
    for (std::size_t i = 0; i < count; ++i) {
        const std::string_view x = i < left.size() ? numericValue(left[i]) : std::string_view{};
        const std::string_view y = i < right.size() ? numericValue(right[i]) : std::string_view{};
        if (const int c = compareNumbers(x, y); c != 0) {
            return c;
        }
    }
    return 0;
}

bool SemVer::isAcceptable(std::string_view version) {
    if (version.size() > kMaxLength) {
        return false;
    }
    const auto parts = pieces(version);
    return !parts.empty() && parts.size() <= kMaxPieces;
}

} // namespace kavelo
