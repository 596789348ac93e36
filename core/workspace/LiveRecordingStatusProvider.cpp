#include "core/workspace/LiveRecordingStatusProvider.h"

#include "core/workspace/DashboardActivityItem.h"
#include "core/workspace/RecordingStatusParser.h"

namespace kavelo {

LiveRecordingStatusProvider::LiveRecordingStatusProvider(std::shared_ptr<SupabaseRestClient> rest)
    : rest_(std::move(rest)) {}

std::optional<std::string> LiveRecordingStatusProvider::resolveMeetingId(const std::string& recordingId) {
    // One row of one column: an answer beyond the status bound is not the one we asked for.
    const Bytes body = rest_->select("meetings", "id", {{"recording_id", "eq." + recordingId}}, 1,
                                     RecordingStatusParser::maxAnswerBytes);
    const Json rows = Json::parse(body.begin(), body.end(), nullptr, false);
    if (!rows.is_array() || rows.empty() || !rows.front().is_object()) {
        return std::nullopt;
    }
    auto id = rows.front().find("id");
    if (id == rows.front().end() || !id->is_string() || id->get_ref<const std::string&>().empty() ||
        id->get_ref<const std::string&>().size() > DashboardActivityItem::maxIdBytes) {
        return std::nullopt;
    }
    return id->get<std::string>();
}

std::optional<RecordingStatus> LiveRecordingStatusProvider::fetchStatus(const std::string& meetingId) {
    return RecordingStatusParser::parse(rest_->rpc("get_recording_status",
                                                   CoreJSON::encodeBytes(Json{{"p_meeting_id", meetingId}}),
                                                   RecordingStatusParser::maxAnswerBytes));
}

} // namespace kavelo
