#pragma once

#include "core/support/KeyValueStore.h"

#include <memory>
#include <string>
#include <vector>

namespace kavelo {

// The two stored choices of meeting detection: whether it runs, and the applications never to prompt for.
class DetectionPreferences {
  public:
    static constexpr const char* notifyKey = "kavelo_notify_detected";
    static constexpr const char* mutedKey = "kavelo_muted_apps";

    explicit DetectionPreferences(std::shared_ptr<KeyValueStore> store);

    // On unless stored off.
    [[nodiscard]] bool enabled() const;
    // The stored comma list, each name trimmed, empty parts dropped.
    [[nodiscard]] std::vector<std::string> mutedApps() const;
    [[nodiscard]] bool isMuted(const std::string& name) const;
    // Adds the name unless present; stores the list joined by ", ".
    void mute(const std::string& name);

    // A stored list longer than this is cut: it comes from disk and a name is a short application name.
    static constexpr std::size_t maxMutedNames = 64;
    static constexpr std::size_t maxStoredLength = 4096;

  private:
    std::shared_ptr<KeyValueStore> store_;
};

} // namespace kavelo
