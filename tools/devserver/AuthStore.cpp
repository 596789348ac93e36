#include "tools/devserver/AuthStore.h"

#include "tools/devserver/SecureRandom.h"

#include <algorithm>
#include <cctype>
#include <iostream>
#include <stdexcept>

namespace kavelo {

namespace {

std::string lowered(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

double epochSeconds(TimePoint t) {
    return std::chrono::duration<double>(t.time_since_epoch()).count();
}

} // namespace

Json IssuedSession::toJson() const {
    return Json{{"access_token", accessToken},
                {"token_type", "bearer"},
                {"expires_in", static_cast<long long>(expiresIn)},
                {"expires_at", static_cast<long long>(epochSeconds(expiresAt))},
                {"refresh_token", refreshToken},
                {"user", user.publicJson()}};
}

AuthStore::AuthStore(std::shared_ptr<Clock> clock, const std::filesystem::path& stateFile,
                     double accessTokenLifetime, bool autoConfirm)
    : clock_(std::move(clock)), writer_(stateFile), accessTokenLifetime_(accessTokenLifetime),
      autoConfirm_(autoConfirm) {
    if (auto saved = writer_.load()) {
        try {
            load(*saved);
        } catch (const Json::exception& e) {
            std::cerr << "kavelo-devserver: ignoring unreadable auth state: " << e.what() << "\n";
            users_.clear();
            accessTokens_.clear();
            refreshTokens_.clear();
        }
    }
}

void AuthStore::load(const Json& saved) {
    for (const auto& item : saved.at("users")) {
        auto user = DevUser::fromJson(item);
        users_[user.id] = std::move(user);
    }
    for (const auto& [token, item] : saved.at("access_tokens").items()) {
        accessTokens_[token] =
            AccessToken{item.at("user_id").get<std::string>(), item.at("session_id").get<std::string>(),
                        addSeconds(TimePoint{}, item.at("expires_at").get<double>())};
    }
    for (const auto& [token, item] : saved.at("refresh_tokens").items()) {
        refreshTokens_[token] =
            RefreshToken{item.at("user_id").get<std::string>(), item.at("session_id").get<std::string>(),
                         item.at("used").get<bool>()};
    }
}

void AuthStore::persist(std::unique_lock<std::mutex>& lock) {
    auto version = ++version_;
    Json users = Json::array();
    for (const auto& [id, user] : users_) {
        users.push_back(user.toJson());
    }
    Json access = Json::object();
    for (const auto& [token, t] : accessTokens_) {
        access[token] = Json{
            {"user_id", t.userId}, {"session_id", t.sessionId}, {"expires_at", epochSeconds(t.expiresAt)}};
    }
    Json refresh = Json::object();
    for (const auto& [token, t] : refreshTokens_) {
        refresh[token] = Json{{"user_id", t.userId}, {"session_id", t.sessionId}, {"used", t.used}};
    }
    lock.unlock();
    writer_.save(version, Json{{"users", std::move(users)},
                               {"access_tokens", std::move(access)},
                               {"refresh_tokens", std::move(refresh)}});
}

std::map<std::string, DevUser>::const_iterator AuthStore::findByEmailLocked(const std::string& email) const {
    auto wanted = lowered(email);
    return std::find_if(users_.begin(), users_.end(),
                        [&](const auto& entry) { return lowered(entry.second.email) == wanted; });
}

DevUser AuthStore::addUser(DevUser draft) {
    if (draft.email.empty()) {
        throw std::invalid_argument("a user needs an e-mail address");
    }
    if (draft.id.empty()) {
        draft.id = SecureRandom::uuid();
    }
    draft.createdAt = clock_->now();
    std::unique_lock lock(mutex_);
    if (findByEmailLocked(draft.email) != users_.end() || users_.count(draft.id)) {
        throw std::invalid_argument("user " + draft.email + " exists already");
    }
    users_[draft.id] = draft;
    persist(lock);
    return draft;
}

std::optional<DevUser> AuthStore::findByEmail(const std::string& email) const {
    std::lock_guard lock(mutex_);
    auto it = findByEmailLocked(email);
    return it == users_.end() ? std::nullopt : std::optional<DevUser>(it->second);
}

std::optional<DevUser> AuthStore::findById(const std::string& id) const {
    std::lock_guard lock(mutex_);
    auto it = users_.find(id);
    return it == users_.end() ? std::nullopt : std::optional<DevUser>(it->second);
}

std::vector<DevUser> AuthStore::users() const {
    std::lock_guard lock(mutex_);
    std::vector<DevUser> list;
    for (const auto& [id, user] : users_) {
        list.push_back(user);
    }
    return list;
}

IssuedSession AuthStore::issueLocked(const std::string& userId, const std::string& sessionId) {
    IssuedSession session;
    session.accessToken = "dev-at-" + SecureRandom::hex(24);
    session.refreshToken = "dev-rt-" + SecureRandom::hex(24);
    session.expiresIn = accessTokenLifetime_;
    session.expiresAt = addSeconds(clock_->now(), accessTokenLifetime_);
    session.user = users_.at(userId);
    accessTokens_[session.accessToken] = AccessToken{userId, sessionId, session.expiresAt};
    refreshTokens_[session.refreshToken] = RefreshToken{userId, sessionId, false};
    return session;
}

IssuedSession AuthStore::issueSession(const std::string& userId) {
    std::unique_lock lock(mutex_);
    if (!users_.count(userId)) {
        throw std::invalid_argument("unknown user");
    }
    auto session = issueLocked(userId, SecureRandom::uuid());
    persist(lock);
    return session;
}

std::variant<IssuedSession, AuthStore::SignInFailure>
AuthStore::signInWithPassword(const std::string& email, const std::string& password) {
    std::unique_lock lock(mutex_);
    auto it = findByEmailLocked(email);
    if (it == users_.end() || it->second.password.empty() || it->second.password != password) {
        return SignInFailure::invalidCredentials;
    }
    if (!it->second.emailConfirmed) {
        return SignInFailure::emailNotConfirmed;
    }
    auto session = issueLocked(it->first, SecureRandom::uuid());
    persist(lock);
    return session;
}

AuthStore::SignUpResult AuthStore::signUp(const std::string& email, const std::string& password,
                                          const Json& metadata) {
    if (password.size() < 6) {
        return {SignUpKind::weakPassword, std::nullopt, std::nullopt};
    }
    std::unique_lock lock(mutex_);
    if (auto existing = findByEmailLocked(email); existing != users_.end()) {
        if (autoConfirm_) {
            return {SignUpKind::alreadyRegistered, existing->second, std::nullopt};
        }
        // With confirmation mails on, the auth API hides that the address is taken: a user without
        // identities comes back.
        DevUser masked = existing->second;
        masked.providers.clear();
        return {SignUpKind::confirmationSent, masked, std::nullopt};
    }
    DevUser user;
    user.id = SecureRandom::uuid();
    user.email = email;
    user.password = password;
    user.userMetadata = metadata.is_object() ? metadata : Json::object();
    user.fullName = user.userMetadata.value("full_name", "");
    user.createdAt = clock_->now();
    user.emailConfirmed = autoConfirm_;
    users_[user.id] = user;
    SignUpResult result{autoConfirm_ ? SignUpKind::session : SignUpKind::confirmationSent, user,
                        std::nullopt};
    if (autoConfirm_) {
        result.session = issueLocked(user.id, SecureRandom::uuid());
    }
    persist(lock);
    return result;
}

std::optional<IssuedSession> AuthStore::refresh(const std::string& refreshToken) {
    std::unique_lock lock(mutex_);
    auto it = refreshTokens_.find(refreshToken);
    if (it == refreshTokens_.end() || it->second.used || !users_.count(it->second.userId)) {
        return std::nullopt;
    }
    it->second.used = true;
    auto session = issueLocked(it->second.userId, it->second.sessionId);
    persist(lock);
    return session;
}

bool AuthStore::signOut(const std::string& accessToken) {
    std::unique_lock lock(mutex_);
    auto it = accessTokens_.find(accessToken);
    if (it == accessTokens_.end()) {
        return false;
    }
    auto sessionId = it->second.sessionId;
    std::erase_if(accessTokens_, [&](const auto& entry) { return entry.second.sessionId == sessionId; });
    std::erase_if(refreshTokens_, [&](const auto& entry) { return entry.second.sessionId == sessionId; });
    persist(lock);
    return true;
}

AuthStore::TokenCheck AuthStore::checkAccessToken(const std::string& accessToken) const {
    auto now = clock_->now();
    std::lock_guard lock(mutex_);
    auto it = accessTokens_.find(accessToken);
    if (it == accessTokens_.end()) {
        return {};
    }
    auto user = users_.find(it->second.userId);
    if (user == users_.end()) {
        return {};
    }
    if (now >= it->second.expiresAt) {
        return {TokenState::expired, user->second};
    }
    return {TokenState::valid, user->second};
}

std::optional<DevUser> AuthStore::updateMetadata(const std::string& userId, const Json& data) {
    std::unique_lock lock(mutex_);
    auto it = users_.find(userId);
    if (it == users_.end()) {
        return std::nullopt;
    }
    if (data.is_object()) {
        it->second.userMetadata.update(data);
        if (auto name = data.find("full_name"); name != data.end() && name->is_string()) {
            it->second.fullName = name->get<std::string>();
        }
    }
    auto user = it->second;
    persist(lock);
    return user;
}

bool AuthStore::addProvider(const std::string& userId, const std::string& provider) {
    std::unique_lock lock(mutex_);
    auto it = users_.find(userId);
    if (it == users_.end()) {
        return false;
    }
    auto& providers = it->second.providers;
    if (std::find(providers.begin(), providers.end(), provider) == providers.end()) {
        providers.push_back(provider);
    }
    persist(lock);
    return true;
}

bool AuthStore::patchProfile(const std::string& userId, const Json& values) {
    std::unique_lock lock(mutex_);
    auto it = users_.find(userId);
    if (it == users_.end() || !values.is_object()) {
        return false;
    }
    auto text = [&](const char* key) -> std::optional<std::optional<std::string>> {
        auto v = values.find(key);
        if (v == values.end()) {
            return std::nullopt;
        }
        return v->is_string() ? std::optional<std::string>(v->get<std::string>()) : std::nullopt;
    };
    if (auto v = text("full_name")) {
        it->second.fullName = v->value_or("");
    }
    if (auto v = text("job_title")) {
        it->second.jobTitle = *v;
    }
    if (auto v = text("company")) {
        it->second.company = *v;
    }
    if (auto v = text("organization_id")) {
        it->second.organizationId = *v;
    }
    persist(lock);
    return true;
}

std::vector<Json> AuthStore::profileRows() const {
    std::lock_guard lock(mutex_);
    std::vector<Json> rows;
    for (const auto& [id, user] : users_) {
        rows.push_back(user.profileRow());
    }
    return rows;
}

double AuthStore::accessTokenLifetime() const {
    std::lock_guard lock(mutex_);
    return accessTokenLifetime_;
}

void AuthStore::setAccessTokenLifetime(double seconds) {
    std::lock_guard lock(mutex_);
    accessTokenLifetime_ = seconds;
}

void AuthStore::expireAllAccessTokens() {
    auto now = clock_->now();
    std::unique_lock lock(mutex_);
    for (auto& [token, t] : accessTokens_) {
        t.expiresAt = std::min(t.expiresAt, now);
    }
    persist(lock);
}

} // namespace kavelo
