#include "tools/devserver/UploadSigner.h"

#include "core/support/AtomicFile.h"
#include "tools/devserver/SecureRandom.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <cstdio>

namespace kavelo {

UploadSigner::UploadSigner(std::filesystem::path keyFile, double lifetimeSeconds)
    : keyFile_(std::move(keyFile)), lifetime_(lifetimeSeconds) {
    auto saved = readWholeFile(keyFile_);
    if (saved && saved->size() >= 32) {
        key_ = stringFromBytes(*saved);
        return;
    }
    key_ = SecureRandom::hex(32);
    createPrivateDirectories(keyFile_.parent_path());
    writeFileAtomically(keyFile_, bytesFromString(key_));
}

std::string UploadSigner::mac(const std::string& key, const std::string& message) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
         reinterpret_cast<const unsigned char*>(message.data()), message.size(), digest, &length);
    std::string text;
    char buf[3];
    for (unsigned int i = 0; i < length; ++i) {
        std::snprintf(buf, sizeof buf, "%02x", digest[i]);
        text += buf;
    }
    return text;
}

std::string UploadSigner::sign(const std::string& objectName, TimePoint expiresAt) const {
    auto expiry = std::to_string(
        std::chrono::duration_cast<std::chrono::seconds>(expiresAt.time_since_epoch()).count());
    return expiry + "." + mac(key(), objectName + "\n" + expiry);
}

UploadSigner::Verdict UploadSigner::verify(const std::string& objectName, const std::string& token,
                                           TimePoint now) const {
    auto dot = token.find('.');
    if (dot == std::string::npos || dot == 0) {
        return Verdict::invalid;
    }
    auto expiry = token.substr(0, dot);
    auto expected = mac(key(), objectName + "\n" + expiry);
    auto given = token.substr(dot + 1);
    if (given.size() != expected.size() || CRYPTO_memcmp(given.data(), expected.data(), given.size()) != 0) {
        return Verdict::invalid;
    }
    long long seconds = 0;
    try {
        seconds = std::stoll(expiry);
    } catch (const std::exception&) {
        return Verdict::invalid;
    }
    auto nowSeconds = std::chrono::duration_cast<std::chrono::seconds>(now.time_since_epoch()).count();
    return nowSeconds >= seconds ? Verdict::expired : Verdict::valid;
}

void UploadSigner::rotateKey() {
    auto key = SecureRandom::hex(32);
    writeFileAtomically(keyFile_, bytesFromString(key));
    std::lock_guard lock(mutex_);
    key_ = std::move(key);
}

std::string UploadSigner::key() const {
    std::lock_guard lock(mutex_);
    return key_;
}

double UploadSigner::lifetime() const {
    std::lock_guard lock(mutex_);
    return lifetime_;
}

void UploadSigner::setLifetime(double seconds) {
    std::lock_guard lock(mutex_);
    lifetime_ = seconds;
}

} // namespace kavelo
