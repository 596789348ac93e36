#include "tools/devserver/AuthRoutes.h"

#include "tools/devserver/AuthStore.h"
#include "tools/devserver/DevServerOptions.h"
#include "tools/devserver/HttpReply.h"
#include "tools/devserver/RouteRunner.h"

#include <httplib.h>

namespace kavelo {

namespace {

using Req = httplib::Request;
using Res = httplib::Response;

void authError(Res& res, int status, const std::string& code, const std::string& message) {
    HttpReply::json(res, status, Json{{"code", status}, {"error_code", code}, {"msg", message}});
}

bool hasApiKey(DevServerContext& ctx, const Req& req, Res& res) {
    if (req.get_header_value("apikey") == ctx.options.anonKey) {
        return true;
    }
    authError(res, 401, "no_api_key", "Invalid API key");
    return false;
}

// The signed-in user of the bearer token; writes a 401 when there is none.
std::optional<DevUser> bearerUser(DevServerContext& ctx, const Req& req, Res& res) {
    auto token = HttpReply::bearer(req);
    auto check = token ? ctx.auth.checkAccessToken(*token) : AuthStore::TokenCheck{};
    if (check.state == AuthStore::TokenState::valid) {
        return check.user;
    }
    const bool expired = check.state == AuthStore::TokenState::expired;
    authError(res, expired ? ctx.options.expiredTokenStatus : 401, "bad_jwt",
              expired ? "invalid JWT: token is expired" : "invalid JWT");
    return std::nullopt;
}

std::string textField(const Json& body, const char* key) {
    auto it = body.find(key);
    return it != body.end() && it->is_string() ? it->get<std::string>() : std::string();
}

void token(DevServerContext& ctx, const Req& req, Res& res) {
    if (!hasApiKey(ctx, req, res)) {
        return;
    }
    auto body = HttpReply::objectBody(req).value_or(Json::object());
    auto grant = req.get_param_value("grant_type");
    if (grant == "password") {
        auto result = ctx.auth.signInWithPassword(textField(body, "email"), textField(body, "password"));
        if (auto* session = std::get_if<IssuedSession>(&result)) {
            HttpReply::json(res, 200, session->toJson());
        } else if (std::get<AuthStore::SignInFailure>(result) ==
                   AuthStore::SignInFailure::emailNotConfirmed) {
            authError(res, 400, "email_not_confirmed", "Email not confirmed");
        } else {
            authError(res, 400, "invalid_credentials", "Invalid login credentials");
        }
        return;
    }
    if (grant == "refresh_token") {
        auto session = ctx.auth.refresh(textField(body, "refresh_token"));
        if (!session) {
            authError(res, 400, "refresh_token_already_used", "Invalid Refresh Token: Already Used");
            return;
        }
        HttpReply::json(res, 200, session->toJson());
        return;
    }
    authError(res, 400, "unsupported_grant_type", "Unsupported grant type");
}

void signUp(DevServerContext& ctx, const Req& req, Res& res) {
    if (!hasApiKey(ctx, req, res)) {
        return;
    }
    auto body = HttpReply::objectBody(req).value_or(Json::object());
    auto email = textField(body, "email");
    auto at = email.find('@');
    if (at == std::string::npos || at == 0 || at + 1 == email.size()) {
        authError(res, 400, "validation_failed", "Unable to validate email address: invalid format");
        return;
    }
    auto result = ctx.auth.signUp(email, textField(body, "password"), body.value("data", Json::object()));
    switch (result.kind) {
    case AuthStore::SignUpKind::session:
        HttpReply::json(res, 200, result.session->toJson());
        return;
    case AuthStore::SignUpKind::confirmationSent:
        HttpReply::json(res, 200, result.user->publicJson());
        return;
    case AuthStore::SignUpKind::alreadyRegistered:
        authError(res, 422, "user_already_exists", "User already registered");
        return;
    case AuthStore::SignUpKind::weakPassword:
        authError(res, 422, "weak_password", "Password should be at least 6 characters.");
        return;
    }
}

void logout(DevServerContext& ctx, const Req& req, Res& res) {
    if (!hasApiKey(ctx, req, res)) {
        return;
    }
    auto token = HttpReply::bearer(req);
    if (!token || !ctx.auth.signOut(*token)) {
        authError(res, 401, "bad_jwt", "invalid JWT");
        return;
    }
    res.status = 204;
}

void getUser(DevServerContext& ctx, const Req& req, Res& res) {
    if (!hasApiKey(ctx, req, res)) {
        return;
    }
    if (auto user = bearerUser(ctx, req, res)) {
        HttpReply::json(res, 200, user->publicJson());
    }
}

void putUser(DevServerContext& ctx, const Req& req, Res& res) {
    if (!hasApiKey(ctx, req, res)) {
        return;
    }
    auto user = bearerUser(ctx, req, res);
    if (!user) {
        return;
    }
    auto body = HttpReply::objectBody(req);
    if (!body || (body->contains("data") && !(*body)["data"].is_object())) {
        authError(res, 400, "validation_failed", "data must be an object");
        return;
    }
    auto updated = ctx.auth.updateMetadata(user->id, body->value("data", Json::object()));
    HttpReply::json(res, 200, updated->publicJson());
}

} // namespace

void AuthRoutes::install(httplib::Server& server, DevServerContext& ctx) {
    auto bind = [&ctx](void (*handler)(DevServerContext&, const Req&, Res&)) {
        return [&ctx, handler](const Req& req, Res& res) { handler(ctx, req, res); };
    };
    server.Post("/auth/v1/token", ctx.runner.wrap("auth-token", bind(token)));
    server.Post("/auth/v1/signup", ctx.runner.wrap("auth-signup", bind(signUp)));
    server.Post("/auth/v1/logout", ctx.runner.wrap("auth-logout", bind(logout)));
    server.Get("/auth/v1/user", ctx.runner.wrap("auth-user", bind(getUser)));
    server.Put("/auth/v1/user", ctx.runner.wrap("auth-user", bind(putUser)));
}

} // namespace kavelo
