#include "core/support/CoreLogger.h"

#include <cstdio>

namespace kavelo {

CoreLogger::CoreLogger(std::shared_ptr<Clock> clock, std::size_t maxEntries)
    : clock_(std::move(clock)), maxEntries_(maxEntries) {}

void CoreLogger::log(LogLevel level, std::string message) {
    LogEntry entry{clock_->now(), level, std::move(message)};
    Sink sink;
    {
        std::lock_guard lock(mutex_);
        entries_.push_back(entry);
        while (entries_.size() > maxEntries_) {
            entries_.pop_front();
        }
        sink = sink_;
    }
    if (sink) {
        sink(entry);
    }
}

std::vector<LogEntry> CoreLogger::allEntries() const {
    std::lock_guard lock(mutex_);
    return {entries_.begin(), entries_.end()};
}

CoreLogger::Counts CoreLogger::counts() const {
    std::lock_guard lock(mutex_);
    Counts counts;
    for (const auto& e : entries_) {
        counts.errors += e.level == LogLevel::error ? 1 : 0;
        counts.warns += e.level == LogLevel::warn ? 1 : 0;
    }
    return counts;
}

void CoreLogger::setSink(Sink sink) {
    std::lock_guard lock(mutex_);
    sink_ = std::move(sink);
}

CoreLogger::Sink stderrLogSink(std::string category) {
    return [category = std::move(category)](const LogEntry& entry) {
        std::fprintf(stderr, "[%s] %s: %s\n", std::string(toRaw(entry.level)).c_str(), category.c_str(),
                     entry.message.c_str());
    };
}

} // namespace kavelo
