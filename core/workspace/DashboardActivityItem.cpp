#include "core/workspace/DashboardActivityItem.h"

#include "core/support/UnicodeText.h"

#include <algorithm>
#include <cstdint>

namespace kavelo {

namespace {

// Date texts are short; anything longer is not a date and is not handed to the date parser.
constexpr std::size_t kMaxDateText = 64;

const Json& required(const Json& json, const char* key) {
    auto it = json.find(key);
    if (it == json.end() || it->is_null()) {
        throw DecodingError(std::string("activity item without ") + key);
    }
    return *it;
}

std::string text(const Json& value, const char* key, std::size_t maxBytes) {
    if (!value.is_string()) {
        throw DecodingError(std::string("activity item: ") + key + " is not text");
    }
    auto result = value.get<std::string>();
    if (result.size() > maxBytes) {
        throw DecodingError(std::string("activity item: ") + key + " is too long");
    }
    return result;
}

TimePoint date(const Json& value, const char* key) {
    if (!value.is_string() || value.get_ref<const std::string&>().size() > kMaxDateText) {
        throw DecodingError(std::string("activity item: ") + key + " is not a date");
    }
    return CoreJSON::parseDate(value.get_ref<const std::string&>());
}

const Json* optionalValue(const Json& json, const char* key) {
    auto it = json.find(key);
    return it == json.end() || it->is_null() ? nullptr : &*it;
}

} // namespace

Json DashboardActivityItem::toJson() const {
    Json json{{"id", id},
              {"recordingId", recordingId},
              {"meetingName", meetingName},
              {"submittedAt", CoreJSON::formatDateFractional(submittedAt)},
              {"phase", std::string(toRaw(phase))},
              {"slow", slow},
              {"updatedAt", CoreJSON::formatDateFractional(updatedAt)}};
    if (meetingId) {
        json["meetingId"] = *meetingId;
    }
    if (deliveredAt) {
        json["deliveredAt"] = CoreJSON::formatDateFractional(*deliveredAt);
    }
    if (recipientCount) {
        json["recipientCount"] = *recipientCount;
    }
    return json;
}

DashboardActivityItem DashboardActivityItem::fromJson(const Json& json) {
    if (!json.is_object()) {
        throw DecodingError("activity item is not an object");
    }
    DashboardActivityItem item;
    item.id = text(required(json, "id"), "id", maxIdBytes);
    item.recordingId = text(required(json, "recordingId"), "recordingId", maxIdBytes);
    if (const Json* meeting = optionalValue(json, "meetingId")) {
        item.meetingId = text(*meeting, "meetingId", maxIdBytes);
    }
    // The name is cut rather than refused: a long name is harmless once it is short again.
    const Json& name = required(json, "meetingName");
    if (!name.is_string()) {
        throw DecodingError("activity item: meetingName is not text");
    }
    item.meetingName = UnicodeText::prefix(name.get_ref<const std::string&>(), maxMeetingNameCharacters);
    item.submittedAt = date(required(json, "submittedAt"), "submittedAt");
    const Json& phase = required(json, "phase");
    auto parsed = phase.is_string() ? fromRaw<DashboardActivityPhase>(phase.get_ref<const std::string&>())
                                    : std::nullopt;
    if (!parsed) {
        throw DecodingError("activity item: unknown phase");
    }
    item.phase = *parsed;
    if (const Json* delivered = optionalValue(json, "deliveredAt")) {
        item.deliveredAt = date(*delivered, "deliveredAt");
    }
    if (const Json* count = optionalValue(json, "recipientCount")) {
        if (!count->is_number_integer()) {
            throw DecodingError("activity item: recipientCount is not an integer");
        }
        // Parsed non-negative integers are unsigned and may not fit a signed 64-bit value.
        const std::int64_t value = count->is_number_unsigned()
                                       ? static_cast<std::int64_t>(std::min<std::uint64_t>(
                                             count->get<std::uint64_t>(), maxRecipientCount))
                                       : count->get<std::int64_t>();
        item.recipientCount = static_cast<int>(std::clamp<std::int64_t>(value, 0, maxRecipientCount));
    }
    const Json& slow = required(json, "slow");
    if (!slow.is_boolean()) {
        throw DecodingError("activity item: slow is not a flag");
    }
    item.slow = slow.get<bool>();
    item.updatedAt = date(required(json, "updatedAt"), "updatedAt");
    return item;
}

} // namespace kavelo
