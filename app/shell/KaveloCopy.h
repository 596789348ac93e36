#pragma once

#include "core/support/KeyValueStore.h"

#include <array>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace kavelo {

// The program's texts, by key: "dashboard.start" reads the entry "start" of the dashboard table of the
// active language, else of Dutch (the base language), else the key itself, so a missing text shows as its
// key and never as an empty line. Both languages are read once, at construction, from JSON files named
// "<language>.<namespace>.json" whose values are texts or nested objects of texts.
//
// Thread-safety: any thread.
class KaveloCopy {
  public:
    // Reads one resource file by name ("nl.account.json"); nullopt when there is none.
    using ResourceReader = std::function<std::optional<std::string>(const std::string& fileName)>;
    static constexpr std::array<std::string_view, 9> namespaces{
        "account", "auth", "common", "dashboard", "onboarding", "record", "settings", "success", "desktop"};
    static constexpr std::array<std::string_view, 2> languages{"nl", "en"};
    static constexpr std::string_view kLanguageKey = "kavelo_app_language";
    // A table file larger than this is skipped as broken.
    static constexpr std::size_t kMaxFileBytes = 1024 * 1024;

    KaveloCopy(std::shared_ptr<KeyValueStore> preferences, const ResourceReader& reader);

    // Reads the tables from a folder of files (tests, tools).
    static ResourceReader folderReader(std::filesystem::path folder);

    std::string text(std::string_view key) const;
    // Replaces every "{{name}}" by its value; a placeholder without a value stays as it stands.
    std::string text(std::string_view key, const std::map<std::string, std::string>& values) const;
    std::string language() const;
    // Makes `code` the language every later text is read in, and keeps the choice in the preferences.
    void setLanguage(const std::string& code);
    bool hasKey(std::string_view language, std::string_view key) const;
    std::vector<std::string> keys(std::string_view language) const;

  private:
    using Table = std::unordered_map<std::string, std::string>;
    static Table loadTable(std::string_view language, const ResourceReader& reader);

    const std::shared_ptr<KeyValueStore> preferences_;
    mutable std::mutex mutex_;
    std::string activeLanguage_;                       // guarded by mutex_
    std::map<std::string, Table, std::less<>> tables_; // filled at construction, read-only after
};

} // namespace kavelo
