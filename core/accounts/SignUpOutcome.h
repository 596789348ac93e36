#pragma once

#include "core/accounts/AuthSession.h"

#include <optional>
#include <string>

namespace kavelo {

// A new account is either signed in at once or waits for the address to be confirmed.
struct SignUpOutcome {
    enum class Kind { session, verificationEmailSent };

    Kind kind = Kind::verificationEmailSent;
    std::optional<AuthSession> session; // session only
    std::string email;                  // verificationEmailSent only

    static SignUpOutcome signedIn(AuthSession session) { return {Kind::session, std::move(session), {}}; }
    static SignUpOutcome verificationEmailSent(std::string email) {
        return {Kind::verificationEmailSent, std::nullopt, std::move(email)};
    }

    bool operator==(const SignUpOutcome&) const = default;
};

} // namespace kavelo
