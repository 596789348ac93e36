#include "tools/devserver/WorkspaceContentRoutes.h"

#include "tools/devserver/CallerAuth.h"
#include "tools/devserver/DevServerOptions.h"
#include "tools/devserver/HttpReply.h"
#include "tools/devserver/RecordingStore.h"
#include "tools/devserver/RouteRunner.h"

#include <httplib.h>

namespace kavelo {

namespace {

using Req = httplib::Request;
using Res = httplib::Response;

void getTips(DevServerContext& ctx, const Req& req, Res& res) {
    auto caller = ctx.callers.identify(req, res, true);
    if (!caller) {
        return;
    }
    std::int64_t meetings = 0;
    for (const Recording& recording : ctx.recordings.all()) {
        meetings += recording.userId == caller->user->id ? 1 : 0;
    }
    const Json tips = Json::array({Json{{"id", "dev-tip-2"},
                                        {"body", "Add the speakers' names before you send the report."},
                                        {"sort_order", 2}},
                                   Json{{"id", "dev-tip-1"},
                                        {"body", "Test your microphone before an important meeting."},
                                        {"sort_order", 1}}});
    HttpReply::json(
        res, 200,
        Json{{"segment", meetings == 0 ? "new" : "active"}, {"tips", tips}, {"meeting_count", meetings}});
}

void updatePolicy(DevServerContext& ctx, const Req&, Res& res) {
    const Json notes = Json::array({Json{{"version", ctx.options.latestVersion},
                                         {"title", "Kavely " + ctx.options.latestVersion},
                                         {"body", "- Served by kavelo-devserver"}}});
    HttpReply::json(res, 200,
                    Json{{"minimum_supported_version", ctx.options.minimumVersion},
                         {"latest_version", ctx.options.latestVersion},
                         {"download_url", ctx.baseUrl + "/download/kavely"},
                         {"release_notes", notes}});
}

} // namespace

void WorkspaceContentRoutes::install(httplib::Server& server, DevServerContext& ctx) {
    server.Post("/functions/v1/get-tips",
                ctx.runner.wrap("get-tips", [&ctx](const Req& req, Res& res) { getTips(ctx, req, res); }));
    server.Get("/update-policy.json", ctx.runner.wrap("update-policy", [&ctx](const Req& req, Res& res) {
        updatePolicy(ctx, req, res);
    }));
}

} // namespace kavelo
