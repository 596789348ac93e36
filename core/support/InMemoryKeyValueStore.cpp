#include "core/support/InMemoryKeyValueStore.h"

namespace kavelo {

template <class T> std::optional<T> InMemoryKeyValueStore::get(const std::string& key) const {
    std::lock_guard lock(mutex_);
    auto it = values_.find(key);
    if (it == values_.end() || !std::holds_alternative<T>(it->second)) {
        return std::nullopt;
    }
    return std::get<T>(it->second);
}

std::optional<std::string> InMemoryKeyValueStore::string(const std::string& key) const {
    return get<std::string>(key);
}
std::optional<Bytes> InMemoryKeyValueStore::data(const std::string& key) const {
    return get<Bytes>(key);
}
std::optional<bool> InMemoryKeyValueStore::boolean(const std::string& key) const {
    return get<bool>(key);
}

void InMemoryKeyValueStore::setString(const std::optional<std::string>& value, const std::string& key) {
    if (!value) {
        return removeValue(key);
    }
    std::lock_guard lock(mutex_);
    values_[key] = *value;
}

void InMemoryKeyValueStore::setData(const std::optional<Bytes>& value, const std::string& key) {
    if (!value) {
        return removeValue(key);
    }
    std::lock_guard lock(mutex_);
    values_[key] = *value;
}

void InMemoryKeyValueStore::setBool(bool value, const std::string& key) {
    std::lock_guard lock(mutex_);
    values_[key] = value;
}

void InMemoryKeyValueStore::removeValue(const std::string& key) {
    std::lock_guard lock(mutex_);
    values_.erase(key);
}

} // namespace kavelo
