#pragma once

#include "core/accounts/PreparedOAuthFlow.h"

#include <mutex>
#include <optional>

namespace kavelo {

// Holds one flow prepared ahead of the click, so that the browser opens without a round trip.
// May be used from any thread.
class OAuthPrepareCache {
  public:
    // Replaces what is there.
    void store(PreparedOAuthFlow flow);
    // Hands out the cached flow when it is for this provider, and empties the cache; otherwise absent,
    // and the cache stays as it is.
    std::optional<PreparedOAuthFlow> consume(OAuthProvider provider);
    void clear();
    [[nodiscard]] bool hasValue() const;

  private:
    mutable std::mutex mutex_;
    std::optional<PreparedOAuthFlow> cached_; // guarded by mutex_
};

} // namespace kavelo
