#include "tools/devserver/AdminRoutes.h"

#include "tools/devserver/AuthStore.h"
#include "tools/devserver/DevServerOptions.h"
#include "tools/devserver/FaultInjector.h"
#include "tools/devserver/HttpReply.h"
#include "tools/devserver/OAuthStore.h"
#include "tools/devserver/ObjectStorage.h"
#include "tools/devserver/RecordingStore.h"
#include "tools/devserver/RequestLog.h"
#include "tools/devserver/UploadRoutes.h"
#include "tools/devserver/UploadSigner.h"

#include <httplib.h>

#include <stdexcept>

namespace kavelo {

namespace {

using Req = httplib::Request;
using Res = httplib::Response;

std::optional<std::string> param(const Req& req, const char* name) {
    return req.has_param(name) ? std::optional<std::string>(req.get_param_value(name)) : std::nullopt;
}

Json recordingJson(DevServerContext& ctx, const Recording& recording) {
    auto now = ctx.clock->now();
    Json json = recording.toJson();
    json.erase("meeting_visible_at");
    json.erase("mapping_due_at");
    json["meeting_row"] = now >= recording.meetingVisibleAt ? recording.meetingRow(now) : Json(nullptr);
    json["stored_sequences"] = UploadRoutes::storedSequences(ctx.storage, recording.id);
    return json;
}

Json settingsJson(DevServerContext& ctx) {
    auto pipeline = ctx.recordings.settings();
    return Json{{"access_token_lifetime", ctx.auth.accessTokenLifetime()},
                {"signed_url_lifetime", ctx.signer.lifetime()},
                {"meeting_row_delay", pipeline.meetingRowDelay},
                {"mapping_delay", pipeline.mappingDelay},
                {"mapping_names", pipeline.mappingNames},
                {"mapping_outcome", pipeline.mappingOutcome},
                {"status_step_seconds", pipeline.statusStep}};
}

void changeSettings(DevServerContext& ctx, const Json& body) {
    auto seconds = [&](const char* key) -> std::optional<double> {
        auto it = body.find(key);
        if (it == body.end()) {
            return std::nullopt;
        }
        if (!it->is_number() || it->get<double>() < 0) {
            throw std::invalid_argument(std::string(key) + " needs a number of seconds");
        }
        return it->get<double>();
    };
    auto pipeline = ctx.recordings.settings();
    if (auto v = seconds("meeting_row_delay")) {
        pipeline.meetingRowDelay = *v;
    }
    if (auto v = seconds("mapping_delay")) {
        pipeline.mappingDelay = *v;
    }
    if (auto v = seconds("status_step_seconds")) {
        pipeline.statusStep = *v;
    }
    if (auto it = body.find("mapping_names"); it != body.end()) {
        pipeline.mappingNames = it->get<std::vector<std::string>>();
    }
    if (auto it = body.find("mapping_outcome"); it != body.end()) {
        auto outcome = it->get<std::string>();
        if (outcome != "done" && outcome != "skipped" && outcome != "failed") {
            throw std::invalid_argument("mapping_outcome is done, skipped or failed");
        }
        pipeline.mappingOutcome = outcome;
    }
    auto tokenLifetime = seconds("access_token_lifetime");
    auto urlLifetime = seconds("signed_url_lifetime");
    ctx.recordings.setSettings(pipeline);
    if (tokenLifetime) {
        ctx.auth.setAccessTokenLifetime(*tokenLifetime);
    }
    if (urlLifetime) {
        ctx.signer.setLifetime(*urlLifetime);
    }
}

// Runs an admin handler with its JSON body, turning bad input into a 400 instead of a 500.
template <class F> auto withBody(F f) {
    return [f](const Req& req, Res& res) {
        auto body = req.body.empty() ? std::optional<Json>(Json::object()) : HttpReply::objectBody(req);
        if (!body) {
            HttpReply::error(res, 400, "invalid_request", "the body must be a JSON object");
            return;
        }
        try {
            f(*body, req, res);
        } catch (const std::invalid_argument& e) {
            HttpReply::error(res, 400, "invalid_request", e.what());
        } catch (const Json::exception& e) {
            HttpReply::error(res, 400, "invalid_request", e.what());
        }
    };
}

void installFaults(httplib::Server& server, DevServerContext& ctx) {
    server.Get("/__admin/faults",
               [&ctx](const Req&, Res& res) { HttpReply::json(res, 200, ctx.faults.toJson()); });
    server.Post("/__admin/faults", [&ctx](const Req& req, Res& res) {
        Json body;
        try {
            body = CoreJSON::decode(req.body);
            std::vector<FaultRule> rules;
            for (const auto& item : body.is_array() ? body : Json::array({body})) {
                rules.push_back(FaultRule::fromJson(item));
            }
            Json ids = Json::array();
            for (const auto& rule : rules) {
                ids.push_back(ctx.faults.add(rule));
            }
            HttpReply::json(res, 200, Json{{"ids", ids}});
        } catch (const std::exception& e) {
            HttpReply::error(res, 400, "invalid_fault", e.what());
        }
    });
    server.Delete("/__admin/faults", [&ctx](const Req&, Res& res) {
        ctx.faults.clear();
        HttpReply::json(res, 200, Json{{"ok", true}});
    });
    server.Delete(R"(/__admin/faults/(\d{1,9}))", [&ctx](const Req& req, Res& res) {
        bool removed = ctx.faults.remove(std::stoi(req.matches[1].str()));
        HttpReply::json(res, removed ? 200 : 404, Json{{"ok", removed}});
    });
}

void installStorage(httplib::Server& server, DevServerContext& ctx) {
    server.Get("/__admin/storage", [&ctx](const Req& req, Res& res) {
        Json list = Json::array();
        for (const auto& object : ctx.storage.list(param(req, "bucket").value_or("recordings"),
                                                   param(req, "prefix").value_or(""))) {
            list.push_back(Json{{"bucket", object.bucket}, {"path", object.path}, {"size", object.size}});
        }
        HttpReply::json(res, 200, Json{{"objects", list}});
    });
    server.Get("/__admin/storage/object", [&ctx](const Req& req, Res& res) {
        auto data =
            ctx.storage.read(param(req, "bucket").value_or("recordings"), param(req, "path").value_or(""));
        if (!data) {
            HttpReply::error(res, 404, "not_found", "Object not found");
            return;
        }
        res.set_content(std::string(data->begin(), data->end()), "application/octet-stream");
    });
}

void installRecordings(httplib::Server& server, DevServerContext& ctx) {
    server.Get("/__admin/recordings", [&ctx](const Req&, Res& res) {
        Json list = Json::array();
        for (const auto& recording : ctx.recordings.all()) {
            list.push_back(recordingJson(ctx, recording));
        }
        HttpReply::json(res, 200, Json{{"recordings", list}});
    });
    server.Get(R"(/__admin/recordings/([^/]+))", [&ctx](const Req& req, Res& res) {
        auto recording = ctx.recordings.find(req.matches[1].str());
        if (!recording) {
            HttpReply::error(res, 404, "not_found", "Recording not found");
            return;
        }
        HttpReply::json(res, 200, recordingJson(ctx, *recording));
    });
    server.Post("/__admin/recordings", withBody([&ctx](const Json& body, const Req&, Res& res) {
                    Recording draft;
                    draft.id = body.value("recording_id", "");
                    draft.secret = body.value("recording_secret", "");
                    draft.userId = body.value("user_id", "");
                    draft.userEmail = body.value("user_email", "");
                    draft.userName = body.value("user_name", "");
                    if (body.contains("meeting_name")) {
                        draft.meetingName = body.at("meeting_name").get<std::string>();
                    }
                    draft.source = body.value("source", "linux");
                    if (!draft.id.empty() && !ObjectStorage::isValidObjectPath(draft.id)) {
                        throw std::invalid_argument("recording_id must be a plain name");
                    }
                    auto recording = ctx.recordings.create(draft);
                    HttpReply::json(res, 200, recordingJson(ctx, recording));
                }));
    server.Post(R"(/__admin/meetings/([^/]+)/mapping)",
                withBody([&ctx](const Json& body, const Req& req, Res& res) {
                    std::optional<std::string> status;
                    if (auto it = body.find("status"); it != body.end() && it->is_string()) {
                        status = it->get<std::string>();
                    }
                    bool found = ctx.recordings.setMapping(
                        req.matches[1].str(), body.value("participants", std::vector<std::string>{}), status);
                    HttpReply::json(res, found ? 200 : 404, Json{{"ok", found}});
                }));
}

void installAccounts(httplib::Server& server, DevServerContext& ctx) {
    server.Get("/__admin/users", [&ctx](const Req&, Res& res) {
        Json list = Json::array();
        for (const auto& user : ctx.auth.users()) {
            list.push_back(user.publicJson());
        }
        HttpReply::json(res, 200, Json{{"users", list}});
    });
    server.Post("/__admin/users", withBody([&ctx](const Json& body, const Req&, Res& res) {
                    DevUser draft;
                    draft.id = body.value("id", "");
                    draft.email = body.at("email").get<std::string>();
                    draft.password = body.value("password", "");
                    draft.fullName = body.value("full_name", "");
                    if (auto it = body.find("provider"); it != body.end()) {
                        draft.providers = {it->get<std::string>()};
                    }
                    if (auto it = body.find("organization_id"); it != body.end() && it->is_string()) {
                        draft.organizationId = it->get<std::string>();
                    }
                    draft.emailConfirmed = body.value("email_confirmed", true);
                    HttpReply::json(res, 200, ctx.auth.addUser(draft).publicJson());
                }));
    server.Post("/__admin/sessions", withBody([&ctx](const Json& body, const Req&, Res& res) {
                    auto user = ctx.auth.findByEmail(body.at("email").get<std::string>());
                    if (!user) {
                        HttpReply::error(res, 404, "not_found", "User not found");
                        return;
                    }
                    HttpReply::json(res, 200, ctx.auth.issueSession(user->id).toJson());
                }));
    server.Post("/__admin/tokens/expire", [&ctx](const Req&, Res& res) {
        ctx.auth.expireAllAccessTokens();
        HttpReply::json(res, 200, Json{{"ok", true}});
    });
    server.Post("/__admin/oauth/identity", withBody([&ctx](const Json& body, const Req&, Res& res) {
                    ctx.oauth.setIdentity(body.at("provider").get<std::string>(),
                                          OAuthStore::Identity{body.at("email").get<std::string>(),
                                                               body.value("full_name", "")});
                    HttpReply::json(res, 200, Json{{"ok", true}});
                }));
}

} // namespace

void AdminRoutes::install(httplib::Server& server, DevServerContext& ctx) {
    server.Get("/__admin/health", [](const Req&, Res& res) {
        HttpReply::json(res, 200, Json{{"ok", true}});
    });
    installFaults(server, ctx);
    installStorage(server, ctx);
    installRecordings(server, ctx);
    installAccounts(server, ctx);
    server.Post("/__admin/signed-urls/revoke", [&ctx](const Req&, Res& res) {
        ctx.signer.rotateKey();
        HttpReply::json(res, 200, Json{{"ok", true}});
    });
    server.Get("/__admin/settings",
               [&ctx](const Req&, Res& res) { HttpReply::json(res, 200, settingsJson(ctx)); });
    server.Post("/__admin/settings", withBody([&ctx](const Json& body, const Req&, Res& res) {
                    changeSettings(ctx, body);
                    HttpReply::json(res, 200, settingsJson(ctx));
                }));
    server.Get("/__admin/requests", [&ctx](const Req& req, Res& res) {
        HttpReply::json(res, 200,
                        Json{{"requests", ctx.requests.toJson(param(req, "route"))},
                             {"peak_in_flight", ctx.requests.peakInFlight()}});
    });
    server.Delete("/__admin/requests", [&ctx](const Req&, Res& res) {
        ctx.requests.clear();
        HttpReply::json(res, 200, Json{{"ok", true}});
    });
}

} // namespace kavelo
