#pragma once

#include "core/accounts/AuthService.h"
#include "core/backend/HTTPClient.h"
#include "core/backend/SupabaseFunctionClient.h"
#include "core/support/AppConfig.h"
#include "core/support/Clock.h"

#include <memory>

namespace kavelo {

// Sign-in against the hosted project, in its two dialects: OAuth and account linking through edge
// functions (with the function client's header and retry rules), e-mail and password straight against
// the auth API, with their own headers and their own reading of status codes.
//
// No mutable state; any thread may call. Passwords and tokens go on the wire only, never in a log line
// or an error text.
class LiveAuthService final : public AuthService {
  public:
    LiveAuthService(AppConfig config, std::shared_ptr<HTTPClient> http,
                    std::shared_ptr<SupabaseFunctionClient> functions, std::shared_ptr<Clock> clock);

    PreparedOAuthFlow prepareOAuth(OAuthProvider provider,
                                   const std::optional<std::string>& inviteToken) override;
    OAuthOutcome exchangeOAuthCode(const std::string& code, const std::string& codeVerifier) override;
    using AuthService::confirmAccountLink;
    AccountLinkConfirmResult confirmAccountLink(const std::string& linkToken,
                                                const std::optional<std::string>& accessToken) override;
    AuthSession signIn(const std::string& email, const std::string& password) override;
    SignUpOutcome signUp(const std::string& email, const std::string& password,
                         const std::string& fullName) override;
    void updateUserMetadata(const std::map<std::string, std::string>& metadata,
                            const std::string& accessToken) override;
    AuthSession refresh(const std::string& refreshToken) override;
    void signOut(const std::string& accessToken) override;

    // Reads an exchange answer leniently, field by field: a 200 may carry any outcome. Never throws.
    [[nodiscard]] OAuthOutcome parseOutcome(const Bytes& body) const;

  private:
    // A call of the auth API; a transport failure throws AuthError.network.
    HTTPResponse sendAuth(const std::string& pathAndQuery, const std::string& method,
                          const std::optional<std::string>& accessToken, const std::optional<Json>& body,
                          double timeout) const;
    [[nodiscard]] AuthSession sessionFrom(const Bytes& body) const;

    const AppConfig config_;
    const std::shared_ptr<HTTPClient> http_;
    const std::shared_ptr<SupabaseFunctionClient> functions_;
    const std::shared_ptr<Clock> clock_;
};

} // namespace kavelo
