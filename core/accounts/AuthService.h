#pragma once

#include "core/accounts/AccountLinkConfirmResult.h"
#include "core/accounts/AuthSession.h"
#include "core/accounts/OAuthOutcome.h"
#include "core/accounts/PreparedOAuthFlow.h"
#include "core/accounts/SignUpOutcome.h"

#include <map>
#include <optional>
#include <string>

namespace kavelo {

// Everything that proves who the user is. It holds no session: it turns requests into sessions and
// outcomes, and SessionManager keeps them. Calls block the calling task; any thread may call.
class AuthService {
  public:
    virtual ~AuthService() = default;

    // Throws AuthError.
    virtual PreparedOAuthFlow prepareOAuth(OAuthProvider provider,
                                           const std::optional<std::string>& inviteToken) = 0;
    // A refusal of the backend is an outcome; only a failure to get an answer throws AuthError.
    virtual OAuthOutcome exchangeOAuthCode(const std::string& code, const std::string& codeVerifier) = 0;
    // With an access token, that token proves the existing account; without, the stored session's does.
    // Refusals are results; failures without an answer throw APIError.
    virtual AccountLinkConfirmResult confirmAccountLink(const std::string& linkToken,
                                                        const std::optional<std::string>& accessToken) = 0;
    AccountLinkConfirmResult confirmAccountLink(const std::string& linkToken) {
        return confirmAccountLink(linkToken, std::nullopt);
    }
    // Throws AuthError.
    virtual AuthSession signIn(const std::string& email, const std::string& password) = 0;
    // Throws AuthError.
    virtual SignUpOutcome signUp(const std::string& email, const std::string& password,
                                 const std::string& fullName) = 0;
    // Throws AuthError.
    virtual void updateUserMetadata(const std::map<std::string, std::string>& metadata,
                                    const std::string& accessToken) = 0;
    // Throws AuthError; refreshRejected means the user has to sign in again.
    virtual AuthSession refresh(const std::string& refreshToken) = 0;
    // Ends the session on the server, as far as it will; never fails.
    virtual void signOut(const std::string& accessToken) = 0;
};

} // namespace kavelo
