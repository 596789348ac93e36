#include "tools/devserver/RestRoutes.h"

#include "tools/devserver/AuthStore.h"
#include "tools/devserver/CallerAuth.h"
#include "tools/devserver/DevServerOptions.h"
#include "tools/devserver/HttpReply.h"
#include "tools/devserver/PostgrestQuery.h"
#include "tools/devserver/RecordingStore.h"
#include "tools/devserver/RouteRunner.h"

#include <httplib.h>

#include <algorithm>

namespace kavelo {

namespace {

using Req = httplib::Request;
using Res = httplib::Response;

void postgrestError(Res& res, int status, const std::string& code, const std::string& message) {
    HttpReply::json(res, status,
                    Json{{"code", code}, {"message", message}, {"details", nullptr}, {"hint", nullptr}});
}

std::vector<Json> ownRows(std::vector<Json> rows, const CallerAuth::Caller& caller) {
    std::erase_if(
        rows, [&](const Json& row) { return !caller.user || row.value("user_id", "") != caller.user->id; });
    return rows;
}

// Runs a table handler with the caller and the parsed query, answering refusals in PostgREST's shape.
template <class F> auto tableHandler(DevServerContext& ctx, F f) {
    return [&ctx, f](const Req& req, Res& res) {
        auto caller = ctx.callers.identify(req, res, false);
        if (!caller) {
            return;
        }
        try {
            f(*caller, PostgrestQuery::parse(req.params), req, res);
        } catch (const PostgrestError& e) {
            postgrestError(res, 400, e.code(), e.what());
        }
    };
}

// PATCH profiles: the filters pick among the caller's own rows; with "Prefer: return=representation" the
// changed rows come back, otherwise 204.
void patchProfiles(DevServerContext& ctx, const CallerAuth::Caller& caller, const PostgrestQuery& query,
                   const Req& req, Res& res) {
    auto columns = RestRoutes::profileColumns(ctx.options.legacyProfiles);
    auto values = HttpReply::objectBody(req);
    if (!values) {
        postgrestError(res, 400, "PGRST102", "Empty or invalid json");
        return;
    }
    for (const auto& [column, value] : values->items()) {
        if (std::find(columns.begin(), columns.end(), column) == columns.end()) {
            postgrestError(res, 400, "PGRST204",
                           "Could not find the '" + column + "' column of 'profiles' in the schema cache");
            return;
        }
    }
    std::vector<std::string> changed;
    for (const auto& row : query.matching(ownRows(ctx.auth.profileRows(), caller), "profiles", columns)) {
        auto userId = row.at("user_id").get<std::string>();
        ctx.auth.patchProfile(userId, *values);
        changed.push_back(userId);
    }
    if (req.get_header_value("Prefer").find("return=representation") == std::string::npos) {
        res.status = 204;
        return;
    }
    PostgrestQuery changedRows;
    changedRows.filters.push_back(PostgrestQuery::Filter{"user_id", "in", "", changed, false});
    HttpReply::json(res, 200, changedRows.select(ctx.auth.profileRows(), "profiles", columns));
}

} // namespace

const std::vector<std::string>& RestRoutes::meetingColumns() {
    static const std::vector<std::string> columns = {"id",           "recording_id",         "user_id",
                                                     "meeting_name", "organization_id",      "created_at",
                                                     "participants", "early_mapping_status", "status"};
    return columns;
}

std::vector<std::string> RestRoutes::profileColumns(bool legacySchema) {
    if (legacySchema) {
        return {"user_id", "email", "full_name", "organization_id"};
    }
    return {"user_id", "email", "full_name", "job_title", "company", "organization_id"};
}

void RestRoutes::install(httplib::Server& server, DevServerContext& ctx) {
    server.Get("/rest/v1/meetings",
               ctx.runner.wrap(
                   "rest-meetings",
                   tableHandler(ctx, [&ctx](const auto& caller, const auto& query, const Req&, Res& res) {
                       auto rows = ownRows(ctx.recordings.meetingRows(), caller);
                       HttpReply::json(res, 200, query.select(rows, "meetings", meetingColumns()));
                   })));
    // get_recording_status(p_meeting_id): the pipeline's progress on one of the caller's meetings.
    server.Post("/rest/v1/rpc/get_recording_status",
                ctx.runner.wrap("rest-recording-status", [&ctx](const Req& req, Res& res) {
                    auto caller = ctx.callers.identify(req, res, false);
                    if (!caller) {
                        return;
                    }
                    const auto body = HttpReply::objectBody(req);
                    const Json meeting = body ? body->value("p_meeting_id", Json()) : Json();
                    if (!meeting.is_string()) {
                        postgrestError(res, 400, "PGRST202",
                                       "Could not find the function public.get_recording_status without "
                                       "parameter p_meeting_id in the schema cache");
                        return;
                    }
                    HttpReply::json(res, 200,
                                    caller->user ? ctx.recordings.recordingStatus(meeting.get<std::string>(),
                                                                                  caller->user->id)
                                                 : Json::array());
                }));
    server.Get("/rest/v1/profiles",
               ctx.runner.wrap(
                   "rest-profiles",
                   tableHandler(ctx, [&ctx](const auto& caller, const auto& query, const Req&, Res& res) {
                       auto columns = profileColumns(ctx.options.legacyProfiles);
                       auto rows = ownRows(ctx.auth.profileRows(), caller);
                       HttpReply::json(res, 200, query.select(rows, "profiles", columns));
                   })));
    server.Patch("/rest/v1/profiles",
                 ctx.runner.wrap(
                     "rest-profiles",
                     tableHandler(ctx, [&ctx](const auto& caller, const auto& query, const Req& req,
                                              Res& res) { patchProfiles(ctx, caller, query, req, res); })));
}

} // namespace kavelo
