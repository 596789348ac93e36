#include "core/recording/SpeakerListModel.h"

#include "core/support/UnicodeText.h"

#include <algorithm>

namespace kavelo {

namespace {

std::string cut(std::string_view name) {
    return UnicodeText::prefix(name, SpeakerListModel::maxNameLength);
}

// The form in which two names are compared.
std::string comparisonKey(std::string_view name) {
    return UnicodeText::lowercased(cut(name));
}

} // namespace

std::optional<std::size_t> SpeakerListModel::indexOf(std::string_view name) const {
    auto key = comparisonKey(name);
    for (std::size_t i = 0; i < speakers.size(); ++i) {
        if (comparisonKey(speakers[i].name) == key) {
            return i;
        }
    }
    return std::nullopt;
}

bool SpeakerListModel::appendIfNew(std::string_view trimmedName, Speaker::Source source) {
    if (trimmedName.empty() || speakers.size() >= maxNames || indexOf(trimmedName)) {
        return false;
    }
    speakers.push_back(Speaker{cut(trimmedName), false, source});
    return true;
}

void SpeakerListModel::prefillHost(const std::optional<std::string>& name) {
    if (!name) {
        return;
    }
    // The host's name comes from the profile; a line break in it is kept as part of the name.
    auto trimmed = UnicodeText::trimBlanks(*name);
    if (trimmed.empty()) {
        return;
    }
    if (auto index = indexOf(trimmed)) {
        Speaker row = speakers[*index];
        row.isHost = true;
        speakers.erase(speakers.begin() + static_cast<std::ptrdiff_t>(*index));
        speakers.insert(speakers.begin(), std::move(row));
        return;
    }
    if (speakers.size() >= maxNames) {
        return;
    }
    speakers.insert(speakers.begin(), Speaker{cut(trimmed), true, Speaker::Source::host});
}

void SpeakerListModel::mergeMappingResults(const std::vector<std::string>& names) {
    for (const auto& name : names) {
        appendIfNew(UnicodeText::trimBlanksAndNewlines(name), Speaker::Source::mapping);
    }
}

bool SpeakerListModel::addManual(std::string_view name) {
    return appendIfNew(UnicodeText::trimBlanksAndNewlines(name), Speaker::Source::manual);
}

int SpeakerListModel::addFromPaste(std::string_view text) {
    int added = 0;
    std::size_t start = 0;
    while (start <= text.size()) {
        auto end = text.find_first_of(",;\n", start);
        if (end == std::string_view::npos) {
            end = text.size();
        }
        if (addManual(text.substr(start, end - start))) {
            ++added;
        }
        start = end + 1;
    }
    return added;
}

void SpeakerListModel::rename(std::size_t index, std::string_view name) {
    if (index >= speakers.size()) {
        return;
    }
    auto trimmed = UnicodeText::trimBlanksAndNewlines(name);
    if (trimmed.empty()) {
        return;
    }
    auto key = comparisonKey(trimmed);
    for (std::size_t i = 0; i < speakers.size(); ++i) {
        if (i != index && comparisonKey(speakers[i].name) == key) {
            return;
        }
    }
    speakers[index].name = cut(trimmed);
    speakers[index].source = Speaker::Source::manual;
}

void SpeakerListModel::remove(std::size_t index) {
    if (index < speakers.size()) {
        speakers.erase(speakers.begin() + static_cast<std::ptrdiff_t>(index));
    }
}

void SpeakerListModel::setManualCount(std::optional<int> count) {
    if (!count) {
        manualSpeakerCount.reset();
        return;
    }
    manualSpeakerCount = std::min(std::max({*count, namedCount(), 1}), maxSpeakerCount);
}

std::optional<int> SpeakerListModel::effectiveSpeakerCount() const {
    if (manualSpeakerCount) {
        return std::clamp(std::max(*manualSpeakerCount, namedCount()), 1, maxSpeakerCount);
    }
    if (namedCount() >= 2) {
        return std::min(namedCount(), maxSpeakerCount);
    }
    return std::nullopt;
}

std::optional<int> SpeakerListModel::displaySpeakerCount() const {
    if (manualSpeakerCount) {
        return effectiveSpeakerCount();
    }
    if (namedCount() == 0) {
        return std::nullopt;
    }
    return std::min(namedCount(), maxSpeakerCount);
}

void SpeakerListModel::bumpCount(int step) {
    int named = namedCount();
    int base = manualSpeakerCount ? std::clamp(std::max(*manualSpeakerCount, named), 1, maxSpeakerCount)
               : speakers.empty() ? 2
                                  : std::min(named, maxSpeakerCount);
    int floor = speakers.empty() ? 1 : named;
    int next = std::min(std::max(base + step, floor), maxSpeakerCount);
    // An empty list without a count shows no number, so any press is a change the user sees.
    bool alwaysStores = speakers.empty() && !manualSpeakerCount;
    if (next == base && !alwaysStores) {
        return;
    }
    manualSpeakerCount = next;
}

std::optional<SpeakerListModel::CountPayload> SpeakerListModel::speakerCountPayload() const {
    int n = 0;
    if (manualSpeakerCount) {
        n = std::max(*manualSpeakerCount, namedCount());
        if (n <= 1) {
            return CountPayload{1, "exact"};
        }
    } else {
        if (namedCount() < 2) {
            return std::nullopt;
        }
        n = namedCount();
    }
    if (n >= maxSpeakerCount) {
        return CountPayload{maxSpeakerCount, "hint"};
    }
    if (n > exactCountThreshold) {
        return CountPayload{n, "hint"};
    }
    return CountPayload{n, "exact"};
}

std::optional<std::vector<std::string>> SpeakerListModel::participantsPayload() const {
    std::vector<std::string> names;
    for (const auto& speaker : speakers) {
        if (!speaker.name.empty()) {
            names.push_back(speaker.name);
        }
    }
    if (names.empty()) {
        return std::nullopt;
    }
    return names;
}

} // namespace kavelo
