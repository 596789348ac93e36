#pragma once

#include <cstddef>
#include <string_view>

namespace kavelo {

// Dotted version numbers as the update policy and the release notes write them. Deliberately forgiving:
// a piece that is not a plain decimal number counts as 0, so "2.0-beta" compares as 2.0.
class SemVer {
  public:
    // The longest version text and the most dotted pieces a version read from outside may have.
    static constexpr std::size_t kMaxLength = 32;
    static constexpr std::size_t kMaxPieces = 6;

    // -1 when a is lower, 0 when equal, 1 when higher. Pieces compare as numbers of any length (1.10 is
    // above 1.9), and a missing piece counts as 0 (1.2 equals 1.2.0).
    [[nodiscard]] static int compare(std::string_view a, std::string_view b);

    // Within the bounds above and at least one non-empty piece. Versions from the network or the disk that
    // fail this are refused rather than compared.
    [[nodiscard]] static bool isAcceptable(std::string_view version);
};

} // namespace kavelo
