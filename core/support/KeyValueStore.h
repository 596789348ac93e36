#pragma once

#include "core/support/Bytes.h"

#include <optional>
#include <string>

namespace kavelo {

// Small preference store. Setting an absent value removes the key; a value of another type reads as absent.
class KeyValueStore {
  public:
    virtual ~KeyValueStore() = default;
    [[nodiscard]] virtual std::optional<std::string> string(const std::string& key) const = 0;
    [[nodiscard]] virtual std::optional<Bytes> data(const std::string& key) const = 0;
    [[nodiscard]] virtual std::optional<bool> boolean(const std::string& key) const = 0;
    virtual void setString(const std::optional<std::string>& value, const std::string& key) = 0;
    virtual void setData(const std::optional<Bytes>& value, const std::string& key) = 0;
    virtual void setBool(bool value, const std::string& key) = 0;
    virtual void removeValue(const std::string& key) = 0;
};

} // namespace kavelo
