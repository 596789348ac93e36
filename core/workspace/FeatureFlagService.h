#pragma once

#include "core/support/KeyValueStore.h"
#include "core/workspace/FeatureFlagBackend.h"
#include "core/workspace/FeatureFlags.h"

#include <memory>
#include <mutex>
#include <string>

namespace kavelo {

// Holds the current flags: the cached set at start, a fresh one after each successful refresh. Without a
// backend the flags stay as cached, or the defaults. Nothing here throws; the lock guards current alone
// and is never held while the backend is asked.
class FeatureFlagService {
  public:
    static constexpr const char* kCacheKey = "kavelo_feature_flags_cache";

    FeatureFlagService(std::shared_ptr<FeatureFlagBackend> backend, std::shared_ptr<KeyValueStore> store);

    [[nodiscard]] FeatureFlags flags() const;
    // The raw flag of that name, else the given default.
    [[nodiscard]] bool isEnabled(const std::string& name, bool defaultValue) const;
    FeatureFlags refresh();

  private:
    const std::shared_ptr<FeatureFlagBackend> backend_; // may be null
    const std::shared_ptr<KeyValueStore> store_;
    mutable std::mutex mutex_;
    FeatureFlags current_; // guarded by mutex_
};

} // namespace kavelo
