#pragma once

#include "core/support/Bytes.h"
#include "core/support/Time.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kavelo {

using Json = nlohmann::json; // objects keep their keys sorted, which is what every encoder here wants

// A body or a value that did not decode. The text says what was wrong; it never quotes a secret.
class DecodingError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The JSON and date rules that every client shares. Dates go out in ISO 8601 without fractional seconds,
// always in UTC; they come in with or without fractional seconds, with "Z" or a numeric offset.
class CoreJSON {
  public:
    static std::string formatDate(TimePoint date);           // 2026-03-01T10:15:30Z
    static std::string formatDateFractional(TimePoint date); // 2026-03-01T10:15:30.123Z
    static std::optional<TimePoint> parseISO8601Fractional(std::string_view text);
    static std::optional<TimePoint> parseISO8601Plain(std::string_view text);
    // Fractional first, then plain; throws DecodingError "Unparseable date: <text>".
    static TimePoint parseDate(std::string_view text);

    static std::string encode(const Json& value);
    static Bytes encodeBytes(const Json& value);
    // Throws DecodingError for text that is not JSON.
    static Json decode(std::string_view text);
    static Json decode(const Bytes& bytes);
};

} // namespace kavelo
