#include "tools/devserver/RecordingFunctionRoutes.h"

#include "tools/devserver/CallerAuth.h"
#include "tools/devserver/DevServerOptions.h"
#include "tools/devserver/HttpReply.h"
#include "tools/devserver/ObjectStorage.h"
#include "tools/devserver/RecordingStore.h"
#include "tools/devserver/RouteRunner.h"
#include "tools/devserver/UploadRoutes.h"

#include <httplib.h>

namespace kavelo {

namespace {

using Req = httplib::Request;
using Res = httplib::Response;

std::optional<std::string> optionalText(const Json& body, const char* key) {
    auto it = body.find(key);
    return it != body.end() && it->is_string() ? std::optional<std::string>(it->get<std::string>())
                                               : std::nullopt;
}

// The caller may act for userId: the anon key may act for anyone (as the hosted function allows), a
// signed-in user only for themself.
bool mayActFor(const CallerAuth::Caller& caller, const std::string& userId) {
    return !caller.user || caller.user->id == userId;
}

// An id that no client should take: too long for a folder, or one that names a place outside it. Empty:
// the store makes up a proper one.
std::string hostileRecordingId(const std::string& mode) {
    if (mode == "long") {
        return std::string(300, 'r');
    }
    if (mode == "path") {
        return "../../outside";
    }
    if (mode == "slash") {
        return "a/b";
    }
    return {};
}

// The lists a broken or hostile backend might send instead of the truth about a recording.
Json hostileChunkList(const std::string& mode, const std::vector<int>& uploaded) {
    Json list = Json::array();
    if (mode == "huge") {
        list.push_back(2147483647);
        for (int sequence : uploaded) {
            list.push_back(sequence);
        }
    } else if (mode == "negative") {
        list = Json{-1, -5};
    } else if (mode == "duplicate") {
        for (int sequence : uploaded) {
            for (int i = 0; i < 5000; ++i) {
                list.push_back(sequence);
            }
        }
    } else {
        for (int i = 0; i < 2'000'000; ++i) {
            list.push_back(i % 7 + 1);
        }
    }
    return Json{{"uploaded_sequences", list}, {"missing", mode == "huge" ? Json{2147483646} : Json::array()}};
}

void initRecording(DevServerContext& ctx, const Req& req, Res& res) {
    auto caller = ctx.callers.identify(req, res, false);
    if (!caller) {
        return;
    }
    auto body = HttpReply::objectBody(req);
    if (!body) {
        HttpReply::error(res, 400, "invalid_request", "The body must be a JSON object");
        return;
    }
    for (const char* key : {"user_id", "user_email", "user_name", "source", "app_version", "language"}) {
        if (!(*body)[key].is_string()) {
            HttpReply::error(res, 400, "invalid_request", std::string(key) + " is required");
            return;
        }
    }
    Recording draft;
    draft.userId = body->at("user_id").get<std::string>();
    if (!mayActFor(*caller, draft.userId)) {
        HttpReply::error(res, 403, "forbidden", "user_id does not match the signed-in user");
        return;
    }
    draft.userEmail = body->at("user_email").get<std::string>();
    draft.userName = body->at("user_name").get<std::string>();
    draft.meetingName = optionalText(*body, "meeting_name");
    draft.source = body->at("source").get<std::string>();
    draft.appVersion = body->at("app_version").get<std::string>();
    draft.language = body->at("language").get<std::string>();
    draft.organizationId = optionalText(*body, "organization_id");
    draft.audioMode = optionalText(*body, "audio_mode");
    draft.id = hostileRecordingId(ctx.options.hostileRecordingId);
    auto recording = ctx.recordings.create(draft);
    HttpReply::json(res, 200, Json{{"recording_id", recording.id}, {"recording_secret", recording.secret}});
}

// Checks the caller and the recording named by recording_id; on success returns both.
std::optional<std::pair<Json, Recording>> ownedRecording(DevServerContext& ctx, const Req& req, Res& res,
                                                         bool userRequired) {
    auto caller = ctx.callers.identify(req, res, userRequired);
    if (!caller) {
        return std::nullopt;
    }
    auto body = HttpReply::objectBody(req);
    if (!body || !(*body)["recording_id"].is_string()) {
        HttpReply::error(res, 400, "invalid_request", "recording_id is required");
        return std::nullopt;
    }
    auto recording = ctx.recordings.find(body->at("recording_id").get<std::string>());
    if (!recording || !mayActFor(*caller, recording->userId)) {
        HttpReply::error(res, 404, "recording_not_found", "Recording not found");
        return std::nullopt;
    }
    return std::make_pair(*body, *recording);
}

void listRecordingChunks(DevServerContext& ctx, const Req& req, Res& res) {
    auto found = ownedRecording(ctx, req, res, true);
    if (!found) {
        return;
    }
    auto uploaded = UploadRoutes::storedSequences(ctx.storage, found->second.id);
    if (!ctx.options.hostileChunkList.empty()) {
        auto lie = hostileChunkList(ctx.options.hostileChunkList, uploaded);
        lie["recording_id"] = found->second.id;
        HttpReply::json(res, 200, lie);
        return;
    }
    std::vector<int> missing;
    std::size_t next = 0;
    for (int sequence = 1; !uploaded.empty() && sequence <= uploaded.back(); ++sequence) {
        while (next < uploaded.size() && uploaded[next] < sequence) {
            ++next;
        }
        if (next >= uploaded.size() || uploaded[next] != sequence) {
            missing.push_back(sequence);
        }
    }
    HttpReply::json(
        res, 200,
        Json{{"recording_id", found->second.id}, {"uploaded_sequences", uploaded}, {"missing", missing}});
}

void finalizeRecording(DevServerContext& ctx, const Req& req, Res& res) {
    auto found = ownedRecording(ctx, req, res, false);
    if (!found) {
        return;
    }
    const auto& [body, recording] = *found;
    if (body.value("diagnostic_sync", false)) {
        if (!body.contains("diagnostics") || !body["diagnostics"].is_object()) {
            HttpReply::error(res, 400, "invalid_request", "diagnostics is required");
            return;
        }
        ctx.recordings.addDiagnosticSync(recording.id, body);
        HttpReply::json(res, 200, Json{{"ok", true}, {"diagnostic_sync", true}});
        return;
    }
    if (!body.contains("recipients") || !body["recipients"].is_array() || !body.contains("user_email") ||
        !body["user_email"].is_string()) {
        HttpReply::error(res, 400, "invalid_request", "recipients and user_email are required");
        return;
    }
    if (UploadRoutes::storedSequences(ctx.storage, recording.id).empty()) {
        HttpReply::error(res, 409, "no_audio", "No chunks have been uploaded for this recording");
        return;
    }
    // A repeat of a request already taken (a retry, or a client that died waiting for the answer) names
    // it by its idempotency key: it is answered again but asks for no second report.
    auto booking =
        ctx.recordings.addFinalizeRequest(recording.id, body, req.get_header_value("Idempotency-Key"));
    if (booking == RecordingStore::FinalizeBooking::unknownRecording) {
        HttpReply::error(res, 404, "recording_not_found", "Recording not found");
        return;
    }
    HttpReply::json(res, 200,
                    Json{{"ok", true},
                         {"status", "queued"},
                         {"deduplicated", booking != RecordingStore::FinalizeBooking::first}});
}

void earlySpeakerMapping(DevServerContext& ctx, const Req& req, Res& res) {
    auto caller = ctx.callers.identify(req, res, true);
    if (!caller) {
        return;
    }
    auto body = HttpReply::objectBody(req);
    if (!body || !(*body)["meeting_id"].is_string()) {
        HttpReply::error(res, 400, "invalid_request", "meeting_id is required");
        return;
    }
    auto answer = ctx.recordings.startMapping(
        body->at("meeting_id").get<std::string>(), caller->user->id, [&ctx](const std::string& recordingId) {
            return !UploadRoutes::storedSequences(ctx.storage, recordingId).empty();
        });
    HttpReply::json(res, answer.status, answer.body);
}

} // namespace

void RecordingFunctionRoutes::install(httplib::Server& server, DevServerContext& ctx) {
    auto route = [&](const std::string& name, void (*handler)(DevServerContext&, const Req&, Res&)) {
        server.Post("/functions/v1/" + name, ctx.runner.wrap(name, [&ctx, handler](const Req& req, Res& res) {
            handler(ctx, req, res);
        }));
    };
    route("init-recording", initRecording);
    route("list-recording-chunks", listRecordingChunks);
    route("finalize-recording", finalizeRecording);
    route("early-speaker-mapping", earlySpeakerMapping);
}

} // namespace kavelo
