#pragma once

#include "core/support/Clock.h"
#include "core/support/KeyValueStore.h"
#include "core/workspace/ReleaseNote.h"
#include "core/workspace/UpdateBackend.h"
#include "core/workspace/UpdateStatus.h"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kavelo {

// Decides whether the running version may still record, and which release notes the user has not seen.
//
// Nothing here throws: an offline machine keeps its last verdict, and a first failed check leaves the
// status unknown, which blocks nothing. Calls may come from any thread; the lock guards lastStatus alone
// and is never held while the backend is asked.
class UpdateService {
  public:
    static constexpr const char* kLastSeenReleaseKey = "kavelo_last_seen_release";

    UpdateService(std::shared_ptr<UpdateBackend> backend, std::shared_ptr<KeyValueStore> store,
                  std::string currentVersion, std::shared_ptr<Clock> clock);

    // The last verdict, without asking the backend.
    [[nodiscard]] UpdateStatus cachedStatus() const;
    // Asks the backend and stores the verdict; on a failure returns the previous verdict.
    UpdateStatus checkForUpdates();
    bool isUpdateRequired();
    // The notes of the update file, in its order; empty when they cannot be had.
    std::vector<ReleaseNote> releaseNotes();
    // The notes above the last version the user saw and not above the running one, in the file's order.
    std::vector<ReleaseNote> unseenReleaseNotes();
    void markReleaseNotesSeen();

    [[nodiscard]] const std::string& currentVersion() const { return currentVersion_; }

    // Below the minimum the update is required, unless a grace date lies ahead; below the latest it is
    // offered; otherwise the version is up to date.
    [[nodiscard]] static UpdateStatus evaluate(const UpdatePolicy& policy, const std::string& currentVersion,
                                               TimePoint now);

  private:
    const std::shared_ptr<UpdateBackend> backend_;
    const std::shared_ptr<KeyValueStore> store_;
    const std::string currentVersion_;
    const std::shared_ptr<Clock> clock_;
    mutable std::mutex mutex_;
    UpdateStatus lastStatus_; // guarded by mutex_
};

} // namespace kavelo
