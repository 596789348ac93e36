#include "app/shell/KaveloCopy.h"

#include "core/support/AtomicFile.h"

#include <nlohmann/json.hpp>

namespace kavelo {
namespace {

void flatten(const nlohmann::json& object, const std::string& prefix,
             std::unordered_map<std::string, std::string>& into) {
    for (const auto& [key, value] : object.items()) {
        const auto full = prefix + "." + key;
        if (value.is_string()) {
            into[full] = value.get<std::string>();
        } else if (value.is_object()) {
            flatten(value, full, into);
        }
        // Numbers, flags and lists are not texts: left out.
    }
}

} // namespace

KaveloCopy::KaveloCopy(std::shared_ptr<KeyValueStore> preferences, const ResourceReader& reader)
    : preferences_(std::move(preferences)) {
    activeLanguage_ = preferences_ ? preferences_->string(std::string(kLanguageKey)).value_or("nl") : "nl";
    for (const auto language : languages) {
        tables_.emplace(std::string(language), loadTable(language, reader));
    }
}

KaveloCopy::Table KaveloCopy::loadTable(std::string_view language, const ResourceReader& reader) {
    Table table;
    for (const auto ns : namespaces) {
        const auto content = reader(std::string(language) + "." + std::string(ns) + ".json");
        if (!content || content->size() > kMaxFileBytes) {
            continue;
        }
        const auto parsed = nlohmann::json::parse(*content, nullptr, false);
        if (parsed.is_object()) {
            flatten(parsed, std::string(ns), table);
        }
    }
    return table;
}

KaveloCopy::ResourceReader KaveloCopy::folderReader(std::filesystem::path folder) {
    return [folder = std::move(folder)](const std::string& name) -> std::optional<std::string> {
        const auto bytes = readWholeFile(folder / name);
        if (!bytes) {
            return std::nullopt;
        }
        return std::string(bytes->begin(), bytes->end());
    };
}

std::string KaveloCopy::text(std::string_view key) const {
    std::lock_guard lock(mutex_);
    const std::string wanted(key);
    for (const std::string_view language : {std::string_view(activeLanguage_), std::string_view("nl")}) {
        const auto table = tables_.find(language);
        if (table == tables_.end()) {
            continue;
        }
        if (const auto found = table->second.find(wanted); found != table->second.end()) {
            return found->second;
        }
    }
    return wanted;
}

std::string KaveloCopy::text(std::string_view key, const std::map<std::string, std::string>& values) const {
    auto result = text(key);
    for (const auto& [name, value] : values) {
        const auto placeholder = "{{" + name + "}}";
        for (auto at = result.find(placeholder); at != std::string::npos;
             at = result.find(placeholder, at + value.size())) {
            result.replace(at, placeholder.size(), value);
        }
    }
    return result;
}

std::string KaveloCopy::language() const {
    std::lock_guard lock(mutex_);
    return activeLanguage_;
}

void KaveloCopy::setLanguage(const std::string& code) {
    {
        std::lock_guard lock(mutex_);
        activeLanguage_ = code;
    }
    if (preferences_) {
        preferences_->setString(code, std::string(kLanguageKey));
    }
}

bool KaveloCopy::hasKey(std::string_view language, std::string_view key) const {
    std::lock_guard lock(mutex_);
    const auto table = tables_.find(language);
    return table != tables_.end() && table->second.count(std::string(key)) > 0;
}

std::vector<std::string> KaveloCopy::keys(std::string_view language) const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> result;
    if (const auto table = tables_.find(language); table != tables_.end()) {
        for (const auto& [key, text] : table->second) {
            result.push_back(key);
        }
    }
    return result;
}

} // namespace kavelo
