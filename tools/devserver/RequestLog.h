#pragma once

#include "core/support/CoreJSON.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
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
    void add(Entry entry);
    [[nodiscard]] std::vector<Entry> entries(const std::optional<std::string>& route = std::nullopt) const;
    void clear();
    [[nodiscard]] Json toJson(const std::optional<std::string>& route) const;

  private:
    const std::size_t capacity_;
    mutable std::mutex mutex_;
    std::deque<Entry> entries_; // guarded by mutex_
    std::uint64_t next_ = 1;    // guarded by mutex_
    Printer printer_;           // guarded by mutex_
};

} // namespace kavelo
