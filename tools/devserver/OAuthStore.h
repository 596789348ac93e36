#pragma once

#include "core/support/Clock.h"

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace kavelo {

// The provider side of the stand-in's OAuth sign-in: flows prepared with a PKCE challenge, one-time codes
// handed to the browser, and the link tokens of accounts that exist under another provider. None of it
// outlives the process: a flow is minutes long.
//
// Thread-safety: any thread; one mutex guards the maps.
class OAuthStore {
  public:
    struct Identity {
        std::string email;
        std::string fullName;
    };
    struct Redemption {
        enum class Kind { ok, unknownCode, verifierMismatch, stateExpired };
        Kind kind = Kind::unknownCode;
        std::string provider;
        Identity identity;
    };
    struct Link {
        enum class Kind { ok, unknown, expired, wrongUser };
        Kind kind = Kind::unknown;
        std::string existingUserId;
        std::string newProvider;
    };

    explicit OAuthStore(std::shared_ptr<Clock> clock);

    // The state of a new flow.
    std::string beginFlow(const std::string& provider, const std::string& codeChallenge);
    // The consent step: a one-time code for the flow, absent for an unknown or stale state.
    std::optional<std::string> issueCode(const std::string& state);
    // Uses up the code whatever the outcome, as a real provider does.
    Redemption redeem(const std::string& code, const std::string& codeVerifier);

    void setIdentity(const std::string& provider, Identity identity);
    [[nodiscard]] Identity identityFor(const std::string& provider) const;

    // Returns the token; it expires at the time given through expiresAt.
    std::string createLinkToken(const std::string& existingUserId, const std::string& newProvider,
                                TimePoint& expiresAt);
    // Uses the token up only when it is good and userId is the account it links to.
    Link redeemLink(const std::string& token, const std::string& userId);

    // base64url(SHA-256(verifier)) without padding: the S256 method.
    static std::string challengeOf(const std::string& codeVerifier);

  private:
    static Identity defaultIdentity(const std::string& provider);
    struct Flow {
        std::string provider;
        std::string challenge;
        TimePoint startedAt;
    };
    struct PendingLink {
        std::string existingUserId;
        std::string newProvider;
        TimePoint expiresAt;
    };

    const std::shared_ptr<Clock> clock_;
    mutable std::mutex mutex_;
    std::map<std::string, Flow> flows_;          // guarded by mutex_, by state
    std::map<std::string, std::string> codes_;   // guarded by mutex_, code to state
    std::map<std::string, Identity> identities_; // guarded by mutex_, by provider
    std::map<std::string, PendingLink> links_;   // guarded by mutex_, by token
};

} // namespace kavelo
