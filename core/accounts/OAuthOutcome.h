#pragma once

#include "core/accounts/AccountLinkRequirement.h"
#include "core/accounts/AuthSession.h"
#include "core/accounts/OAuthErrorCode.h"

#include <optional>
#include <string>
#include <variant>

namespace kavelo {

// How an OAuth round trip ended. A 200 of the backend can carry any of these, so it is a value, not an
// exception.
class OAuthOutcome {
  public:
    enum class Kind { session, accountLinkRequired, error, externalRedirect, linkSuccess, cancelled };
    struct Error {
        OAuthErrorCode code = OAuthErrorCode::unknown;
        std::optional<std::string> message;
        std::optional<std::string> existingProvider;
        bool operator==(const Error&) const = default;
    };

    static OAuthOutcome session(AuthSession session) { return OAuthOutcome(std::move(session)); }
    static OAuthOutcome accountLinkRequired(AccountLinkRequirement requirement) {
        return OAuthOutcome(std::move(requirement));
    }
    static OAuthOutcome error(OAuthErrorCode code, std::optional<std::string> message = std::nullopt,
                              std::optional<std::string> existingProvider = std::nullopt) {
        return OAuthOutcome(Error{code, std::move(message), std::move(existingProvider)});
    }
    // The backend wants the browser sent to this URL.
    static OAuthOutcome externalRedirect(std::string url) { return OAuthOutcome(Redirect{std::move(url)}); }
    // The accounts are linked; no session comes with this answer.
    static OAuthOutcome linkSuccess() { return OAuthOutcome(LinkSuccess{}); }
    // The user broke off. Set by the controller of the window work, never by an auth service.
    static OAuthOutcome cancelled() { return OAuthOutcome(Cancelled{}); }

    [[nodiscard]] Kind kind() const { return static_cast<Kind>(value_.index()); }
    // The payload of the matching case, or null for any other case.
    [[nodiscard]] const AuthSession* asSession() const { return std::get_if<AuthSession>(&value_); }
    [[nodiscard]] const AccountLinkRequirement* asLinkRequirement() const {
        return std::get_if<AccountLinkRequirement>(&value_);
    }
    [[nodiscard]] const Error* asError() const { return std::get_if<Error>(&value_); }
    [[nodiscard]] const std::string* asRedirectURL() const {
        const auto* redirect = std::get_if<Redirect>(&value_);
        return redirect ? &redirect->url : nullptr;
    }

    bool operator==(const OAuthOutcome&) const = default;

  private:
    struct Redirect {
        std::string url;
        bool operator==(const Redirect&) const = default;
    };
    struct LinkSuccess {
        bool operator==(const LinkSuccess&) const = default;
    };
    struct Cancelled {
        bool operator==(const Cancelled&) const = default;
    };
    // The order follows Kind.
    using Value = std::variant<AuthSession, AccountLinkRequirement, Error, Redirect, LinkSuccess, Cancelled>;
    explicit OAuthOutcome(Value value) : value_(std::move(value)) {}

    Value value_;
};

} // namespace kavelo
