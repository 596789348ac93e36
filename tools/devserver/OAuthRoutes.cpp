#include "tools/devserver/OAuthRoutes.h"

#include "tools/devserver/AuthStore.h"
#include "tools/devserver/CallerAuth.h"
#include "tools/devserver/DevServerOptions.h"
#include "tools/devserver/HttpReply.h"
#include "tools/devserver/OAuthStore.h"
#include "tools/devserver/RouteRunner.h"

#include <httplib.h>

#include <algorithm>

namespace kavelo {

namespace {

using Req = httplib::Request;
using Res = httplib::Response;

bool isProvider(const std::string& provider) {
    return provider == "google" || provider == "microsoft" || provider == "sso";
}

void prepare(DevServerContext& ctx, const Req& req, Res& res) {
    if (!ctx.callers.identify(req, res, false)) {
        return;
    }
    auto body = HttpReply::objectBody(req);
    if (!body || !(*body)["provider"].is_string() || !(*body)["code_challenge"].is_string() ||
        body->at("code_challenge").get<std::string>().empty()) {
        HttpReply::error(res, 400, "oauth_failed", "provider and code_challenge are required");
        return;
    }
    auto provider = body->at("provider").get<std::string>();
    if (!isProvider(provider)) {
        HttpReply::error(res, 400, "oauth_failed", "Unknown provider");
        return;
    }
    auto state = ctx.oauth.beginFlow(provider, body->at("code_challenge").get<std::string>());
    HttpReply::json(
        res, 200,
        Json{{"authorize_url", ctx.baseUrl + "/auth/v1/authorize?provider=" + provider + "&state=" + state}});
}

void authorize(DevServerContext& ctx, const Req& req, Res& res) {
    auto code = ctx.oauth.issueCode(req.get_param_value("state"));
    if (!code) {
        res.status = 400;
        res.set_content("<p>This sign-in link is no longer valid.</p>", "text/html");
        return;
    }
    auto& callback = ctx.options.oauthCallbackUrl;
    auto location = callback + (callback.find('?') == std::string::npos ? "?" : "&") + "code=" + *code;
    res.status = 302;
    res.set_header("Location", location);
    res.set_content("<p>Signed in; returning to the application.</p>", "text/html");
}

void exchange(DevServerContext& ctx, const Req& req, Res& res) {
    if (!ctx.callers.identify(req, res, false)) {
        return;
    }
    auto body = HttpReply::objectBody(req);
    if (!body || !(*body)["code"].is_string() || !(*body)["code_verifier"].is_string()) {
        HttpReply::error(res, 400, "code_invalid_or_consumed", "code and code_verifier are required");
        return;
    }
    auto redemption =
        ctx.oauth.redeem(body->at("code").get<std::string>(), body->at("code_verifier").get<std::string>());
    switch (redemption.kind) {
    case OAuthStore::Redemption::Kind::unknownCode:
        HttpReply::error(res, 400, "code_invalid_or_consumed", "The code is unknown or was used already");
        return;
    case OAuthStore::Redemption::Kind::verifierMismatch:
        HttpReply::error(res, 400, "invalid_state", "The code verifier does not match the challenge");
        return;
    case OAuthStore::Redemption::Kind::stateExpired:
        HttpReply::error(res, 400, "state_invalid_or_expired", "The sign-in took too long");
        return;
    case OAuthStore::Redemption::Kind::ok:
        break;
    }
    auto user = ctx.auth.findByEmail(redemption.identity.email);
    if (user && std::find(user->providers.begin(), user->providers.end(), redemption.provider) ==
                    user->providers.end()) {
        TimePoint expiresAt;
        auto token = ctx.oauth.createLinkToken(user->id, redemption.provider, expiresAt);
        HttpReply::json(
            res, 200,
            Json{{"outcome", "account_link_required"},
                 {"link_token", token},
                 {"existing_provider", user->providers.empty() ? "email" : user->providers.front()},
                 {"new_provider", redemption.provider},
                 {"email", user->email},
                 {"expires_at", CoreJSON::formatDate(expiresAt)}});
        return;
    }
    if (!user) {
        DevUser draft;
        draft.email = redemption.identity.email;
        draft.fullName = redemption.identity.fullName;
        draft.providers = {redemption.provider};
        user = ctx.auth.addUser(draft);
    }
    auto session = ctx.auth.issueSession(user->id);
    Json sessionJson = session.toJson();
    HttpReply::json(res, 200,
                    Json{{"outcome", "session"}, {"session", sessionJson}, {"user", sessionJson["user"]}});
}

void confirmLink(DevServerContext& ctx, const Req& req, Res& res) {
    auto token = HttpReply::bearer(req);
    auto check = token ? ctx.auth.checkAccessToken(*token) : AuthStore::TokenCheck{};
    if (req.get_header_value("apikey") != ctx.options.anonKey ||
        check.state != AuthStore::TokenState::valid) {
        HttpReply::error(res, 403, "not_authenticated", "Sign in with the existing account first");
        return;
    }
    auto body = HttpReply::objectBody(req);
    if (!body || !(*body)["link_token"].is_string()) {
        HttpReply::error(res, 400, "invalid_request", "link_token is required");
        return;
    }
    auto link = ctx.oauth.redeemLink(body->at("link_token").get<std::string>(), check.user->id);
    switch (link.kind) {
    case OAuthStore::Link::Kind::unknown:
        HttpReply::error(res, 404, "link_not_found", "Unknown link token");
        return;
    case OAuthStore::Link::Kind::expired:
        HttpReply::error(res, 410, "link_token_expired", "The link token has expired");
        return;
    case OAuthStore::Link::Kind::wrongUser:
        HttpReply::error(res, 401, "wrong_provider", "Signed in with an account other than the one to link");
        return;
    case OAuthStore::Link::Kind::ok:
        break;
    }
    ctx.auth.addProvider(link.existingUserId, link.newProvider);
    HttpReply::json(res, 200, Json{{"success", true}, {"linked_provider", link.newProvider}});
}

} // namespace

void OAuthRoutes::install(httplib::Server& server, DevServerContext& ctx) {
    auto route = [&](const std::string& name, void (*handler)(DevServerContext&, const Req&, Res&)) {
        server.Post("/functions/v1/" + name, ctx.runner.wrap(name, [&ctx, handler](const Req& req, Res& res) {
            handler(ctx, req, res);
        }));
    };
    route("oauth-prepare", prepare);
    route("oauth-mobile-exchange", exchange);
    route("confirm-account-link", confirmLink);
    server.Get("/auth/v1/authorize", [&ctx](const Req& req, Res& res) { authorize(ctx, req, res); });
}

} // namespace kavelo
