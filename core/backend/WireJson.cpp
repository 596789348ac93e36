#include "core/backend/WireJson.h"

#include <cmath>
#include <limits>

namespace kavelo {

namespace {

[[noreturn]] void missing(std::string_view key) {
    throw DecodingError("No value associated with key \"" + std::string(key) + "\".");
}

[[noreturn]] void mismatch(std::string_view key, std::string_view expected) {
    throw DecodingError("Expected to decode " + std::string(expected) + " for key \"" + std::string(key) +
                        "\" but found another type.");
}

} // namespace

const Json& WireJson::object(const Json& value, std::string_view what) {
    if (!value.is_object()) {
        throw DecodingError("Expected to decode " + std::string(what) +
                            " as an object but found another type.");
    }
    return value;
}

const Json* WireJson::find(const Json& object, std::string_view key) {
    auto it = object.find(key);
    if (it == object.end() || it->is_null()) {
        return nullptr;
    }
    return &*it;
}

int WireJson::toInt(const Json& value, std::string_view key) {
    if (value.is_number_unsigned()) {
        auto u = value.get<unsigned long long>();
        if (u > static_cast<unsigned long long>(std::numeric_limits<int>::max())) {
            mismatch(key, "Int");
        }
        return static_cast<int>(u);
    }
    if (value.is_number_integer()) {
        auto i = value.get<long long>();
        if (i < std::numeric_limits<int>::min() || i > std::numeric_limits<int>::max()) {
            mismatch(key, "Int");
        }
        return static_cast<int>(i);
    }
    // A whole number written with a fraction (3.0) is still an integer; 3.5 is not.
    if (value.is_number_float()) {
        double d = value.get<double>();
        if (std::isfinite(d) && d == std::trunc(d) && d >= std::numeric_limits<int>::min() &&
            d <= std::numeric_limits<int>::max()) {
            return static_cast<int>(d);
        }
    }
    mismatch(key, "Int");
}

std::string WireJson::requireString(const Json& object, std::string_view key) {
    if (auto v = optionalString(object, key)) {
        return *v;
    }
    missing(key);
}

std::optional<std::string> WireJson::optionalString(const Json& object, std::string_view key) {
    const Json* v = find(object, key);
    if (!v) {
        return std::nullopt;
    }
    if (!v->is_string()) {
        mismatch(key, "String");
    }
    return v->get<std::string>();
}

int WireJson::requireInt(const Json& object, std::string_view key) {
    if (auto v = optionalInt(object, key)) {
        return *v;
    }
    missing(key);
}

std::optional<int> WireJson::optionalInt(const Json& object, std::string_view key) {
    const Json* v = find(object, key);
    if (!v) {
        return std::nullopt;
    }
    return toInt(*v, key);
}

double WireJson::requireDouble(const Json& object, std::string_view key) {
    if (auto v = optionalDouble(object, key)) {
        return *v;
    }
    missing(key);
}

std::optional<double> WireJson::optionalDouble(const Json& object, std::string_view key) {
    const Json* v = find(object, key);
    if (!v) {
        return std::nullopt;
    }
    if (!v->is_number()) {
        mismatch(key, "Double");
    }
    return v->get<double>();
}

bool WireJson::requireBool(const Json& object, std::string_view key) {
    if (auto v = optionalBool(object, key)) {
        return *v;
    }
    missing(key);
}

std::optional<bool> WireJson::optionalBool(const Json& object, std::string_view key) {
    const Json* v = find(object, key);
    if (!v) {
        return std::nullopt;
    }
    if (!v->is_boolean()) {
        mismatch(key, "Bool");
    }
    return v->get<bool>();
}

std::vector<int> WireJson::requireIntArray(const Json& object, std::string_view key) {
    const Json& array = require(object, key, true);
    std::vector<int> out;
    out.reserve(array.size());
    for (const Json& element : array) {
        out.push_back(toInt(element, key));
    }
    return out;
}

std::optional<std::vector<std::string>> WireJson::optionalStringArray(const Json& object,
                                                                      std::string_view key) {
    const Json* v = find(object, key);
    if (!v) {
        return std::nullopt;
    }
    if (!v->is_array()) {
        mismatch(key, "Array<String>");
    }
    std::vector<std::string> out;
    out.reserve(v->size());
    for (const Json& element : *v) {
        if (!element.is_string()) {
            mismatch(key, "String");
        }
        out.push_back(element.get<std::string>());
    }
    return out;
}

const Json& WireJson::require(const Json& object, std::string_view key, bool wantArray) {
    const Json* v = find(object, key);
    if (!v) {
        missing(key);
    }
    if (wantArray ? !v->is_array() : !v->is_object()) {
        mismatch(key, wantArray ? "Array" : "Dictionary");
    }
    return *v;
}

} // namespace kavelo
