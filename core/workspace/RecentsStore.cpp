#include "core/workspace/RecentsStore.h"

#include "core/support/CoreJSON.h"
#include "core/support/UnicodeText.h"

#include <algorithm>

namespace kavelo {

RecentsStore::RecentsStore(std::shared_ptr<KeyValueStore> store) : store_(std::move(store)) {}

std::vector<std::string> RecentsStore::recentSpeakers() const {
    return load(kSpeakersKey);
}

std::vector<std::string> RecentsStore::recentRecipients() const {
    return load(kRecipientsKey);
}

void RecentsStore::saveSpeakers(const std::vector<std::string>& names) {
    save(kSpeakersKey, names, false);
}

void RecentsStore::saveRecipients(const std::vector<std::string>& addresses) {
    save(kRecipientsKey, addresses, true);
}

void RecentsStore::clear() {
    store_->removeValue(kSpeakersKey);
    store_->removeValue(kRecipientsKey);
}

std::vector<std::string> RecentsStore::load(const char* key) const {
    const auto data = store_->data(key);
    if (!data) {
        return {};
    }
    Json json;
    try {
        json = CoreJSON::decode(*data);
    } catch (const std::exception&) {
        return {};
    }
    if (!json.is_array() ||
        !std::all_of(json.begin(), json.end(), [](const Json& v) { return v.is_string(); })) {
        return {};
    }
    std::vector<std::string> entries;
    for (const Json& value : json) {
        auto text = value.get<std::string>();
        if (!text.empty() && text.size() <= kMaxEntryBytes) {
            entries.push_back(std::move(text));
        }
        if (entries.size() == kMaxEntries) {
            break;
        }
    }
    return entries;
}

void RecentsStore::save(const char* key, const std::vector<std::string>& input, bool lowercase) {
    std::vector<std::string> entries = load(key);
    for (const std::string& raw : input) {
        std::string entry = lowercase ? UnicodeText::lowercased(UnicodeText::trimBlanksAndNewlines(raw))
                                      : UnicodeText::trimBlanks(raw);
        if (entry.empty() || entry.size() > kMaxEntryBytes) {
            continue;
        }
        const std::string folded = UnicodeText::lowercased(entry);
        std::erase_if(entries, [&](const std::string& e) { return UnicodeText::lowercased(e) == folded; });
        entries.insert(entries.begin(), std::move(entry));
    }
    if (entries.size() > kMaxEntries) {
        entries.resize(kMaxEntries);
    }
    store_->setData(CoreJSON::encodeBytes(Json(entries)), key);
}

} // namespace kavelo
