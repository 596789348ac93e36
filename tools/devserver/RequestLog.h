#pragma once

#include "core/support/CoreJSON.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kavelo {

// The requests the stand-in handled, newest last, for tests to ask what reached the server. Holds route,
// method, path (never the query, which may carry a signed token) and outcome; no header and no body.
//
// Thread-safety: any thread. The line printer is called outside the mutex.
class RequestLog {
  public:
    struct Entry {
        std::uint64_t number = 0;
        std::string route;
        std::string method;
        std::string path;
        int status = 0;        // 0 when the connection was dropped
        bool injected = false; // the answer came from a fault rule
        bool operator==(const Entry&) const = default;
    };
    using Printer = std::function<void(const std::string& line)>;

    explicit RequestLog(std::size_t capacity = 20000);
    void setPrinter(Printer printer);
    // Around the handling of one request, so that the most requests of a route at once can be read.
    void begin(const std::string& route);
    void add(Entry entry); // ends what begin() started
    [[nodiscard]] std::map<std::string, int> peakInFlight() const;
    [[nodiscard]] std::vector<Entry> entries(const std::optional<std::string>& route = std::nullopt) const;
    void clear(); // also forgets the peaks
    [[nodiscard]] Json toJson(const std::optional<std::string>& route) const;

  private:
    const std::size_t capacity_;
    mutable std::mutex mutex_;
    std::deque<Entry> entries_;           // guarded by mutex_
    std::uint64_t next_ = 1;              // guarded by mutex_
    Printer printer_;                     // guarded by mutex_
    std::map<std::string, int> inFlight_; // guarded by mutex_
    std::map<std::string, int> peak_;     // guarded by mutex_
};

} // namespace kavelo
