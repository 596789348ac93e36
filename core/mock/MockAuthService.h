#pragma once

#include "core/accounts/AuthService.h"
#include "core/support/Clock.h"

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kavelo {

// Sign-in of mock mode: password accounts in memory, OAuth that always comes back signed in (unless a
// test sets nextOutcome), and the same errors as the live service at the same points.
// Any thread may call.
class MockAuthService final : public AuthService {
  public:
    // The account that OAuth and refresh sign in as, and that mock mode seeds.
    static constexpr const char* demoEmail = "demo@kavely.nl";
    static constexpr const char* demoPassword = "kavely24";

    // passwordAccounts: lower-case e-mail address to password.
    MockAuthService(std::shared_ptr<Clock> clock, std::map<std::string, std::string> passwordAccounts,
                    std::string demoAccountEmail = demoEmail);

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

    // A session of the given address, valid for an hour.
    [[nodiscard]] AuthSession demoSession(const std::string& email) const;

    // Knobs and what the mock gathered.
    void setNextOutcome(std::optional<OAuthOutcome> outcome);
    [[nodiscard]] std::map<std::string, std::string> userMetadata() const;
    [[nodiscard]] std::map<std::string, std::string> passwordAccounts() const;

  private:
    const std::shared_ptr<Clock> clock_;
    const std::string demoAccountEmail_;

    mutable std::mutex mutex_;
    std::optional<OAuthOutcome> nextOutcome_;             // guarded by mutex_; one-shot
    std::map<std::string, std::string> passwordAccounts_; // guarded by mutex_
    std::map<std::string, std::string> userMetadata_;     // guarded by mutex_
};

} // namespace kavelo
