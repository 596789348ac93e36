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
    InfoDictionary() = default;
    explicit InfoDictionary(Json object);

    // The object compiled into the program from the build's cache variables.
    static InfoDictionary embedded();
    // KAVELO_INFO_FILE when set, else the embedded object. A named file that is missing or not a JSON
    // object gives an empty dictionary (every key absent), so a broken development switch falls back to
    // the mock configuration instead of talking to an unintended backend.
    static InfoDictionary load(const EnvironmentReader& env);
    static InfoDictionary fromFile(const std::filesystem::path& path);

    // A value that is not text, is empty, or still holds an unexpanded build variable ("$(") is absent.
    [[nodiscard]] std::optional<std::string> value(const std::string& key) const;

  private:
    Json object_ = Json::object();
};

} // namespace kavelo
