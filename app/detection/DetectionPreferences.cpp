#include "app/detection/DetectionPreferences.h"

#include <algorithm>

namespace kavelo {

namespace {
std::string trimmed(const std::string& text) {
    const char* blanks = " \t\r\n\v\f";
    auto first = text.find_first_not_of(blanks);
    if (first == std::string::npos) {
        return {};
    }
    auto last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}
} // namespace

DetectionPreferences::DetectionPreferences(std::shared_ptr<KeyValueStore> store) : store_(std::move(store)) {}

bool DetectionPreferences::enabled() const {
    return store_->boolean(notifyKey).value_or(true);
}

std::vector<std::string> DetectionPreferences::mutedApps() const {
    std::vector<std::string> names;
    auto stored = store_->string(mutedKey).value_or("");
    if (stored.size() > maxStoredLength) {
        stored.resize(maxStoredLength);
    }
    std::size_t start = 0;
    while (start <= stored.size() && names.size() < maxMutedNames) {
        auto comma = stored.find(',', start);
        auto end = comma == std::string::npos ? stored.size() : comma;
        auto name = trimmed(stored.substr(start, end - start));
        if (!name.empty()) {
            names.push_back(std::move(name));
        }
        if (comma == std::string::npos) {
            break;
        }
        start = comma + 1;
    }
    return names;
}

bool DetectionPreferences::isMuted(const std::string& name) const {
    auto names = mutedApps();
    return std::find(names.begin(), names.end(), name) != names.end();
}

void DetectionPreferences::mute(const std::string& name) {
    auto names = mutedApps();
    if (std::find(names.begin(), names.end(), name) != names.end()) {
        return;
    }
    names.push_back(name);
    // Within the bounds the list is read back with, or the name just muted would be cut off again: the
    // oldest names give way.
    auto joined = [&names] {
        std::string text;
        for (const auto& n : names) {
            text += text.empty() ? n : ", " + n;
        }
        return text;
    };
    while (names.size() > 1 && (names.size() > maxMutedNames || joined().size() > maxStoredLength)) {
        names.erase(names.begin());
    }
    store_->setString(joined(), mutedKey);
}

} // namespace kavelo
