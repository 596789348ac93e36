#pragma once

#include "core/workspace/DashboardActivityItem.h"
#include "core/workspace/RecordingStatusProviding.h"

#include <cstddef>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kavelo {

// The short list of recordings a user has submitted, kept per user in one file so that the dashboard shows
// their progress across restarts. queue() adds a recording when it is handed over; refresh() asks the
// backend about every item not yet delivered and moves each forward, never back.
//
// At most three items waiting and two delivered ones are kept. A backend that reports a failure is believed
// only after three such answers in a row; the count lives in memory, so a restart starts it again.
//
// Thread-safety: any thread. The mutex guards the read-merge-write of the file and the failure counts; it is
// never held while the provider is asked. items() takes no lock: the file is replaced atomically.
class DashboardActivityCenter {
  public:
    using NowFunction = std::function<TimePoint()>;

    static constexpr std::size_t activeLimit = 3;
    static constexpr std::size_t deliveredLimit = 2;
    static constexpr double slowAfter = 600; // seconds below which an item never counts as slow
    static constexpr int failedConfirmationPolls = 3;
    // A user id that cannot be part of a file name is no user.
    static constexpr std::size_t maxUserIdBytes = 200;

    // now: the clock; absent takes the system clock.
    explicit DashboardActivityCenter(std::filesystem::path directory, NowFunction now = {});

    // Empty for an unusable user id or a missing or unreadable file.
    [[nodiscard]] std::vector<DashboardActivityItem> items(const std::string& userId) const;
    std::vector<DashboardActivityItem> queue(const std::string& userId, const std::string& recordingId,
                                             const std::optional<std::string>& meetingId,
                                             const std::string& meetingName);
    // Blocks on the provider; never throws. A provider failure leaves the item as it was.
    std::vector<DashboardActivityItem> refresh(const std::string& userId, RecordingStatusProviding& provider);

    [[nodiscard]] std::filesystem::path fileFor(const std::string& userId) const;
    [[nodiscard]] const std::filesystem::path& directory() const { return directory_; }

    // Newest first: an item's key is its delivery date, else its submission date.
    static bool byRecency(const DashboardActivityItem& a, const DashboardActivityItem& b);
    // The newest activeLimit undelivered and deliveredLimit delivered items, newest first.
    static std::vector<DashboardActivityItem> retain(std::vector<DashboardActivityItem> items);

  private:
    struct Observation {
        std::string itemId;
        std::string meetingId;
        RecordingStatus status;
    };

    static bool usableUserId(const std::string& userId);
    // Retains, then writes; a failure to write only loses this update. Call with mutex_ held.
    std::vector<DashboardActivityItem> writeLocked(const std::string& userId,
                                                   std::vector<DashboardActivityItem> items);
    // Applies one observation to the list. Call with mutex_ held.
    void mergeLocked(std::vector<DashboardActivityItem>& items, const Observation& observation,
                     TimePoint now);

    const std::filesystem::path directory_;
    const NowFunction now_;
    std::mutex mutex_;
    std::map<std::string, int> failedObservations_; // by item id; guarded by mutex_
};

} // namespace kavelo
