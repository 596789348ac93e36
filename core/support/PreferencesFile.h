#pragma once

#include "core/support/KeyValueStore.h"

#include <nlohmann/json.hpp>

#include <filesystem>
#include <functional>
#include <mutex>

namespace kavelo {

// The user's preferences as one JSON object in one file: texts and flags as themselves, data as
// {"base64": "..."}. Read once at construction and held in memory; every change rewrites the file
// atomically (changes are rare: a setting flipped, a cache refreshed).
//
// A file that cannot be read as such a preferences object (broken, not an object, larger than
// kMaxFileBytes) is moved aside to "<name>.broken", reported once through `warn`, and the program goes on
// with defaults. A file that cannot be written keeps the value in memory for this run and says so once.
//
// Thread-safety: any thread.
class PreferencesFile final : public KeyValueStore {
  public:
    static constexpr std::size_t kMaxFileBytes = 1024 * 1024;
    static constexpr std::size_t kMaxEntries = 4096;
    using Warn = std::function<void(const std::string& message)>;

    PreferencesFile(std::filesystem::path path, Warn warn);

    std::optional<std::string> string(const std::string& key) const override;
    std::optional<Bytes> data(const std::string& key) const override;
    std::optional<bool> boolean(const std::string& key) const override;
    void setString(const std::optional<std::string>& value, const std::string& key) override;
    void setData(const std::optional<Bytes>& value, const std::string& key) override;
    void setBool(bool value, const std::string& key) override;
    void removeValue(const std::string& key) override;

    const std::filesystem::path& path() const { return path_; }

  private:
    void load();
    void change(const std::string& key, std::optional<nlohmann::json> value);

    const std::filesystem::path path_;
    const Warn warn_;
    mutable std::mutex mutex_;
    nlohmann::json values_ = nlohmann::json::object(); // guarded by mutex_
    bool writeFailureReported_ = false;                // guarded by mutex_
    // Orders file writes only, so that the last write always carries the newest values; never taken
    // while mutex_ is held.
    std::mutex writeOrder_;
};

} // namespace kavelo
