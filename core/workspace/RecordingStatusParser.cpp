#include "core/workspace/RecordingStatusParser.h"

#include "core/support/UnicodeText.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <utility>

namespace kavelo {

namespace {

constexpr std::size_t kMaxDateText = 64;
constexpr std::size_t kMaxPhaseText = 64;

int rank(RecordingStatusPhase phase) {
    switch (phase) {
    case RecordingStatusPhase::delivered:
        return 4;
    case RecordingStatusPhase::generating:
        return 3;
    case RecordingStatusPhase::transcribing:
        return 2;
    case RecordingStatusPhase::recording:
        return 1;
    case RecordingStatusPhase::failed:
        return 0;
    }
    return 0;
}

std::optional<TimePoint> dateValue(const Json& row, const char* key) {
    auto it = row.find(key);
    if (it == row.end() || !it->is_string()) {
        return std::nullopt;
    }
    const auto& text = it->get_ref<const std::string&>();
    if (text.size() > kMaxDateText) {
        return std::nullopt;
    }
    if (auto date = CoreJSON::parseISO8601Fractional(text)) {
        return date;
    }
    return CoreJSON::parseISO8601Plain(text);
}

std::optional<int> countValue(const Json& row, const char* key) {
    auto it = row.find(key);
    if (it == row.end() || !it->is_number()) {
        return std::nullopt;
    }
    const int limit = RecordingStatusParser::maxRecipientCount;
    if (it->is_number_unsigned()) {
        return static_cast<int>(std::min<std::uint64_t>(it->get<std::uint64_t>(), limit));
    }
    if (it->is_number_integer()) {
        return static_cast<int>(std::clamp<std::int64_t>(it->get<std::int64_t>(), 0, limit));
    }
    // A count sent as 3.0: the whole part, clamped before the cast so that no value overflows.
    return static_cast<int>(std::clamp(it->get<double>(), 0.0, static_cast<double>(limit)));
}

} // namespace

std::optional<RecordingStatusPhase> RecordingStatusParser::phaseFromText(std::string_view text) {
    if (text.size() > kMaxPhaseText) {
        return std::nullopt;
    }
    static constexpr std::array<std::pair<std::string_view, RecordingStatusPhase>, 11> table{{
        {"recording", RecordingStatusPhase::recording},
        {"processing", RecordingStatusPhase::transcribing},
        {"transcribing", RecordingStatusPhase::transcribing},
        // "completed" is the end of processing, not of delivery: the mail has not gone out yet.
        {"completed", RecordingStatusPhase::generating},
        {"emailing", RecordingStatusPhase::generating},
        {"generating", RecordingStatusPhase::generating},
        {"delivered", RecordingStatusPhase::delivered},
        {"emailed", RecordingStatusPhase::delivered},
        {"sent", RecordingStatusPhase::delivered},
        {"failed", RecordingStatusPhase::failed},
        {"permanent_failed", RecordingStatusPhase::failed},
    }};
    const std::string key = UnicodeText::lowercased(UnicodeText::trimBlanksAndNewlines(text));
    for (const auto& [word, phase] : table) {
        if (word == key) {
            return phase;
        }
    }
    return std::nullopt;
}

void RecordingStatusParser::collect(const Json& value, int depth, std::vector<Json>& rows) {
    if (depth > maxNesting || rows.size() >= maxRows) {
        return;
    }
    if (value.is_string()) {
        const auto& text = value.get_ref<const std::string&>();
        if (text.size() > maxAnswerBytes) {
            return;
        }
        Json embedded = Json::parse(text, nullptr, false);
        if (!embedded.is_discarded()) {
            collect(embedded, depth + 1, rows);
        }
        return;
    }
    if (value.is_array()) {
        for (const Json& element : value) {
            if (rows.size() >= maxRows) {
                return;
            }
            collect(element, depth + 1, rows);
        }
        return;
    }
    if (!value.is_object()) {
        return;
    }
    if (value.contains("phase") || value.contains("delivered_at") ||
        value.contains("automation_confirmed_at")) {
        rows.push_back(value);
        return;
    }
    for (const char* key : {"status", "data", "result"}) {
        auto it = value.find(key);
        if (it == value.end()) {
            continue;
        }
        const std::size_t before = rows.size();
        collect(*it, depth + 1, rows);
        if (rows.size() > before) {
            return;
        }
    }
}

std::vector<Json> RecordingStatusParser::normalize(const Json& value) {
    std::vector<Json> rows;
    collect(value, 1, rows);
    return rows;
}

std::optional<RecordingStatus> RecordingStatusParser::parseRow(const Json& row) {
    if (!row.is_object()) {
        return std::nullopt;
    }
    RecordingStatus status;
    for (const char* key : {"delivered_at", "deliveredAt", "automation_confirmed_at"}) {
        if ((status.deliveredAt = dateValue(row, key))) {
            break;
        }
    }
    std::optional<RecordingStatusPhase> phase;
    if (auto it = row.find("phase"); it != row.end() && it->is_string()) {
        phase = phaseFromText(it->get_ref<const std::string&>());
    }
    if (status.deliveredAt) {
        phase = RecordingStatusPhase::delivered; // a delivery date outweighs whatever the phase text says
    }
    if (!phase) {
        return std::nullopt;
    }
    status.phase = *phase;
    status.recipientCount = countValue(row, "recipient_count");
    if (!status.recipientCount) {
        status.recipientCount = countValue(row, "recipientCount");
    }
    if (auto it = row.find("slow"); it != row.end() && it->is_boolean()) {
        status.slow = it->get<bool>();
    }
    return status;
}

std::optional<RecordingStatus> RecordingStatusParser::parse(const Bytes& data) {
    if (data.size() > maxAnswerBytes) {
        return std::nullopt;
    }
    try {
        const Json value = Json::parse(data.begin(), data.end(), nullptr, false);
        if (value.is_discarded()) {
            return std::nullopt;
        }
        std::vector<RecordingStatus> statuses;
        for (const Json& row : normalize(value)) {
            if (auto status = parseRow(row)) {
                statuses.push_back(*status);
            }
        }
        std::stable_sort(statuses.begin(), statuses.end(),
                         [](const auto& a, const auto& b) { return rank(a.phase) > rank(b.phase); });
        if (statuses.empty()) {
            return std::nullopt;
        }
        return statuses.front();
    } catch (const std::exception&) {
        // Only allocation can get here; an answer we cannot hold is no answer.
        return std::nullopt;
    }
}

} // namespace kavelo
