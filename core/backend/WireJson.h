#pragma once

#include "core/support/CoreJSON.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kavelo {

// Field readers and writers for the typed wire records. Reading is strict, as a typed decoder is: a required
// key that is missing or null, or a value of the wrong type, throws DecodingError naming the key. An optional
// key that is missing or null reads as absent; present with the wrong type, it is still an error.
// Writing leaves absent optionals out, never writing null.
class WireJson {
  public:
    static const Json& object(const Json& value, std::string_view what);

    static std::string requireString(const Json& object, std::string_view key);
    static std::optional<std::string> optionalString(const Json& object, std::string_view key);
    static int requireInt(const Json& object, std::string_view key);
    static std::optional<int> optionalInt(const Json& object, std::string_view key);
    static double requireDouble(const Json& object, std::string_view key);
    static std::optional<double> optionalDouble(const Json& object, std::string_view key);
    static bool requireBool(const Json& object, std::string_view key);
    static std::optional<bool> optionalBool(const Json& object, std::string_view key);
    static std::vector<int> requireIntArray(const Json& object, std::string_view key);
    static std::optional<std::vector<std::string>> optionalStringArray(const Json& object,
                                                                       std::string_view key);
    // The value under a required key, which must be an object or, with wantArray, an array.
    static const Json& require(const Json& object, std::string_view key, bool wantArray = false);

    template <class T> static void put(Json& object, std::string_view key, const std::optional<T>& value) {
        if (value) {
            object[std::string(key)] = *value;
        }
    }

  private:
    static const Json* find(const Json& object, std::string_view key);
    static int toInt(const Json& value, std::string_view key);
};

} // namespace kavelo
