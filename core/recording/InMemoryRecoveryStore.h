#pragma once

#include "core/recording/RecoveryStore.h"

#include <mutex>

namespace kavelo {

// A recovery store for tests and tools: nothing survives the process. Safe from any thread.
class InMemoryRecoveryStore final : public RecoveryStore {
  public:
    [[nodiscard]] std::optional<RecordingManifest> load() override;
    void save(const RecordingManifest& manifest) override;
    void clear() override;

  private:
    std::mutex mutex_;
    std::optional<RecordingManifest> manifest_; // guarded by mutex_
};

} // namespace kavelo
