#pragma once

#include "app/shell/AppEnvironmentMode.h"
#include "app/shell/InfoDictionary.h"
#include "core/support/AppConfig.h"

#include <filesystem>
#include <optional>
#include <string>
#include <utility>

namespace kavelo {

// The decisions the composition root takes before it builds a single service: the mode, the data
// directory and the configuration. Pure functions of the information dictionary and the environment,
// so every rule can be checked without building the world.
class EnvironmentSettings {
  public:
    static constexpr const char* kMockSupabaseUrl = "https://kavely-mock.invalid";
    static constexpr const char* kMockAnonKey = "mock-anon-key"; // 13 characters, never a real key

    // KAVELO_BACKEND "mock" gives the mock world; "live", or nothing, the live world, which needs a
    // backend address and key. Throws EnvironmentError for any other KAVELO_BACKEND and for a live world
    // without a usable backend: mock is only ever chosen by name.
    static AppEnvironmentMode detectMode(const InfoDictionary& info, const EnvironmentReader& env);
    // The live world's normalized address and anon key; throws EnvironmentError when either is missing
    // or the address has no host.
    static std::pair<std::string, std::string> liveBackend(const InfoDictionary& info);

    // "https://" in front of a value that does not begin with "http"; absent when the result is no URL
    // with a scheme and a host.
    static std::optional<std::string> normalizedBackendUrl(const std::string& value);

    // $XDG_DATA_HOME/Kavely (or ~/.local/share/Kavely), "Kavely/Mock" in mock mode; the temporary
    // directory stands in when there is no home at all.
    static std::filesystem::path dataDirectory(AppEnvironmentMode mode, const EnvironmentReader& env);
    // "$XDG_CONFIG_HOME/Kavely/preferences.json" (~/.config when unset), under "Kavely/Mock" in mock mode.
    static std::filesystem::path preferencesFile(AppEnvironmentMode mode, const EnvironmentReader& env);

    // Where the live world reads its update policy: "update-policy.json" beside the update feed named by
    // SUFeedURL, or, when the info file names no usable feed, at the root of the backend's host.
    static std::string updatePolicyUrl(const InfoDictionary& info, const std::string& backendUrl);
    static constexpr const char* kUpdatePolicyFile = "update-policy.json";

    // Throws EnvironmentError in the live world without a usable backend (see liveBackend).
    static AppConfig makeConfig(AppEnvironmentMode mode, const InfoDictionary& info,
                                const std::filesystem::path& dataDirectory);

    // The Secret Service item that holds the session; the two worlds never share one.
    static std::string sessionServiceName(AppEnvironmentMode mode);
    // The name that earlier versions stored the session under; read once and moved.
    static std::string legacySessionServiceName(AppEnvironmentMode mode);
    static constexpr const char* kSessionAccount = "auth-session";
};

} // namespace kavelo
