#include "tools/devserver/RequestLog.h"

#include <algorithm>

namespace kavelo {

RequestLog::RequestLog(std::size_t capacity) : capacity_(capacity) {}

void RequestLog::setPrinter(Printer printer) {
    std::lock_guard lock(mutex_);
    printer_ = std::move(printer);
}

void RequestLog::begin(const std::string& route) {
    std::lock_guard lock(mutex_);
    auto now = ++inFlight_[route];
    peak_[route] = std::max(peak_[route], now);
}

std::map<std::string, int> RequestLog::peakInFlight() const {
    std::lock_guard lock(mutex_);
    return peak_;
}

void RequestLog::add(Entry entry) {
    Printer printer;
    {
        std::lock_guard lock(mutex_);
        if (auto it = inFlight_.find(entry.route); it != inFlight_.end() && it->second > 0) {
            --it->second;
        }
        entry.number = next_++;
        entries_.push_back(entry);
        while (entries_.size() > capacity_) {
            entries_.pop_front();
        }
        printer = printer_;
    }
    if (printer) {
        printer(entry.method + " " + entry.path + " -> " +
                (entry.status ? std::to_string(entry.status) : "dropped") + " (" + entry.route +
                (entry.injected ? ", injected" : "") + ")");
    }
}

std::vector<RequestLog::Entry> RequestLog::entries(const std::optional<std::string>& route) const {
    std::lock_guard lock(mutex_);
    std::vector<Entry> list;
    for (const auto& entry : entries_) {
        if (!route || entry.route == *route) {
            list.push_back(entry);
        }
    }
    return list;
}

void RequestLog::clear() {
    std::lock_guard lock(mutex_);
    entries_.clear();
    peak_.clear();
}

Json RequestLog::toJson(const std::optional<std::string>& route) const {
    Json list = Json::array();
    for (const auto& entry : entries(route)) {
        list.push_back(Json{{"number", entry.number},
                            {"route", entry.route},
                            {"method", entry.method},
                            {"path", entry.path},
                            {"status", entry.status},
                            {"injected", entry.injected}});
    }
    return list;
}

} // namespace kavelo
