#pragma once

#include "core/support/Clock.h"
#include "tools/devserver/DevUser.h"
#include "tools/devserver/SnapshotWriter.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <variant>
#include <vector>

namespace kavelo {

// A signed-in session as the token endpoints hand it out.
struct IssuedSession {
    std::string accessToken;
    std::string refreshToken;
    TimePoint expiresAt;
    double expiresIn = 0;
    DevUser user;

    // The body of a token answer: access_token, token_type, expires_in, expires_at, refresh_token, user.
    [[nodiscard]] Json toJson() const;
};

// Accounts, sessions and tokens of the stand-in's auth service, and the `profiles` rows. Access tokens are
// opaque and expire after a lifetime set at start; refresh tokens rotate: each works once. Everything is
// written through to a file, so sessions survive a restart of the server.
//
// Thread-safety: any thread. The mutex guards all maps and settings; the SnapshotWriter writes the file
// after the mutex is released.
class AuthStore {
  public:
    enum class TokenState { valid, expired, unknown };
    struct TokenCheck {
        TokenState state = TokenState::unknown;
        std::optional<DevUser> user;
    };
    enum class SignInFailure { invalidCredentials, emailNotConfirmed };
    enum class SignUpKind { session, confirmationSent, alreadyRegistered, weakPassword };
    struct SignUpResult {
        SignUpKind kind = SignUpKind::session;
        std::optional<DevUser> user;
        std::optional<IssuedSession> session;
    };

    AuthStore(std::shared_ptr<Clock> clock, const std::filesystem::path& stateFile,
              double accessTokenLifetime, bool autoConfirm);

    // Seeding. Fills in id and creation time; throws std::invalid_argument when the address is taken.
    DevUser addUser(DevUser draft);
    [[nodiscard]] std::optional<DevUser> findByEmail(const std::string& email) const;
    [[nodiscard]] std::optional<DevUser> findById(const std::string& id) const;
    [[nodiscard]] std::vector<DevUser> users() const;

    IssuedSession issueSession(const std::string& userId);
    // Returns the session, or the reason of the refusal.
    std::variant<IssuedSession, SignInFailure> signInWithPassword(const std::string& email,
                                                                  const std::string& password);
    SignUpResult signUp(const std::string& email, const std::string& password, const Json& metadata);
    // Absent when the token is unknown or was used before.
    std::optional<IssuedSession> refresh(const std::string& refreshToken);
    // Ends the session of the token. False when the token is unknown.
    bool signOut(const std::string& accessToken);
    [[nodiscard]] TokenCheck checkAccessToken(const std::string& accessToken) const;

    std::optional<DevUser> updateMetadata(const std::string& userId, const Json& data);
    bool addProvider(const std::string& userId, const std::string& provider);
    // Sets profile columns (full_name, job_title, company, organization_id); other keys are ignored.
    bool patchProfile(const std::string& userId, const Json& values);
    [[nodiscard]] std::vector<Json> profileRows() const;

    [[nodiscard]] double accessTokenLifetime() const;
    void setAccessTokenLifetime(double seconds);
    // Voids every access token at once, as if each had reached its end (refresh tokens stay good).
    void expireAllAccessTokens();

  private:
    struct AccessToken {
        std::string userId;
        std::string sessionId;
        TimePoint expiresAt;
    };
    struct RefreshToken {
        std::string userId;
        std::string sessionId;
        bool used = false;
    };
    IssuedSession issueLocked(const std::string& userId, const std::string& sessionId);
    [[nodiscard]] std::map<std::string, DevUser>::const_iterator
    findByEmailLocked(const std::string& email) const;
    void persist(std::unique_lock<std::mutex>& lock);
    void load(const Json& saved);

    const std::shared_ptr<Clock> clock_;
    SnapshotWriter writer_;
    mutable std::mutex mutex_;
    std::map<std::string, DevUser> users_;              // guarded by mutex_, by id
    std::map<std::string, AccessToken> accessTokens_;   // guarded by mutex_
    std::map<std::string, RefreshToken> refreshTokens_; // guarded by mutex_
    double accessTokenLifetime_;                        // guarded by mutex_
    bool autoConfirm_;                                  // guarded by mutex_
    std::uint64_t version_ = 0;                         // guarded by mutex_
};

} // namespace kavelo
