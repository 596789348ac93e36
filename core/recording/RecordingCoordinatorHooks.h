#pragma once

#include "core/backend/FinalizeRecipient.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kavelo {

// What the coordinator asks of the application. Any hook may be left empty: an empty isUpdateRequired
// answers false, the two text hooks answer nothing, and an empty onFinalizeSuccess is skipped. Hooks are
// called on the coordinator's tasks, never with its lock held.
struct RecordingCoordinatorHooks {
    std::function<bool()> isUpdateRequired;
    // Fills the host row of the speaker list.
    std::function<std::optional<std::string>()> currentProfileName;
    // The bearer token for the upload worker and the recorder; never logged.
    std::function<std::optional<std::string>()> currentAccessToken;
    // After a successful finalize: meeting name, participants, recipients.
    std::function<void(const std::optional<std::string>&, const std::vector<std::string>&,
                       const std::vector<FinalizeRecipient>&)>
        onFinalizeSuccess;
};

} // namespace kavelo
