#pragma once

#include "core/support/Clock.h"
#include "core/support/LogLevel.h"

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace kavelo {

// The bounded in-memory log of everything outside the recording spine. The oldest entries go first.
// The sink (the platform log) is called after the lock is released, on the logging thread.
class CoreLogger {
  public:
    using Sink = std::function<void(const LogEntry&)>;
    struct Counts {
        int errors = 0;
        int warns = 0;
        bool operator==(const Counts&) const = default;
    };

    CoreLogger(std::shared_ptr<Clock> clock, std::size_t maxEntries);

    void log(LogLevel level, std::string message);
    void debug(std::string message) { log(LogLevel::debug, std::move(message)); }
    void info(std::string message) { log(LogLevel::info, std::move(message)); }
    void warn(std::string message) { log(LogLevel::warn, std::move(message)); }
    void error(std::string message) { log(LogLevel::error, std::move(message)); }

    [[nodiscard]] std::vector<LogEntry> allEntries() const;
    [[nodiscard]] Counts counts() const;
    void setSink(Sink sink);

  private:
    std::shared_ptr<Clock> clock_;
    const std::size_t maxEntries_;
    mutable std::mutex mutex_;
    std::deque<LogEntry> entries_; // guarded by mutex_
    Sink sink_;                    // guarded by mutex_
};

// A sink that writes "[level] core: message" lines to stderr, the platform log of a terminal program.
CoreLogger::Sink stderrLogSink(std::string category = "core");

} // namespace kavelo
