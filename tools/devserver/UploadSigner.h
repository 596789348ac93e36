#pragma once

#include "core/support/Time.h"

#include <filesystem>
#include <mutex>
#include <string>

namespace kavelo {

// Signs and checks the tokens of signed upload URLs. A token is "<expiry seconds>.<HMAC-SHA256 hex>" over
// the object's name and the expiry, under a key of the server's; the key survives restarts with the
// rest of the state, and rotating it voids every URL handed out before.
//
// Thread-safety: any thread; the mutex guards the key and the lifetime.
class UploadSigner {
  public:
    enum class Verdict { valid, expired, invalid };

    // Reads the key from keyFile, or makes one and writes it there.
    UploadSigner(std::filesystem::path keyFile, double lifetimeSeconds);

    [[nodiscard]] std::string sign(const std::string& objectName, TimePoint expiresAt) const;
    [[nodiscard]] Verdict verify(const std::string& objectName, const std::string& token,
                                 TimePoint now) const;
    // A new key, on disk before it is used: every URL handed out so far stops working.
    void rotateKey();
    [[nodiscard]] double lifetime() const; // seconds a new URL stays good
    void setLifetime(double seconds);

  private:
    [[nodiscard]] std::string key() const;
    [[nodiscard]] static std::string mac(const std::string& key, const std::string& message);

    const std::filesystem::path keyFile_;
    mutable std::mutex mutex_;
    std::string key_; // guarded by mutex_
    double lifetime_; // guarded by mutex_
};

} // namespace kavelo
