#include "tools/cli/CliLanguage.h"

namespace kavelo::cli {

namespace {

bool isDutchLocale(const std::string& value) {
    return value.rfind("nl", 0) == 0 &&
           (value.size() == 2 || value[2] == '_' || value[2] == '.' || value[2] == '@' || value[2] == ':');
}

} // namespace

CliLanguage CliLanguage::fromEnvironment(const EnvironmentReader& env) {
    auto set = [&env](const char* name) -> std::string { return env(name).value_or(""); };
    // LC_ALL overrides LC_MESSAGES, which overrides LANG; the first of those that is set is the locale.
    std::string locale = set("LC_ALL");
    if (locale.empty()) {
        locale = set("LC_MESSAGES");
    }
    if (locale.empty()) {
        locale = set("LANG");
    }
    if (locale.empty() || locale == "C" || locale == "POSIX" || locale.rfind("C.", 0) == 0) {
        return english();
    }
    // LANGUAGE, a list of preferences, counts only under a real locale; its first entry decides.
    const std::string preferences = set("LANGUAGE");
    if (!preferences.empty()) {
        return CliLanguage(isDutchLocale(preferences.substr(0, preferences.find(':'))));
    }
    return CliLanguage(isDutchLocale(locale));
}

} // namespace kavelo::cli
