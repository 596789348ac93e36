#pragma once

#include "core/support/KeyValueStore.h"

#include <map>
#include <mutex>
#include <variant>

namespace kavelo {

class InMemoryKeyValueStore final : public KeyValueStore {
  public:
    std::optional<std::string> string(const std::string& key) const override;
    std::optional<Bytes> data(const std::string& key) const override;
    std::optional<bool> boolean(const std::string& key) const override;
    void setString(const std::optional<std::string>& value, const std::string& key) override;
    void setData(const std::optional<Bytes>& value, const std::string& key) override;
    void setBool(bool value, const std::string& key) override;
    void removeValue(const std::string& key) override;

  private:
    using Value = std::variant<std::string, Bytes, bool>;
    template <class T> std::optional<T> get(const std::string& key) const;

    mutable std::mutex mutex_;
    std::map<std::string, Value> values_; // guarded by mutex_
};

} // namespace kavelo
