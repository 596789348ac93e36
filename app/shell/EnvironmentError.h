#pragma once

#include <stdexcept>
#include <string>

namespace kavelo {

// Why the program cannot tell which backend to talk to. Raised before any service is built, so that a
// broken development switch or a build without backend values stops the program with the reason
// instead of quietly recording into the mock world, whose "sent" chunks go nowhere.
class EnvironmentError : public std::runtime_error {
  public:
    enum class Kind {
        infoFileUnreadable,   // KAVELO_INFO_FILE names a file that cannot be read
        infoFileNotAnObject,  // it can be read but holds no JSON object
        unknownBackendChoice, // KAVELO_BACKEND is neither "live" nor "mock"
        noBackendAddress,     // the live world lacks SUPABASE_URL or SUPABASE_ANON_KEY
        badBackendAddress,    // SUPABASE_URL is no URL with a host
    };

    // subject: the file, the variable's value or the address concerned; detail: the reason underneath
    // (a system error, the JSON parser's message), empty when there is none.
    EnvironmentError(Kind kind, std::string subject, std::string detail = {});

    [[nodiscard]] Kind kind() const { return kind_; }
    [[nodiscard]] const std::string& subject() const { return subject_; }
    [[nodiscard]] const std::string& detail() const { return detail_; }

  private:
    Kind kind_;
    std::string subject_;
    std::string detail_;
};

} // namespace kavelo
