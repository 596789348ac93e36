#include "app/shell/EnvironmentSettings.h"

#include "app/shell/EnvironmentError.h"

#include <curl/curl.h>

#include <algorithm>

#include <memory>

namespace kavelo {

namespace {

std::optional<std::string> hostOf(const std::string& url) {
    std::unique_ptr<CURLU, decltype(&curl_url_cleanup)> handle(curl_url(), &curl_url_cleanup);
    if (!handle || curl_url_set(handle.get(), CURLUPART_URL, url.c_str(), 0) != CURLUE_OK) {
        return std::nullopt;
    }
    char* host = nullptr;
    if (curl_url_get(handle.get(), CURLUPART_HOST, &host, 0) != CURLUE_OK || host == nullptr) {
        return std::nullopt;
    }
    std::string result(host);
    curl_free(host);
    if (result.empty()) {
        return std::nullopt;
    }
    return result;
}

} // namespace

std::optional<std::string> EnvironmentSettings::normalizedBackendUrl(const std::string& value) {
    std::string url = value.rfind("http", 0) == 0 ? value : "https://" + value;
    if (!hostOf(url)) {
        return std::nullopt;
    }
    while (!url.empty() && url.back() == '/') {
        url.pop_back();
    }
    return url;
}

AppEnvironmentMode EnvironmentSettings::detectMode(const InfoDictionary& info, const EnvironmentReader& env) {
    if (const auto forced = env("KAVELO_BACKEND"); forced && !forced->empty()) {
        if (*forced == "mock") {
            return AppEnvironmentMode::mock;
        }
        if (*forced != "live") {
            throw EnvironmentError(EnvironmentError::Kind::unknownBackendChoice, *forced);
        }
    }
    // The live world, chosen or by default: without a usable backend it refuses to run rather than
    // stand in the mock world, which nobody asked for.
    (void)liveBackend(info);
    return AppEnvironmentMode::live;
}

std::pair<std::string, std::string> EnvironmentSettings::liveBackend(const InfoDictionary& info) {
    const auto rawUrl = info.value("SUPABASE_URL");
    const auto anonKey = info.value("SUPABASE_ANON_KEY");
    if (!rawUrl || !anonKey) {
        throw EnvironmentError(EnvironmentError::Kind::noBackendAddress, info.source());
    }
    const auto url = normalizedBackendUrl(*rawUrl);
    if (!url) {
        throw EnvironmentError(EnvironmentError::Kind::badBackendAddress, *rawUrl, "in " + info.source());
    }
    return {*url, *anonKey};
}

std::filesystem::path EnvironmentSettings::dataDirectory(AppEnvironmentMode mode,
                                                         const EnvironmentReader& env) {
    std::filesystem::path base;
    if (const auto xdg = env("XDG_DATA_HOME"); xdg && !xdg->empty() && xdg->front() == '/') {
        base = *xdg;
    } else if (const auto home = env("HOME"); home && !home->empty()) {
        base = std::filesystem::path(*home) / ".local" / "share";
    } else {
        std::error_code ec;
        base = std::filesystem::temp_directory_path(ec);
        if (ec) {
            base = "/tmp";
        }
    }
    base /= "Kavely";
    if (mode == AppEnvironmentMode::mock) {
        base /= "Mock";
    }
    return base;
}

std::filesystem::path EnvironmentSettings::preferencesFile(AppEnvironmentMode mode,
                                                           const EnvironmentReader& env) {
    std::filesystem::path base;
    if (const auto xdg = env("XDG_CONFIG_HOME"); xdg && !xdg->empty() && xdg->front() == '/') {
        base = *xdg;
    } else if (const auto home = env("HOME"); home && !home->empty()) {
        base = std::filesystem::path(*home) / ".config";
    } else {
        // Nowhere to keep them: the caller keeps them in memory.
        return {};
    }
    base /= "Kavely";
    if (mode == AppEnvironmentMode::mock) {
        base /= "Mock";
    }
    return base / "preferences.json";
}

std::string EnvironmentSettings::updatePolicyUrl(const InfoDictionary& info, const std::string& backendUrl) {
    std::string base = backendUrl;
    if (const auto feed = info.value("SUFeedURL");
        feed && feed->find("://") != std::string::npos && hostOf(*feed)) {
        base = feed->substr(0, feed->find_first_of("?#"));
        const std::size_t pathStart = base.find('/', base.find("://") + 3);
        if (pathStart != std::string::npos) {
            // The feed's own file name goes; what stays is its folder.
            while (base.size() > pathStart && base.back() == '/') {
                base.pop_back();
            }
            base.erase(std::max(base.rfind('/'), pathStart));
        }
    }
    while (!base.empty() && base.back() == '/') {
        base.pop_back();
    }
    return base + "/" + kUpdatePolicyFile;
}

AppConfig EnvironmentSettings::makeConfig(AppEnvironmentMode mode, const InfoDictionary& info,
                                          const std::filesystem::path& dataDirectory) {
    AppConfig config;
    config.appVersion = info.value("CFBundleShortVersionString").value_or("1.0.0");
    config.buildNumber = info.value("CFBundleVersion").value_or("1");
    config.applicationSupportDirectory = dataDirectory;

    if (mode == AppEnvironmentMode::live) {
        auto [url, anonKey] = liveBackend(info);
        config.supabaseUrl = std::move(url);
        config.anonKey = std::move(anonKey);
        config.oauthClientType = info.value("KAVELO_OAUTH_CLIENT_TYPE").value_or("ios");
        config.oauthCallbackScheme = info.value("KAVELO_OAUTH_CALLBACK_SCHEME").value_or("kavely");
    } else {
        config.supabaseUrl = kMockSupabaseUrl;
        config.anonKey = kMockAnonKey;
    }
    return config;
}

std::string EnvironmentSettings::sessionServiceName(AppEnvironmentMode mode) {
    return mode == AppEnvironmentMode::live ? "com.kavely.linux.session" : "com.kavely.linux.session.mock";
}

std::string EnvironmentSettings::legacySessionServiceName(AppEnvironmentMode mode) {
    return mode == AppEnvironmentMode::live ? "com.kavely.mac.session" : "com.kavely.mac.session.mock";
}

} // namespace kavelo
