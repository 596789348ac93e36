#include "core/workspace/TipsResponse.h"

#include "core/backend/WireJson.h"

#include <cstdint>

namespace kavelo {

namespace {

std::string bounded(std::string value, std::string_view key, std::size_t maxBytes) {
    if (value.size() > maxBytes) {
        throw DecodingError(std::string(key) + " is longer than " + std::to_string(maxBytes) + " bytes");
    }
    return value;
}

DashboardTip tip(const Json& value) {
    const Json& object = WireJson::object(value, "tip");
    DashboardTip t;
    t.id = bounded(WireJson::requireString(object, "id"), "id", TipsResponse::kMaxIdBytes);
    t.body = bounded(WireJson::requireString(object, "body"), "body", TipsResponse::kMaxTipBodyBytes);
    t.sortOrder = WireJson::requireInt(object, "sort_order");
    if (t.id.empty() || t.body.empty()) {
        throw DecodingError("a tip without id or body");
    }
    return t;
}

std::optional<std::int64_t> readMeetingCount(const Json& object) {
    const auto it = object.find("meeting_count");
    if (it == object.end() || it->is_null()) {
        return std::nullopt;
    }
    if (it->is_number_unsigned()) {
        const auto value = it->get<std::uint64_t>();
        if (value <= static_cast<std::uint64_t>(INT64_MAX)) {
            return static_cast<std::int64_t>(value);
        }
    } else if (it->is_number_integer() && it->get<std::int64_t>() >= 0) {
        return it->get<std::int64_t>();
    }
    throw DecodingError("meeting_count is not a count");
}

} // namespace

TipsResponse TipsResponse::fromJson(const Json& json) {
    const Json& object = WireJson::object(json, "tips answer");
    TipsResponse response;
    if (auto segment = WireJson::optionalString(object, "segment")) {
        response.segment = bounded(std::move(*segment), "segment", kMaxSegmentBytes);
    }
    const Json& tips = WireJson::require(object, "tips", true);
    if (tips.size() > kMaxTips) {
        throw DecodingError("more than " + std::to_string(kMaxTips) + " tips");
    }
    for (const Json& value : tips) {
        response.tips.push_back(tip(value));
    }
    response.meetingCount = readMeetingCount(object);
    return response;
}

TipsResponse TipsResponse::parse(const Bytes& body) {
    if (body.size() > kMaxBytes) {
        throw DecodingError("tips answer is larger than " + std::to_string(kMaxBytes) + " bytes");
    }
    return fromJson(CoreJSON::decode(body));
}

Json TipsResponse::toJson() const {
    Json json = Json::object();
    WireJson::put(json, "segment", segment);
    Json list = Json::array();
    for (const DashboardTip& t : tips) {
        list.push_back(Json{{"id", t.id}, {"body", t.body}, {"sort_order", t.sortOrder}});
    }
    json["tips"] = std::move(list);
    WireJson::put(json, "meeting_count", meetingCount);
    return json;
}

} // namespace kavelo
