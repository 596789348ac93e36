#pragma once

#include "core/support/Clock.h"
#include "tools/devserver/Recording.h"
#include "tools/devserver/SnapshotWriter.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace kavelo {

// How the stand-in's pretend backend pipeline behaves around a recording.
struct PipelineSettings {
    double meetingRowDelay = 0.5; // seconds from init-recording until the `meetings` row can be read
    double mappingDelay = 1.0;    // seconds from the mapping trigger until its result shows in the row
    std::vector<std::string> mappingNames = {"Anna de Vries", "Bram Jansen"};
    std::string mappingOutcome = "done"; // "done", "skipped" or "failed": the status mapping ends with
    // Seconds a finalized recording spends processing, then completed, before it reads as sent.
    double statusStep = 5.0;

    bool operator==(const PipelineSettings&) const = default;
};

// Every recording the stand-in knows, with its `meetings` row, finalize requests and diagnostic syncs.
// The state is written through to a file, so a restarted server still knows each recording's secret.
//
// Thread-safety: any thread. The mutex guards the map, the settings and the version; the file is written
// by the SnapshotWriter after the mutex is released.
class RecordingStore {
  public:
    enum class SecretCheck { ok, unknownRecording, wrongSecret };
    struct MappingAnswer {
        int status = 200;
        Json body;
    };

    RecordingStore(std::shared_ptr<Clock> clock, const std::filesystem::path& stateFile,
                   PipelineSettings settings);

    // Fills in what the draft leaves empty: id, secret and meeting id are made up, times set from now.
    Recording create(Recording draft);
    [[nodiscard]] std::optional<Recording> find(const std::string& id) const;
    [[nodiscard]] std::vector<Recording> all() const;
    [[nodiscard]] SecretCheck checkSecret(const std::string& id, const std::string& secret) const;

    // The `meetings` rows that exist by now.
    [[nodiscard]] std::vector<Json> meetingRows() const;
    // The early mapping trigger for a meeting of the given user; hasAudio tells whether storage holds any
    // chunk of the recording.
    MappingAnswer startMapping(const std::string& meetingId, const std::string& userId,
                               const std::function<bool(const std::string& recordingId)>& hasAudio);
    // Writes participants and status at once, as a backend job would. False for an unknown meeting.
    bool setMapping(const std::string& meetingId, const std::vector<std::string>& participants,
                    const std::optional<std::string>& status);

    // first: the recording's first report request; again: another one; repeat: the idempotency key was
    // taken before, so nothing is added but the count of repeats.
    enum class FinalizeBooking { first, again, repeat, unknownRecording };
    FinalizeBooking addFinalizeRequest(const std::string& id, const Json& payload,
                                       const std::string& idempotencyKey);
    bool addDiagnosticSync(const std::string& id, const Json& payload);
    // The get_recording_status rows of a meeting of the given user: one row, or none for a meeting that
    // does not exist (yet) or belongs to someone else.
    [[nodiscard]] Json recordingStatus(const std::string& meetingId, const std::string& userId) const;

    [[nodiscard]] PipelineSettings settings() const;
    void setSettings(const PipelineSettings& settings);

  private:
    // Call with the lock held after a change; releases it, then waits until the change is on disk.
    void persist(std::unique_lock<std::mutex>& lock);
    Recording* findByMeetingLocked(const std::string& meetingId);

    const std::shared_ptr<Clock> clock_;
    SnapshotWriter writer_;
    mutable std::mutex mutex_;
    std::map<std::string, Recording> recordings_; // guarded by mutex_
    PipelineSettings settings_;                   // guarded by mutex_
    std::uint64_t version_ = 0;                   // guarded by mutex_
};

} // namespace kavelo
