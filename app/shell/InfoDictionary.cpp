#include "app/shell/InfoDictionary.h"

#include "app/shell/KaveloInfo.h"
#include "core/support/AtomicFile.h"

#include <cstdlib>

namespace kavelo {

EnvironmentReader processEnvironment() {
    return [](const std::string& name) -> std::optional<std::string> {
        const char* value = std::getenv(name.c_str());
        if (value == nullptr) {
            return std::nullopt;
        }
        return std::string(value);
    };
}

InfoDictionary::InfoDictionary(Json object)
    : object_(object.is_object() ? std::move(object) : Json::object()) {}

InfoDictionary InfoDictionary::embedded() {
    Json parsed = Json::parse(kEmbeddedInfoJSON, nullptr, false);
    return InfoDictionary(parsed.is_discarded() ? Json::object() : std::move(parsed));
}

InfoDictionary InfoDictionary::fromFile(const std::filesystem::path& path) {
    const auto bytes = readWholeFile(path);
    if (!bytes) {
        return InfoDictionary();
    }
    Json parsed = Json::parse(bytes->begin(), bytes->end(), nullptr, false);
    return InfoDictionary(parsed.is_discarded() ? Json::object() : std::move(parsed));
}

InfoDictionary InfoDictionary::load(const EnvironmentReader& env) {
    if (const auto path = env("KAVELO_INFO_FILE"); path && !path->empty()) {
        return fromFile(*path);
    }
    return embedded();
}

std::optional<std::string> InfoDictionary::value(const std::string& key) const {
    const auto it = object_.find(key);
    if (it == object_.end() || !it->is_string()) {
        return std::nullopt;
    }
    std::string text = it->get<std::string>();
    if (text.empty() || text.rfind("$(", 0) == 0) {
        return std::nullopt;
    }
    return text;
}

} // namespace kavelo
