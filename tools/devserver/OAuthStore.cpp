#include "tools/devserver/OAuthStore.h"

#include "tools/devserver/SecureRandom.h"

#include <openssl/evp.h>
#include <openssl/sha.h>

#include <algorithm>

namespace kavelo {

namespace {

constexpr double kFlowLifetime = 600;
constexpr double kLinkLifetime = 900;

} // namespace

OAuthStore::Identity OAuthStore::defaultIdentity(const std::string& provider) {
    return Identity{provider + "-user@example.test", "Demo " + provider};
}

OAuthStore::OAuthStore(std::shared_ptr<Clock> clock) : clock_(std::move(clock)) {}

std::string OAuthStore::challengeOf(const std::string& codeVerifier) {
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(codeVerifier.data()), codeVerifier.size(), digest);
    unsigned char encoded[64] = {};
    int length = EVP_EncodeBlock(encoded, digest, SHA256_DIGEST_LENGTH);
    std::string text(reinterpret_cast<char*>(encoded), static_cast<std::size_t>(length));
    std::replace(text.begin(), text.end(), '+', '-');
    std::replace(text.begin(), text.end(), '/', '_');
    text.erase(std::remove(text.begin(), text.end(), '='), text.end());
    return text;
}

std::string OAuthStore::beginFlow(const std::string& provider, const std::string& codeChallenge) {
    auto state = SecureRandom::hex(16);
    auto now = clock_->now();
    std::lock_guard lock(mutex_);
    flows_[state] = Flow{provider, codeChallenge, now};
    return state;
}

std::optional<std::string> OAuthStore::issueCode(const std::string& state) {
    auto now = clock_->now();
    auto code = SecureRandom::hex(16);
    std::lock_guard lock(mutex_);
    auto it = flows_.find(state);
    if (it == flows_.end() || secondsBetween(it->second.startedAt, now) > kFlowLifetime) {
        return std::nullopt;
    }
    codes_[code] = state;
    return code;
}

OAuthStore::Redemption OAuthStore::redeem(const std::string& code, const std::string& codeVerifier) {
    auto now = clock_->now();
    auto challenge = challengeOf(codeVerifier);
    std::lock_guard lock(mutex_);
    auto codeIt = codes_.find(code);
    if (codeIt == codes_.end()) {
        return {};
    }
    auto state = codeIt->second;
    codes_.erase(codeIt);
    auto flowIt = flows_.find(state);
    if (flowIt == flows_.end()) {
        return {};
    }
    auto flow = flowIt->second;
    flows_.erase(flowIt);
    if (secondsBetween(flow.startedAt, now) > kFlowLifetime) {
        return {Redemption::Kind::stateExpired, flow.provider, {}};
    }
    if (challenge != flow.challenge) {
        return {Redemption::Kind::verifierMismatch, flow.provider, {}};
    }
    auto known = identities_.find(flow.provider);
    auto identity = known == identities_.end() ? defaultIdentity(flow.provider) : known->second;
    return {Redemption::Kind::ok, flow.provider, identity};
}

void OAuthStore::setIdentity(const std::string& provider, Identity identity) {
    std::lock_guard lock(mutex_);
    identities_[provider] = std::move(identity);
}

OAuthStore::Identity OAuthStore::identityFor(const std::string& provider) const {
    std::lock_guard lock(mutex_);
    auto it = identities_.find(provider);
    return it == identities_.end() ? defaultIdentity(provider) : it->second;
}

std::string OAuthStore::createLinkToken(const std::string& existingUserId, const std::string& newProvider,
                                        TimePoint& expiresAt) {
    auto token = "link-" + SecureRandom::hex(16);
    expiresAt = addSeconds(clock_->now(), kLinkLifetime);
    std::lock_guard lock(mutex_);
    links_[token] = PendingLink{existingUserId, newProvider, expiresAt};
    return token;
}

OAuthStore::Link OAuthStore::redeemLink(const std::string& token, const std::string& userId) {
    auto now = clock_->now();
    std::lock_guard lock(mutex_);
    auto it = links_.find(token);
    if (it == links_.end()) {
        return {};
    }
    auto link = it->second;
    if (now >= link.expiresAt) {
        return {Link::Kind::expired, link.existingUserId, link.newProvider};
    }
    if (link.existingUserId != userId) {
        return {Link::Kind::wrongUser, link.existingUserId, link.newProvider};
    }
    links_.erase(it);
    return {Link::Kind::ok, link.existingUserId, link.newProvider};
}

} // namespace kavelo
