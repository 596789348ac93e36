#pragma once

#include "core/recording/RecordingManifest.h"

#include <optional>

namespace kavelo {

// Where the manifest of the one recording in progress is kept. A damaged or missing manifest reads as
// absent. A save or clear that the disk refuses throws std::system_error and leaves the earlier manifest
// standing: the caller must tell that a crash would not bring the recording back as it now stands.
class RecoveryStore {
  public:
    virtual ~RecoveryStore() = default;
    [[nodiscard]] virtual std::optional<RecordingManifest> load() = 0;
    // Replaces what is stored.
    virtual void save(const RecordingManifest& manifest) = 0;
    virtual void clear() = 0;
};

} // namespace kavelo
