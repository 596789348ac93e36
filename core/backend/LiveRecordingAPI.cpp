#include "core/backend/LiveRecordingAPI.h"

#include "core/backend/APIError.h"
#include "core/backend/InitRecordingError.h"
#include "core/backend/RecordingAPIBodies.h"
#include "core/support/RecordingLimits.h"

#include <charconv>
#include <cmath>
#include <limits>
#include <set>
#include <string_view>

namespace kavelo {

namespace {

using AuthMode = SupabaseFunctionClient::AuthMode;

constexpr const char* kInitRecording = "init-recording";
constexpr const char* kListRecordingChunks = "list-recording-chunks";
constexpr const char* kFinalizeRecording = "finalize-recording";
constexpr const char* kEarlySpeakerMapping = "early-speaker-mapping";

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view blanks = " \t\n\r\f\v";
    auto first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        return {};
    }
    auto last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}

// A decimal number with an optional sign; one too large for 64 bits reads as the largest, since it is out of
// range all the same.
std::optional<long long> parseDecimal(std::string_view text) {
    text = trimmed(text);
    if (!text.empty() && text.front() == '+') {
        text.remove_prefix(1);
        if (!text.empty() && text.front() == '-') {
            return std::nullopt; // "+-3" is no number
        }
    }
    long long value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    if (error == std::errc::result_out_of_range) {
        return std::numeric_limits<long long>::max();
    }
    if (error != std::errc()) {
        return std::nullopt;
    }
    return value;
}

// The number an element stands for, cut to its integer part; absent when it is no number at all.
std::optional<long long> sequenceOf(const Json& element) {
    constexpr auto largest = std::numeric_limits<long long>::max();
    if (element.is_number_unsigned()) {
        auto value = element.get<std::uint64_t>();
        return value > static_cast<std::uint64_t>(largest) ? largest : static_cast<long long>(value);
    }
    if (element.is_number_integer()) {
        return element.get<std::int64_t>();
    }
    if (element.is_number_float()) {
        double value = std::trunc(element.get<double>());
        if (std::isnan(value)) {
            return std::nullopt;
        }
        if (std::fabs(value) >= 9.0e18) {
            return value < 0 ? std::numeric_limits<long long>::min() : largest;
        }
        return static_cast<long long>(value);
    }
    if (element.is_string()) {
        return parseDecimal(element.get_ref<const std::string&>());
    }
    return std::nullopt;
}

// The first object of a JSON array of rows, or nothing for anything else.
std::optional<Json> firstRow(const Bytes& body) {
    Json json;
    try {
        json = CoreJSON::decode(body);
    } catch (const DecodingError&) {
        return std::nullopt;
    }
    if (!json.is_array() || json.empty() || !json.front().is_object()) {
        return std::nullopt;
    }
    return json.front();
}

const Json* member(const Json& object, const char* key) {
    auto it = object.find(key);
    return it == object.end() ? nullptr : &*it;
}

} // namespace

LiveRecordingAPI::LiveRecordingAPI(std::shared_ptr<SupabaseFunctionClient> functions,
                                   std::shared_ptr<SupabaseRestClient> rest)
    : functions_(std::move(functions)), rest_(std::move(rest)) {}

InitRecordingResponse LiveRecordingAPI::initRecording(const InitRecordingRequest& request) {
    Bytes raw;
    try {
        raw = functions_->postRaw(kInitRecording, request.toJson(), true, AuthMode::optional, {}, 10.0);
    } catch (const APIError& error) {
        switch (error.kind()) {
        case APIError::Kind::network:
        case APIError::Kind::timeout:
            throw InitRecordingError::network();
        case APIError::Kind::http:
            throw InitRecordingError::backend(*error.httpStatus(), error.errorCode(), error.message());
        default:
            throw;
        }
    }
    try {
        return InitRecordingResponse::fromJson(CoreJSON::decode(raw));
    } catch (const DecodingError& e) {
        throw APIError::decoding(std::string(kInitRecording) + ": " + e.what());
    }
}

ChunkReconciliation LiveRecordingAPI::listRecordingChunks(const std::string& recordingId) {
    Bytes raw;
    try {
        raw = functions_->postRaw(kListRecordingChunks, ListChunksBody{recordingId}.toJson(), true,
                                  AuthMode::required, {}, 15.0, maxChunkListBytes + 1);
    } catch (...) {
        // Whatever went wrong, the server's view is unknown; callers must not read it as "nothing arrived".
        return ChunkReconciliation::unchecked();
    }
    return parseChunkList(raw);
}

void LiveRecordingAPI::finalizeRecording(const FinalizePayload& payload) {
    // One report per recording: a retry, or a relaunch after a crash mid-request, carries the same key, so
    // the backend can tell a repeat from a second request.
    functions_->postRaw(kFinalizeRecording, payload.toJson(), true, AuthMode::optional,
                        {{idempotencyHeader, finalizeIdempotencyKey(payload.recordingId)}}, 30.0);
}

std::string LiveRecordingAPI::finalizeIdempotencyKey(const std::string& recordingId) {
    return "finalize-" + recordingId;
}

void LiveRecordingAPI::diagnosticSync(const std::string& recordingId, const std::string& userId,
                                      const DiagnosticsPayload& diagnostics) {
    DiagnosticSyncBody body{recordingId, userId, true, diagnostics};
    functions_->postRaw(kFinalizeRecording, body.toJson(), true, AuthMode::optional, {}, 15.0);
}

std::optional<std::string> LiveRecordingAPI::resolveMeetingId(const std::string& recordingId) {
    return parseMeetingId(rest_->select("meetings", "id", {{"recording_id", "eq." + recordingId}}, 1));
}

EarlyMappingDispatch LiveRecordingAPI::triggerEarlySpeakerMapping(const std::string& meetingId) {
    return functions_
        ->post<EarlyMappingResponse>(kEarlySpeakerMapping, EarlyMappingBody{meetingId}.toJson(), true,
                                     AuthMode::required, {}, 15.0)
        .dispatch();
}

MeetingMappingRow LiveRecordingAPI::fetchMeetingMapping(const std::string& meetingId) {
    return parseMeetingMapping(
        rest_->select("meetings", "participants,early_mapping_status", {{"id", "eq." + meetingId}}, 1));
}

std::vector<int> LiveRecordingAPI::sequenceList(const Json* value) {
    if (!value || !value->is_array()) {
        return {};
    }
    // Checked before reading: a list longer than a recording can be is not one of ours, whatever it holds.
    if (value->size() > static_cast<std::size_t>(RecordingLimits::maxChunks)) {
        throw DecodingError("chunk list has " + std::to_string(value->size()) + " entries");
    }
    std::set<int> sequences;
    for (const Json& element : *value) {
        if (auto sequence = sequenceOf(element)) {
            if (!RecordingLimits::isSequence(*sequence)) {
                throw DecodingError("chunk list names sequence " + std::to_string(*sequence));
            }
            sequences.insert(static_cast<int>(*sequence));
        }
    }
    return {sequences.begin(), sequences.end()};
}

ChunkReconciliation LiveRecordingAPI::readChunkList(const Bytes& body) {
    if (body.size() > maxChunkListBytes) {
        throw DecodingError("chunk list answer of " + std::to_string(body.size()) + " bytes");
    }
    Json json = CoreJSON::decode(body);
    if (!json.is_object()) {
        throw DecodingError("chunk list answer is not an object");
    }
    return {sequenceList(member(json, "uploaded_sequences")), sequenceList(member(json, "missing")), true};
}

ChunkReconciliation LiveRecordingAPI::parseChunkList(const Bytes& body) {
    try {
        return readChunkList(body);
    } catch (const DecodingError&) {
        return ChunkReconciliation::unchecked();
    }
}

std::optional<std::string> LiveRecordingAPI::parseMeetingId(const Bytes& body) {
    auto row = firstRow(body);
    if (!row) {
        return std::nullopt;
    }
    const Json* id = member(*row, "id");
    if (!id || !id->is_string()) {
        return std::nullopt;
    }
    return id->get<std::string>();
}

MeetingMappingRow LiveRecordingAPI::parseMeetingMapping(const Bytes& body) {
    MeetingMappingRow result;
    auto row = firstRow(body);
    if (!row) {
        return result;
    }
    if (const Json* participants = member(*row, "participants"); participants && participants->is_array()) {
        for (const Json& name : *participants) {
            if (!name.is_string()) {
                continue;
            }
            std::string_view text = trimmed(name.get_ref<const std::string&>());
            if (!text.empty()) {
                result.participants.emplace_back(text);
            }
        }
    }
    if (const Json* status = member(*row, "early_mapping_status"); status && status->is_string()) {
        result.earlyMappingStatus = status->get<std::string>();
    }
    return result;
}

} // namespace kavelo
