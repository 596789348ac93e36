#pragma once

#include "core/support/KeyValueStore.h"

#include <memory>
#include <optional>
#include <string>

namespace kavelo {

// What the dashboard remembers per user: whether they have recorded before, which coach marks are still to
// show, and where the tip card stands. Coach marks are stored as "pending" or "completed" under
// "kavely:coachmark:<name>:v1:<user id>", so a new version of a mark can be shown again.
class DashboardPreferences {
  public:
    struct Education {
        bool firstRecording = false;
        bool processingStatus = false;
        bool reportSettings = false;
        bool operator==(const Education&) const = default;
    };

    explicit DashboardPreferences(std::shared_ptr<KeyValueStore> store);

    // Without a user the account-free flag of an older version counts.
    bool hasRecordedBefore(const std::optional<std::string>& userId) const;
    void markRecorded(const std::string& userId);
    // Sets the marks a user has never seen: pending for a new user, completed for one who has recorded.
    Education initializeEducation(const std::string& userId);
    Education education(const std::string& userId) const;
    void completeEducation(const std::string& userId, const std::string& mark);
    // The tip to show next; each call moves on by one, across restarts.
    int nextTipCursor();

  private:
    static std::string educationKey(const std::string& mark, const std::string& userId);

    const std::shared_ptr<KeyValueStore> store_;
};

} // namespace kavelo
