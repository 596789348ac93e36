#include "tools/devserver/SecureRandom.h"

#include <openssl/rand.h>

#include <cstdio>
#include <stdexcept>
#include <vector>

namespace kavelo {

namespace {

std::vector<unsigned char> randomBytes(std::size_t count) {
    std::vector<unsigned char> bytes(count);
    if (count > 0 && RAND_bytes(bytes.data(), static_cast<int>(count)) != 1) {
        throw std::runtime_error("secure random source failed");
    }
    return bytes;
}

std::string toHex(const std::vector<unsigned char>& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (auto b : bytes) {
        text.push_back(digits[b >> 4]);
        text.push_back(digits[b & 0x0f]);
    }
    return text;
}

} // namespace

std::string SecureRandom::hex(std::size_t byteCount) {
    return toHex(randomBytes(byteCount));
}

std::string SecureRandom::uuid() {
    auto bytes = randomBytes(16);
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0f) | 0x40);
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3f) | 0x80);
    auto h = toHex(bytes);
    return h.substr(0, 8) + "-" + h.substr(8, 4) + "-" + h.substr(12, 4) + "-" + h.substr(16, 4) + "-" +
           h.substr(20);
}

} // namespace kavelo
