#include "tools/cli/EventPrinter.h"

namespace kavelo::cli {

EventPrinter::EventPrinter(bool json, std::FILE* out, std::FILE* err) : json_(json), out_(out), err_(err) {}

void EventPrinter::event(const std::string& name, const Json& fields, const std::string& humanLine) {
    std::string line;
    if (json_) {
        // The event name first (nlohmann sorts keys), so a reader can dispatch on the start of the line.
        line = "{\"event\":" + Json(name).dump();
        for (const auto& [key, value] : fields.items()) {
            line += "," + Json(key).dump() + ":" + value.dump(-1, ' ', false, Json::error_handler_t::replace);
        }
        line += "}";
    } else {
        if (humanLine.empty()) {
            return;
        }
        line = humanLine;
    }
    std::lock_guard lock(mutex_);
    std::fputs(line.c_str(), out_);
    std::fputc('\n', out_);
    std::fflush(out_);
}

void EventPrinter::say(const std::string& line) {
    if (json_) {
        return;
    }
    std::lock_guard lock(mutex_);
    std::fputs(line.c_str(), out_);
    std::fputc('\n', out_);
    std::fflush(out_);
}

void EventPrinter::error(const std::string& line) {
    std::lock_guard lock(mutex_);
    std::fputs(("kavelo-cli: " + line).c_str(), err_);
    std::fputc('\n', err_);
    std::fflush(err_);
}

} // namespace kavelo::cli
