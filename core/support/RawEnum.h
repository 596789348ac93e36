#pragma once

#include <array>
#include <optional>
#include <string_view>
#include <utility>

namespace kavelo {

// Enumerations that carry a wire or storage text specialise RawEnumTraits with a table of
// (case, raw text) pairs in declaration order; toRaw, fromRaw and allCases then come for free.
//
//   template <> struct RawEnumTraits<Mode> {
//       static constexpr std::array<std::pair<Mode, std::string_view>, 2> table{{{Mode::live, "live"}, ...}};
//   };
template <class E> struct RawEnumTraits;

template <class E> constexpr std::string_view toRaw(E value) {
    for (const auto& [c, raw] : RawEnumTraits<E>::table) {
        if (c == value) {
            return raw;
        }
    }
    return {};
}

template <class E> constexpr std::optional<E> fromRaw(std::string_view raw) {
    for (const auto& [c, text] : RawEnumTraits<E>::table) {
        if (text == raw) {
            return c;
        }
    }
    return std::nullopt;
}

template <class E> constexpr auto allCases() {
    std::array<E, RawEnumTraits<E>::table.size()> cases{};
    for (std::size_t i = 0; i < cases.size(); ++i) {
        cases[i] = RawEnumTraits<E>::table[i].first;
    }
    return cases;
}

} // namespace kavelo
