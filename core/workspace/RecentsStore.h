#pragma once

#include "core/support/KeyValueStore.h"

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace kavelo {

// The speaker names and recipient addresses used lately on this machine, newest first, for suggestions.
// Runs on the finalize path only, so it has no lock of its own; the store guards itself.
class RecentsStore {
  public:
    static constexpr const char* kSpeakersKey = "kavelo_recent_speakers";
    static constexpr const char* kRecipientsKey = "kavelo_recent_recipients";
    static constexpr std::size_t kMaxEntries = 20;
    // Longer entries read from the disk are dropped; no real name or address comes near it.
    static constexpr std::size_t kMaxEntryBytes = 512;

    explicit RecentsStore(std::shared_ptr<KeyValueStore> store);

    [[nodiscard]] std::vector<std::string> recentSpeakers() const;
    [[nodiscard]] std::vector<std::string> recentRecipients() const;
    // Each name trimmed of blanks and put in front, as written, replacing any entry equal to it ignoring
    // case; empty names are skipped. The last of a batch ends first.
    void saveSpeakers(const std::vector<std::string>& names);
    // As saveSpeakers, with each address trimmed of blanks and line breaks and stored in lower case.
    void saveRecipients(const std::vector<std::string>& addresses);
    void clear();

  private:
    [[nodiscard]] std::vector<std::string> load(const char* key) const;
    void save(const char* key, const std::vector<std::string>& entries, bool lowercase);

    const std::shared_ptr<KeyValueStore> store_;
};

} // namespace kavelo
