#pragma once

#include "core/accounts/OAuthProvider.h"

#include <string>

namespace kavelo {

// An OAuth round trip ready to start: where to send the browser, and the verifier to prove it was us.
// The verifier is a secret of the flow: never log it.
struct PreparedOAuthFlow {
    OAuthProvider provider = OAuthProvider::google;
    std::string authorizeURL;
    std::string codeVerifier;

    bool operator==(const PreparedOAuthFlow&) const = default;
};

} // namespace kavelo
