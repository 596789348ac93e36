#pragma once

#include <string>

namespace kavelo {

// Proof Key for Code Exchange (RFC 7636, method S256).
class PKCE {
  public:
    // 32 bytes of secure randomness in unpadded URL-safe Base64: 43 characters. Throws std::runtime_error
    // when the system has no randomness to give.
    static std::string codeVerifier();
    // SHA-256 of the verifier's bytes, in the same encoding.
    static std::string codeChallenge(const std::string& verifier);
};

} // namespace kavelo
