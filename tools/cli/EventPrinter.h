#pragma once

#include "core/support/CoreJSON.h"

#include <cstdio>
#include <mutex>
#include <string>

namespace kavelo::cli {

// Everything kavelo-cli tells the user while it works. In JSON mode every message is one JSON object on
// one line of standard output (for scripts); otherwise short human lines. Diagnostics go to standard
// error in both modes, so standard output stays parseable. Safe to call from any thread.
class EventPrinter {
  public:
    EventPrinter(bool json, std::FILE* out = stdout, std::FILE* err = stderr);

    [[nodiscard]] bool json() const { return json_; }

    // One JSON event (`{"event":name,...fields}`) in JSON mode, or the human line in the other.
    void event(const std::string& name, const Json& fields, const std::string& humanLine);
    // Human-only information; JSON mode leaves it out.
    void say(const std::string& line);
    // Always to standard error.
    void error(const std::string& line);

  private:
    const bool json_;
    std::FILE* out_;
    std::FILE* err_;
    std::mutex mutex_;
};

} // namespace kavelo::cli
