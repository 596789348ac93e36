#pragma once

#include "core/support/CoreJSON.h"

#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <thread>

namespace kavelo {

// Keeps one JSON file in step with an in-memory state, durably, without holding the state's lock over
// the disk. The owner numbers its states under its own lock and hands each (version, snapshot) over
// after releasing it; a writer thread puts the newest on disk, and save() returns once that version or a
// newer one is there. Snapshots that arrive out of order never overwrite a newer one.
//
// Thread-safety: any thread. One mutex guards the hand-over; the disk is written outside it.
class SnapshotWriter {
  public:
    explicit SnapshotWriter(std::filesystem::path file);
    ~SnapshotWriter();
    SnapshotWriter(const SnapshotWriter&) = delete;
    SnapshotWriter& operator=(const SnapshotWriter&) = delete;

    // The last snapshot written by an earlier run, or absent when there is none or it does not parse.
    [[nodiscard]] std::optional<Json> load() const;
    // Throws std::runtime_error when the disk refused this version.
    void save(std::uint64_t version, Json snapshot);

  private:
    void run();

    const std::filesystem::path file_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::optional<Json> pending_;      // guarded by mutex_
    std::uint64_t pendingVersion_ = 0; // guarded by mutex_
    std::uint64_t writtenVersion_ = 0; // guarded by mutex_
    std::uint64_t failedVersion_ = 0;  // guarded by mutex_: the newest version whose write failed
    bool stopping_ = false;            // guarded by mutex_
    std::thread thread_;
};

} // namespace kavelo
