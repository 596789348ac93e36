#include "core/accounts/PKCE.h"

#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/sha.h>

#include <stdexcept>
#include <vector>

namespace kavelo {

namespace {

std::string base64URL(const unsigned char* data, std::size_t size) {
    std::vector<unsigned char> out(4 * ((size + 2) / 3) + 1);
    int length = EVP_EncodeBlock(out.data(), data, static_cast<int>(size));
    std::string text(reinterpret_cast<const char*>(out.data()), static_cast<std::size_t>(length));
    std::string result;
    result.reserve(text.size());
    for (char c : text) {
        if (c == '+') {
            result += '-';
        } else if (c == '/') {
            result += '_';
        } else if (c != '=') {
            result += c;
        }
    }
    return result;
}

} // namespace

std::string PKCE::codeVerifier() {
    unsigned char bytes[32];
    if (RAND_bytes(bytes, sizeof bytes) != 1) {
        throw std::runtime_error("no secure random bytes available");
    }
    return base64URL(bytes, sizeof bytes);
}

std::string PKCE::codeChallenge(const std::string& verifier) {
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(verifier.data()), verifier.size(), digest);
    return base64URL(digest, sizeof digest);
}

} // namespace kavelo
