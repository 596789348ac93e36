#pragma once

#include "core/backend/DiagnosticsPayload.h"
#include "core/backend/FinalizePayload.h"
#include "core/backend/MeetingMappingRow.h"
#include "core/support/Clock.h"
#include "core/support/Task.h"
#include "core/support/Time.h"

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kavelo {

// The in-memory record of what a server would hold on the recording road, shared by the mock services of
// mock mode: recordings and their meetings, chunks that reached mock storage, finalize requests and
// diagnostics syncs. Every field is guarded by mutex_; the mock services change it only through these
// operations, each of which is atomic.
//
// Mapping results arrive later, as on the real server: scheduleMapping starts a task that sleeps on the
// backend's clock. Those tasks hold the backend weakly, and the backend cancels and joins them when it goes.
// Create it with std::make_shared.
class MockBackend : public std::enable_shared_from_this<MockBackend> {
  public:
    struct Meeting {
        std::string meetingId;
        std::vector<std::string> participants;
        std::optional<std::string> status;
        bool operator==(const Meeting&) const = default;
    };
    struct DiagnosticSync {
        std::string recordingId;
        DiagnosticsPayload payload;
        bool operator==(const DiagnosticSync&) const = default;
    };
    struct CreatedRecording {
        std::string recordingId;
        std::string meetingId;
    };

    explicit MockBackend(std::shared_ptr<Clock> clock);
    ~MockBackend();
    MockBackend(const MockBackend&) = delete;
    MockBackend& operator=(const MockBackend&) = delete;

    [[nodiscard]] const std::shared_ptr<Clock>& clock() const { return clock_; }

    // A new random (version 4) UUID in lower-case text, for the identifiers that the mock server invents.
    static std::string uuidText();

    // A new recording "rec_mock_<n>_<8 characters of a UUID>" with its meeting (a lower-case UUID), no
    // participants, no status and no chunks.
    CreatedRecording createRecording();
    [[nodiscard]] int recordingCounter() const;

    // A chunk reached storage. The folder, as it stands in the storage path, names the recording either as
    // its id or as its id with "/" and ":" replaced by "_"; a folder that names no known recording becomes a
    // key of its own.
    void recordUpload(const std::string& folder, int sequence);
    // The sequences stored for a recording; empty when it is unknown.
    [[nodiscard]] std::set<int> uploadedChunks(const std::string& recordingId) const;

    // Appends the request and notes its time by the clock.
    void recordFinalize(const FinalizePayload& payload);
    [[nodiscard]] std::vector<FinalizePayload> finalized() const;
    [[nodiscard]] std::optional<TimePoint> finalizedAt(const std::string& recordingId) const;

    void recordDiagnosticSync(const std::string& recordingId, const DiagnosticsPayload& payload);
    [[nodiscard]] std::vector<DiagnosticSync> diagnosticSyncs() const;

    [[nodiscard]] std::optional<Meeting> meeting(const std::string& recordingId) const;
    [[nodiscard]] std::optional<std::string> meetingId(const std::string& recordingId) const;
    // The recording whose meeting has that id; absent for an unknown meeting.
    [[nodiscard]] std::optional<std::string> recordingIdForMeeting(const std::string& meetingId) const;
    // The mapping state of the meeting with that id; empty for an unknown meeting.
    [[nodiscard]] MeetingMappingRow mappingRow(const std::string& meetingId) const;

    // After mappingDelay seconds on the clock, every meeting with that id gets mappingNames as participants
    // and the status "done".
    void scheduleMapping(const std::string& meetingId);
    // Waits until every scheduled mapping has finished (or, on a clock that never moves, been cancelled).
    void settle();

    [[nodiscard]] std::vector<std::string> mappingNames() const;
    void setMappingNames(std::vector<std::string> names);
    [[nodiscard]] double mappingDelay() const;
    void setMappingDelay(double seconds);

  private:
    void completeMapping(const std::string& meetingId);

    const std::shared_ptr<Clock> clock_;
    mutable std::mutex mutex_;
    std::map<std::string, std::set<int>> uploadedChunks_; // guarded by mutex_
    std::map<std::string, Meeting> meetings_;             // by recording id; guarded by mutex_
    std::vector<FinalizePayload> finalized_;              // arrival order; guarded by mutex_
    std::map<std::string, TimePoint> finalizedAt_;        // guarded by mutex_
    std::vector<DiagnosticSync> diagnosticSyncs_;         // guarded by mutex_
    std::vector<std::string> mappingNames_{"Sanne de Vries", "Joris Bakker"}; // guarded by mutex_
    double mappingDelay_ = 1.0;                                               // guarded by mutex_
    int recordingCounter_ = 0;                                                // guarded by mutex_
    std::vector<Task> mappingTasks_;                                          // guarded by mutex_
};

} // namespace kavelo
