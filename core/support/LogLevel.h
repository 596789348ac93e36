#pragma once

#include "core/support/RawEnum.h"
#include "core/support/Time.h"

#include <string>

namespace kavelo {

enum class LogLevel { debug, info, warn, error };

template <> struct RawEnumTraits<LogLevel> {
    static constexpr std::array<std::pair<LogLevel, std::string_view>, 4> table{{{LogLevel::debug, "debug"},
                                                                                 {LogLevel::info, "info"},
                                                                                 {LogLevel::warn, "warn"},
                                                                                 {LogLevel::error, "error"}}};
};

struct LogEntry {
    TimePoint timestamp;
    LogLevel level = LogLevel::info;
    std::string message;
    bool operator==(const LogEntry&) const = default;
};

} // namespace kavelo
