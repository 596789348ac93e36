#include "core/recording/InMemoryRecoveryStore.h"

namespace kavelo {

std::optional<RecordingManifest> InMemoryRecoveryStore::load() {
    std::lock_guard lock(mutex_);
    return manifest_;
}

void InMemoryRecoveryStore::save(const RecordingManifest& manifest) {
    std::lock_guard lock(mutex_);
    manifest_ = manifest;
}

void InMemoryRecoveryStore::clear() {
    std::lock_guard lock(mutex_);
    manifest_.reset();
}

} // namespace kavelo
