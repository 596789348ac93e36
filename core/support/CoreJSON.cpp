#include "core/support/CoreJSON.h"

#include <cctype>
#include <cstdio>
#include <ctime>

namespace kavelo {

namespace {

using namespace std::chrono;

bool digits(std::string_view s, std::size_t pos, std::size_t count, int& out) {
    if (pos + count > s.size()) {
        return false;
    }
    out = 0;
    for (std::size_t i = pos; i < pos + count; ++i) {
        if (!std::isdigit(static_cast<unsigned char>(s[i]))) {
            return false;
        }
        out = out * 10 + (s[i] - '0');
    }
    return true;
}

// Internet date-time: YYYY-MM-DDTHH:MM:SS[.fraction](Z|+HH:MM|-HH:MM). The fraction is required or
// forbidden depending on the form asked for, as the two platform formatters behaved.
std::optional<TimePoint> parseInternetDateTime(std::string_view s, bool fractional) {
    int year, month, day, hour, minute, second;
    if (!digits(s, 0, 4, year) || s.size() < 20 || s[4] != '-' || !digits(s, 5, 2, month) || s[7] != '-' ||
        !digits(s, 8, 2, day) || (s[10] != 'T' && s[10] != 't') || !digits(s, 11, 2, hour) || s[13] != ':' ||
        !digits(s, 14, 2, minute) || s[16] != ':' || !digits(s, 17, 2, second)) {
        return std::nullopt;
    }
    std::size_t pos = 19;
    nanoseconds fraction{0};
    if (pos < s.size() && s[pos] == '.') {
        if (!fractional) {
            return std::nullopt;
        }
        ++pos;
        std::size_t start = pos;
        long long value = 0;
        int scale = 0;
        while (pos < s.size() && std::isdigit(static_cast<unsigned char>(s[pos]))) {
            if (scale < 9) {
                value = value * 10 + (s[pos] - '0');
                ++scale;
            }
            ++pos;
        }
        if (pos == start) {
            return std::nullopt;
        }
        while (scale < 9) {
            value *= 10;
            ++scale;
        }
        fraction = nanoseconds(value);
    } else if (fractional) {
        return std::nullopt;
    }
    int offsetSeconds = 0;
    if (pos < s.size() && (s[pos] == 'Z' || s[pos] == 'z')) {
        ++pos;
    } else if (pos < s.size() && (s[pos] == '+' || s[pos] == '-')) {
        int oh, om;
        if (!digits(s, pos + 1, 2, oh) || pos + 3 >= s.size() || s[pos + 3] != ':' ||
            !digits(s, pos + 4, 2, om) || oh > 23 || om > 59) {
            return std::nullopt;
        }
        offsetSeconds = (oh * 3600 + om * 60) * (s[pos] == '-' ? -1 : 1);
        pos += 6;
    } else {
        return std::nullopt;
    }
    if (pos != s.size() || month < 1 || month > 12 || day < 1 || hour > 23 || minute > 59 || second > 60) {
        return std::nullopt;
    }
    year_month_day ymd{std::chrono::year(year), std::chrono::month(static_cast<unsigned>(month)),
                       std::chrono::day(static_cast<unsigned>(day))};
    // The clock counts nanoseconds in 64 bits, from 1677 to 2262. A date outside that (such as a server's
    // "9999-12-31" for "never") is none this program can hold: converting it would overflow.
    if (!ymd.ok() || year < 1678 || year > 2261) {
        return std::nullopt;
    }
    auto tp = sys_days(ymd) + hours(hour) + minutes(minute) + seconds(second) - seconds(offsetSeconds);
    return time_point_cast<system_clock::duration>(tp + fraction);
}

std::string format(TimePoint date, bool fractional) {
    auto secs = floor<seconds>(date);
    auto days = floor<std::chrono::days>(secs);
    year_month_day ymd{days};
    hh_mm_ss hms{secs - days};
    char buf[40];
    std::snprintf(buf, sizeof buf, "%04d-%02u-%02uT%02d:%02d:%02d", static_cast<int>(ymd.year()),
                  static_cast<unsigned>(ymd.month()), static_cast<unsigned>(ymd.day()),
                  static_cast<int>(hms.hours().count()), static_cast<int>(hms.minutes().count()),
                  static_cast<int>(hms.seconds().count()));
    std::string out = buf;
    if (fractional) {
        auto ms = duration_cast<milliseconds>(date - secs).count();
        std::snprintf(buf, sizeof buf, ".%03lld", static_cast<long long>(ms));
        out += buf;
    }
    return out + "Z";
}

} // namespace

std::string CoreJSON::formatDate(TimePoint date) {
    return format(date, false);
}
std::string CoreJSON::formatDateFractional(TimePoint date) {
    return format(date, true);
}

std::optional<TimePoint> CoreJSON::parseISO8601Fractional(std::string_view text) {
    return parseInternetDateTime(text, true);
}

std::optional<TimePoint> CoreJSON::parseISO8601Plain(std::string_view text) {
    return parseInternetDateTime(text, false);
}

TimePoint CoreJSON::parseDate(std::string_view text) {
    if (auto d = parseISO8601Fractional(text)) {
        return *d;
    }
    if (auto d = parseISO8601Plain(text)) {
        return *d;
    }
    throw DecodingError("Unparseable date: " + std::string(text));
}

std::string CoreJSON::encode(const Json& value) {
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Bytes CoreJSON::encodeBytes(const Json& value) {
    return bytesFromString(encode(value));
}

Json CoreJSON::decode(std::string_view text) {
    try {
        return Json::parse(text);
    } catch (const Json::exception& e) {
        throw DecodingError(
            std::string("The data couldn't be read because it isn't in the correct format. ") + e.what());
    }
}

Json CoreJSON::decode(const Bytes& bytes) {
    return decode(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

} // namespace kavelo
