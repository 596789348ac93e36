#pragma once

#include "core/recording/RecordingManifest.h"

#include <optional>

namespace kavelo {

// Where the manifest of the one recording in progress is kept. Never reports a failure: a damaged or
// missing manifest reads as absent, and a failed write leaves the earlier one standing.
class RecoveryStore {
  public:
    virtual ~RecoveryStore() = default;
    [[nodiscard]] virtual std::optional<RecordingManifest> load() = 0;
    // Replaces what is stored.
    virtual void save(const RecordingManifest& manifest) = 0;
    virtual void clear() = 0;
};

} // namespace kavelo
