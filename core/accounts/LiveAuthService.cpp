#include "core/accounts/LiveAuthService.h"

#include "core/accounts/AuthError.h"
#include "core/accounts/PKCE.h"
#include "core/accounts/TokenResponse.h"
#include "core/backend/APIError.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>

namespace kavelo {

namespace {

constexpr const char* kPrepareFunction = "oauth-prepare";
constexpr const char* kExchangeFunction = "oauth-mobile-exchange";
constexpr const char* kConfirmLinkFunction = "confirm-account-link";
// The backend counts sign-ups by source; it knows this client by the source the wire has always carried.
constexpr const char* kSignupSource = "macos_email";

struct PrepareResponse {
    std::string authorizeURL;
    static PrepareResponse fromJson(const Json& json) {
        if (!json.is_object()) {
            throw DecodingError("Expected to decode PrepareResponse as an object but found another type.");
        }
        auto it = json.find("authorize_url");
        if (it == json.end() || it->is_null()) {
            throw DecodingError("No value associated with key \"authorize_url\".");
        }
        if (!it->is_string()) {
            throw DecodingError(
                "Expected to decode String for key \"authorize_url\" but found another type.");
        }
        return {it->get<std::string>()};
    }
};

// An absolute URL that libcurl's parser accepts, of any scheme.
bool isURL(const std::string& text) {
    if (text.empty()) {
        return false;
    }
    CURLU* url = curl_url();
    if (!url) {
        return false;
    }
    bool ok = curl_url_set(url, CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK;
    curl_url_cleanup(url);
    return ok;
}

std::optional<std::string> stringAt(const Json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_string()) {
        return std::nullopt;
    }
    return it->get<std::string>();
}

const Json* objectAt(const Json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_object()) {
        return nullptr;
    }
    return &*it;
}

std::optional<double> numberAt(const Json& object, const char* key) {
    auto it = object.find(key);
    if (it == object.end() || !it->is_number()) {
        return std::nullopt;
    }
    return it->get<double>();
}

bool isTrue(const Json& object, const char* key, bool wanted) {
    auto it = object.find(key);
    return it != object.end() && it->is_boolean() && it->get<bool>() == wanted;
}

std::optional<TimePoint> dateAt(const Json& object, const char* key) {
    auto text = stringAt(object, key);
    if (!text) {
        return std::nullopt;
    }
    if (auto date = CoreJSON::parseISO8601Fractional(*text)) {
        return date;
    }
    return CoreJSON::parseISO8601Plain(*text);
}

bool endsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

OAuthErrorCode errorCodeFrom(const std::optional<std::string>& raw) {
    return raw ? fromRaw<OAuthErrorCode>(*raw).value_or(OAuthErrorCode::unknown) : OAuthErrorCode::unknown;
}

std::optional<Json> jsonObject(const Bytes& body) {
    try {
        Json json = CoreJSON::decode(body);
        if (json.is_object()) {
            return json;
        }
    } catch (const DecodingError&) {
    }
    return std::nullopt;
}

} // namespace

LiveAuthService::LiveAuthService(AppConfig config, std::shared_ptr<HTTPClient> http,
                                 std::shared_ptr<SupabaseFunctionClient> functions,
                                 std::shared_ptr<Clock> clock)
    : config_(std::move(config)), http_(std::move(http)), functions_(std::move(functions)),
      clock_(std::move(clock)) {}

PreparedOAuthFlow LiveAuthService::prepareOAuth(OAuthProvider provider,
                                                const std::optional<std::string>& inviteToken) {
    try {
        std::string verifier = PKCE::codeVerifier();
        Json body = {{"provider", std::string(toRaw(provider))},
                     {"client_type", config_.oauthClientType},
                     {"code_challenge", PKCE::codeChallenge(verifier)}};
        if (inviteToken) {
            body["invite_token"] = *inviteToken;
        }
        auto response =
            functions_->post<PrepareResponse>(kPrepareFunction, body, false, std::nullopt, {}, 20);
        if (!isURL(response.authorizeURL)) {
            throw AuthError::prepareFailed("invalid authorize_url");
        }
        return PreparedOAuthFlow{provider, response.authorizeURL, verifier};
    } catch (const AuthError&) {
        throw;
    } catch (const std::exception& e) {
        throw AuthError::prepareFailed(e.what());
    }
}

OAuthOutcome LiveAuthService::exchangeOAuthCode(const std::string& code, const std::string& codeVerifier) {
    Bytes body;
    try {
        body = functions_->postRaw(kExchangeFunction, Json{{"code", code}, {"code_verifier", codeVerifier}},
                                   false, std::nullopt, {}, 25);
    } catch (const APIError& e) {
        if (e.kind() == APIError::Kind::http) {
            return OAuthOutcome::error(errorCodeFrom(e.errorCode()), e.message());
        }
        throw AuthError::exchangeFailed(e.what());
    } catch (const std::exception& e) {
        throw AuthError::exchangeFailed(e.what());
    }
    return parseOutcome(body);
}

OAuthOutcome LiveAuthService::parseOutcome(const Bytes& body) const {
    std::optional<Json> parsed = jsonObject(body);
    if (!parsed) {
        return OAuthOutcome::error(OAuthErrorCode::sessionDataMissing, "Onleesbaar antwoord van de server.");
    }
    const Json& json = *parsed;
    const std::string kind = stringAt(json, "outcome").value_or("");

    if (kind == "session") {
        const Json* session = objectAt(json, "session");
        std::optional<std::string> access = session ? stringAt(*session, "access_token") : std::nullopt;
        std::optional<std::string> refresh = session ? stringAt(*session, "refresh_token") : std::nullopt;
        if (!access || !refresh) {
            return OAuthOutcome::error(OAuthErrorCode::sessionDataMissing);
        }
        AuthSession result;
        result.accessToken = *access;
        result.refreshToken = *refresh;
        if (auto at = numberAt(*session, "expires_at")) {
            result.expiresAt = *at;
        } else {
            result.expiresAt =
                secondsSince1970(clock_->now()) + numberAt(*session, "expires_in").value_or(3600.0);
        }
        const Json* user = objectAt(json, "user");
        if (!user) {
            user = objectAt(*session, "user");
        }
        if (user) {
            result.user.id = stringAt(*user, "id").value_or("");
            result.user.email = stringAt(*user, "email").value_or("");
            if (const Json* meta = objectAt(*user, "user_metadata")) {
                result.user.workProfile = stringAt(*meta, "work_profile");
            }
            result.user.createdAt = dateAt(*user, "created_at");
        }
        return OAuthOutcome::session(std::move(result));
    }
    if (kind == "account_link_required") {
        std::optional<std::string> token = stringAt(json, "link_token");
        if (!token) {
            return OAuthOutcome::error(OAuthErrorCode::sessionDataMissing);
        }
        AccountLinkRequirement requirement;
        requirement.linkToken = *token;
        requirement.existingProvider = stringAt(json, "existing_provider").value_or("onbekend");
        requirement.newProvider = stringAt(json, "new_provider");
        requirement.email = stringAt(json, "email").value_or("");
        requirement.expiresAt = dateAt(json, "expires_at");
        return OAuthOutcome::accountLinkRequired(std::move(requirement));
    }
    if (kind == "link_success" || kind == "account_linked") {
        return OAuthOutcome::linkSuccess();
    }
    if (kind == "link_email_sent") {
        return OAuthOutcome::error(OAuthErrorCode::accountLinkLegacyFlow);
    }
    if (kind == "error") {
        std::optional<std::string> provider;
        if (const Json* detail = objectAt(json, "detail")) {
            provider = stringAt(*detail, "provider");
        }
        return OAuthOutcome::error(errorCodeFrom(stringAt(json, "error_code")), stringAt(json, "message"),
                                   std::move(provider));
    }
    for (const auto& [key, value] : json.items()) {
        if (endsWith(key, "_url") && value.is_string() && isURL(value.get<std::string>())) {
            return OAuthOutcome::externalRedirect(value.get<std::string>());
        }
    }
    return OAuthOutcome::error(OAuthErrorCode::unknown, "Onbekende uitkomst: " + kind);
}

AccountLinkConfirmResult LiveAuthService::confirmAccountLink(const std::string& linkToken,
                                                             const std::optional<std::string>& accessToken) {
    Bytes body;
    try {
        const Json confirm = {{"link_token", linkToken}};
        if (accessToken) {
            body = functions_->postRaw(kConfirmLinkFunction, confirm, false, std::nullopt,
                                       {{"Authorization", "Bearer " + *accessToken}}, 20);
        } else {
            body = functions_->postRaw(kConfirmLinkFunction, confirm, true, std::nullopt, {}, 20);
        }
    } catch (const APIError& e) {
        if (e.kind() == APIError::Kind::unauthenticated) {
            return AccountLinkConfirmResult::unauthenticated();
        }
        if (e.kind() != APIError::Kind::http) {
            throw;
        }
        switch (*e.httpStatus()) {
        case 401:
            return AccountLinkConfirmResult::wrongProvider();
        case 403:
            return AccountLinkConfirmResult::unauthenticated();
        case 410:
            return AccountLinkConfirmResult::expired();
        case 429:
            return AccountLinkConfirmResult::rateLimited();
        default:
            return AccountLinkConfirmResult::error(e.message());
        }
    }

    std::optional<Json> parsed = jsonObject(body);
    if (!parsed) {
        return AccountLinkConfirmResult::error(std::nullopt);
    }
    const Json& json = *parsed;
    const auto status = stringAt(json, "status");
    const auto outcome = stringAt(json, "outcome");
    if (isTrue(json, "success", true) || isTrue(json, "linked", true) || status == "success" ||
        outcome == "success" || outcome == "account_linked") {
        std::optional<std::string> provider;
        for (const char* key : {"linked_provider", "linkedProvider", "provider", "new_provider"}) {
            if (json.contains(key)) {
                provider = stringAt(json, key);
                break;
            }
        }
        return AccountLinkConfirmResult::success(std::move(provider));
    }
    if (isTrue(json, "success", false) || status == "error" || json.contains("error") ||
        json.contains("error_code")) {
        std::optional<std::string> message = stringAt(json, "message");
        return AccountLinkConfirmResult::error(message ? message : stringAt(json, "error"));
    }
    return AccountLinkConfirmResult::error(std::nullopt);
}

HTTPResponse LiveAuthService::sendAuth(const std::string& pathAndQuery, const std::string& method,
                                       const std::optional<std::string>& accessToken,
                                       const std::optional<Json>& body, double timeout) const {
    HTTPRequest request;
    request.url = config_.supabaseUrl + "/auth/v1/" + pathAndQuery;
    request.method = method;
    request.headers["apikey"] = config_.anonKey;
    if (accessToken) {
        request.headers["Authorization"] = "Bearer " + *accessToken;
    }
    if (body) {
        request.headers["Content-Type"] = "application/json";
        request.body = CoreJSON::encodeBytes(*body);
    }
    request.timeout = timeout;
    try {
        return http_->send(request);
    } catch (const std::exception&) {
        throw AuthError::network();
    }
}

AuthSession LiveAuthService::sessionFrom(const Bytes& body) const {
    try {
        return TokenResponse::fromJson(CoreJSON::decode(body)).session(clock_->now());
    } catch (const Json::exception& e) {
        throw DecodingError(e.what());
    }
}

AuthSession LiveAuthService::signIn(const std::string& email, const std::string& password) {
    HTTPResponse response = sendAuth("token?grant_type=password", "POST", std::nullopt,
                                     Json{{"email", email}, {"password", password}}, 20);
    if (response.isSuccess()) {
        return sessionFrom(response.body);
    }
    switch (response.statusCode) {
    case 400:
        throw AuthError::invalidCredentials();
    case 429:
        throw AuthError::rateLimited();
    default:
        throw AuthError::unknown("HTTP " + std::to_string(response.statusCode));
    }
}

SignUpOutcome LiveAuthService::signUp(const std::string& email, const std::string& password,
                                      const std::string& fullName) {
    const Json body = {{"email", email},
                       {"password", password},
                       {"data", {{"full_name", fullName}, {"signup_source", kSignupSource}}}};
    HTTPResponse response = sendAuth("signup", "POST", std::nullopt, body, 20);
    if (response.isSuccess()) {
        try {
            AuthSession session = sessionFrom(response.body);
            if (!session.accessToken.empty()) {
                return SignUpOutcome::signedIn(std::move(session));
            }
        } catch (const DecodingError&) {
            // No session yet: the address has to be confirmed first.
        }
        if (std::optional<Json> json = jsonObject(response.body)) {
            const Json* user = objectAt(*json, "user");
            const Json& holder = user ? *user : *json;
            auto identities = holder.find("identities");
            // The auth API answers a known address with a user without identities rather than a refusal.
            if (identities != holder.end() && identities->is_array() && identities->empty()) {
                throw AuthError::emailTaken();
            }
        }
        return SignUpOutcome::verificationEmailSent(email);
    }

    std::string text = stringFromBytes(response.body);
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (response.statusCode == 429) {
        throw AuthError::rateLimited();
    }
    if (text.find("already registered") != std::string::npos ||
        text.find("already exists") != std::string::npos ||
        text.find("user_already_exists") != std::string::npos) {
        throw AuthError::emailTaken();
    }
    if (text.find("password") != std::string::npos) {
        throw AuthError::weakPassword();
    }
    throw AuthError::unknown("signup HTTP " + std::to_string(response.statusCode));
}

void LiveAuthService::updateUserMetadata(const std::map<std::string, std::string>& metadata,
                                         const std::string& accessToken) {
    HTTPResponse response = sendAuth("user", "PUT", accessToken, Json{{"data", metadata}}, 15);
    if (!response.isSuccess()) {
        throw AuthError::unknown("updateUser HTTP " + std::to_string(response.statusCode));
    }
}

AuthSession LiveAuthService::refresh(const std::string& refreshToken) {
    HTTPResponse response = sendAuth("token?grant_type=refresh_token", "POST", std::nullopt,
                                     Json{{"refresh_token", refreshToken}}, 20);
    if (response.isSuccess()) {
        return sessionFrom(response.body);
    }
    switch (response.statusCode) {
    case 400:
        throw AuthError::refreshRejected();
    case 429:
        throw AuthError::rateLimited();
    default:
        // 5xx and other answers are passing trouble: the session stays and a later trigger tries again.
        throw AuthError::network();
    }
}

void LiveAuthService::signOut(const std::string& accessToken) {
    try {
        (void)sendAuth("logout?scope=local", "POST", accessToken, std::nullopt, 10);
    } catch (...) {
        // Signing out locally never waits on the server's opinion.
    }
}

} // namespace kavelo
