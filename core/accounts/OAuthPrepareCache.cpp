#include "core/accounts/OAuthPrepareCache.h"

namespace kavelo {

void OAuthPrepareCache::store(PreparedOAuthFlow flow) {
    std::lock_guard lock(mutex_);
    cached_ = std::move(flow);
}

std::optional<PreparedOAuthFlow> OAuthPrepareCache::consume(OAuthProvider provider) {
    std::lock_guard lock(mutex_);
    if (!cached_ || cached_->provider != provider) {
        return std::nullopt;
    }
    std::optional<PreparedOAuthFlow> flow = std::move(cached_);
    cached_.reset();
    return flow;
}

void OAuthPrepareCache::clear() {
    std::lock_guard lock(mutex_);
    cached_.reset();
}

bool OAuthPrepareCache::hasValue() const {
    std::lock_guard lock(mutex_);
    return cached_.has_value();
}

} // namespace kavelo
