#pragma once

#include "core/support/KeyValueStore.h"
#include "core/workspace/TipsBackend.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kavelo {

// Keeps the dashboard tips: the last answer cached under the preferences, so the dashboard has tips
// offline, and a window of four that stays the same for the life of the process.
//
// Nothing here throws. Calls may come from any thread; the lock guards windowStart and the event closure,
// and onEvent is called without it.
class TipsService {
  public:
    static constexpr const char* kCacheKey = "kavely_tips_cache";
    static constexpr const char* kEnabledKey = "kavely_tips_enabled";
    static constexpr std::size_t kWindowSize = 4;

    // A number below the bound given; injected so a test can pin the window a process starts with.
    using RandomBelow = std::function<std::size_t(std::size_t bound)>;
    using EventSink = std::function<void(const std::string&)>;

    TipsService(std::shared_ptr<TipsBackend> backend, std::shared_ptr<KeyValueStore> store,
                RandomBelow random = {});

    [[nodiscard]] bool tipsEnabled() const;
    void setTipsEnabled(bool enabled);
    void setOnEvent(EventSink sink);

    // The cached answer; nothing when there is none or it does not read.
    [[nodiscard]] std::optional<TipsResponse> cachedResponse() const;
    // Asks the backend and caches a fresh answer; on a failure the cached answer, if any.
    std::optional<TipsResponse> loadTips();
    // The tips to show, sorted by sortOrder: all of them up to four, else four in a row from a start
    // index, wrapping around. Without randomStart the start is chosen once per process.
    std::vector<DashboardTip> visibleTips(std::vector<DashboardTip> tips,
                                          std::optional<std::size_t> randomStart = std::nullopt);

  private:
    void sendEvent(const std::string& text) const;

    const std::shared_ptr<TipsBackend> backend_;
    const std::shared_ptr<KeyValueStore> store_;
    const RandomBelow random_;
    mutable std::mutex mutex_;
    std::optional<std::size_t> windowStart_; // guarded by mutex_
    EventSink onEvent_;                      // guarded by mutex_
};

} // namespace kavelo
