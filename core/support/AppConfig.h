#pragma once

#include <filesystem>
#include <string>

namespace kavelo {

// Immutable configuration shared by all services, filled once by the composition root.
struct AppConfig {
    std::string supabaseUrl; // base URL of the backend, without a trailing slash
    std::string anonKey;     // the backend's public key
    std::string platform = "linux";
    std::string appVersion = "1.0.0";
    std::string buildNumber = "1";
    std::string oauthClientType = "ios";
    std::string urlScheme = "kavelo-mac";
    std::string oauthCallbackScheme = "kavely";
    std::string uploadMode = "mac_audio_chunks";
    std::filesystem::path applicationSupportDirectory;

    bool operator==(const AppConfig&) const = default;
};

} // namespace kavelo
