#include "core/mock/MockAuthService.h"

#include "core/accounts/AuthError.h"
#include "core/accounts/PKCE.h"

#include <algorithm>
#include <cctype>
#include <functional>

namespace kavelo {

namespace {

std::string normalisedEmail(const std::string& email) {
    auto isSpace = [](unsigned char c) { return std::isspace(c) != 0; };
    auto begin = std::find_if_not(email.begin(), email.end(), isSpace);
    auto end = std::find_if_not(email.rbegin(), std::string::const_reverse_iterator(begin), isSpace).base();
    std::string out(begin, end);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

} // namespace

MockAuthService::MockAuthService(std::shared_ptr<Clock> clock,
                                 std::map<std::string, std::string> passwordAccounts,
                                 std::string demoAccountEmail)
    : clock_(std::move(clock)), demoAccountEmail_(std::move(demoAccountEmail)),
      passwordAccounts_(std::move(passwordAccounts)) {}

AuthSession MockAuthService::demoSession(const std::string& email) const {
    AuthSession session;
    session.accessToken = "mock-access-token";
    session.refreshToken = "mock-refresh-token";
    session.expiresAt = secondsSince1970(clock_->now()) + 3600;
    session.user.id = "mock-user-" + std::to_string(std::hash<std::string>{}(email) % 1000);
    session.user.email = email;
    return session;
}

PreparedOAuthFlow MockAuthService::prepareOAuth(OAuthProvider provider, const std::optional<std::string>&) {
    return PreparedOAuthFlow{provider, "https://auth.mock.kavely.local/mock/" + std::string(toRaw(provider)),
                             PKCE::codeVerifier()};
}

OAuthOutcome MockAuthService::exchangeOAuthCode(const std::string&, const std::string&) {
    {
        std::lock_guard lock(mutex_);
        if (nextOutcome_) {
            OAuthOutcome outcome = std::move(*nextOutcome_);
            nextOutcome_.reset();
            return outcome;
        }
    }
    return OAuthOutcome::session(demoSession(demoAccountEmail_));
}

AccountLinkConfirmResult MockAuthService::confirmAccountLink(const std::string& linkToken,
                                                             const std::optional<std::string>&) {
    if (linkToken == "expired") {
        return AccountLinkConfirmResult::expired();
    }
    return AccountLinkConfirmResult::success("microsoft");
}

AuthSession MockAuthService::signIn(const std::string& email, const std::string& password) {
    const std::string key = normalisedEmail(email);
    {
        std::lock_guard lock(mutex_);
        auto it = passwordAccounts_.find(key);
        if (it == passwordAccounts_.end() || it->second != password) {
            throw AuthError::invalidCredentials();
        }
    }
    return demoSession(key);
}

SignUpOutcome MockAuthService::signUp(const std::string& email, const std::string& password,
                                      const std::string&) {
    const std::string key = normalisedEmail(email);
    {
        std::lock_guard lock(mutex_);
        if (passwordAccounts_.count(key) != 0) {
            throw AuthError::emailTaken();
        }
        // Characters, not bytes: count the bytes that start a UTF-8 sequence.
        auto characters = std::count_if(password.begin(), password.end(),
                                        [](unsigned char c) { return (c & 0xC0) != 0x80; });
        if (characters < 6) {
            throw AuthError::weakPassword();
        }
        passwordAccounts_[key] = password;
    }
    return SignUpOutcome::signedIn(demoSession(key));
}

void MockAuthService::updateUserMetadata(const std::map<std::string, std::string>& metadata,
                                         const std::string&) {
    std::lock_guard lock(mutex_);
    for (const auto& [key, value] : metadata) {
        userMetadata_[key] = value;
    }
}

AuthSession MockAuthService::refresh(const std::string&) {
    return demoSession(demoAccountEmail_);
}

void MockAuthService::signOut(const std::string&) {}

void MockAuthService::setNextOutcome(std::optional<OAuthOutcome> outcome) {
    std::lock_guard lock(mutex_);
    nextOutcome_ = std::move(outcome);
}

std::map<std::string, std::string> MockAuthService::userMetadata() const {
    std::lock_guard lock(mutex_);
    return userMetadata_;
}

std::map<std::string, std::string> MockAuthService::passwordAccounts() const {
    std::lock_guard lock(mutex_);
    return passwordAccounts_;
}

} // namespace kavelo
