#pragma once

#include "core/support/CoreJSON.h"

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace kavelo {

// Reads one variable of the process environment; absent when unset. Injected so that the composition
// root can be exercised without touching the real environment.
using EnvironmentReader = std::function<std::optional<std::string>(const std::string& name)>;
EnvironmentReader processEnvironment();

// The build-time values of the program (backend address, public key, versions, update feed): a JSON
// object with the same keys on every platform. The build embeds one; KAVELO_INFO_FILE names another.
class InfoDictionary {
  public:
    // The largest info file read; the real one is a few hundred bytes.
    static constexpr std::size_t kMaxFileBytes = 64 * 1024;

    InfoDictionary() = default;
    explicit InfoDictionary(Json object, std::string source = "the built-in backend values");

    // The object compiled into the program from the build's cache variables.
    static InfoDictionary embedded();
    // KAVELO_INFO_FILE when set, else the embedded object. A named file that cannot be read or holds no
    // JSON object throws EnvironmentError with the path and the reason: whoever set the switch meant a
    // backend, and running without one would pass for a recording that was sent.
    static InfoDictionary load(const EnvironmentReader& env);
    static InfoDictionary fromFile(const std::filesystem::path& path);

    // A value that is not text, is empty, or still holds an unexpanded build variable ("$(") is absent.
    [[nodiscard]] std::optional<std::string> value(const std::string& key) const;
    // Where the values came from, for messages: a file's path or the built-in values.
    [[nodiscard]] const std::string& source() const { return source_; }

  private:
    Json object_ = Json::object();
    std::string source_ = "the built-in backend values";
};

} // namespace kavelo
