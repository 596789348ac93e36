#pragma once

#include "core/recording/RecoveryStore.h"

#include <cstddef>
#include <filesystem>

namespace kavelo {

// The manifest of the recording in progress as the file "active_recording.json" in the application's data
// directory. Writes are atomic and durable, and the file is readable by the user alone: it holds the
// recording's secret.
//
// The file is untrusted on reading. Anything but a regular file of sensible size that decodes to a manifest
// with a usable recording id reads as absent and is left where it is; the next save replaces it.
//
// Thread-safety: any thread. The object holds nothing that changes, so it needs no lock: each save lands
// whole through a rename, and the order of two saves from two threads is the order of their renames.
class FileRecoveryStore final : public RecoveryStore {
  public:
    static constexpr const char* fileName = "active_recording.json";
    // A manifest is a few hundred bytes, or some tens of kilobytes with the report request and its
    // diagnostics; a file far larger than that is not ours.
    static constexpr std::size_t maxFileBytes = 1024 * 1024;

    // Creates directory (0700 for new levels) and its parents; a failure shows later as absent loads and
    // failing saves.
    explicit FileRecoveryStore(const std::filesystem::path& directory);

    [[nodiscard]] const std::filesystem::path& url() const { return url_; }

    [[nodiscard]] std::optional<RecordingManifest> load() override;
    void save(const RecordingManifest& manifest) override;
    void clear() override;

  private:
    const std::filesystem::path url_;
};

} // namespace kavelo
