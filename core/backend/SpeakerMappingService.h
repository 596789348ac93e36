#pragma once

#include "core/backend/RecordingAPI.h"
#include "core/support/Clock.h"

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kavelo {

// Gets the names of a meeting's participants from the backend while the user reviews the recording: finds
// the meeting of a recording, asks once for the early mapping of a short recording, and polls the meeting
// row until names appear, a terminal status has had its grace, the deadline passes, or the flow is aborted.
// It never throws: every end is an Outcome.
//
// Thread-safety: every member may be called from any thread. The entries run on the caller's task; abort()
// and the resets may come from another thread while a poll runs. mutex_ is held only for the three flags,
// never across a backend call or a sleep.
class SpeakerMappingService {
  public:
    struct Config {
        double onDemandThresholdSeconds = 600; // read by the coordinator: from here on the long path
        double longPollInterval = 2;
        double longPollDeadline = 10;
        double onDemandUploadWait = 12; // read by the coordinator: uploads settle before the trigger
        double onDemandPollInterval = 1.5;
        double onDemandPollDeadline = 15;
        int gracePolls = 2; // further polls after a terminal status without names
    };

    struct Outcome {
        enum class Kind { names, none, aborted };
        Kind kind = Kind::aborted;
        std::vector<std::string> names; // never empty for names
        std::string reason; // for none: "meeting_not_found", "timeout", "failed", a server text...

        static Outcome withNames(std::vector<std::string> names) {
            return {Kind::names, std::move(names), {}};
        }
        static Outcome none(std::string reason) { return {Kind::none, {}, std::move(reason)}; }
        static Outcome aborted() { return {Kind::aborted, {}, {}}; }

        // names(["Anne", "Bram"]), none(reason: "timeout"), aborted: the form behind "mapping outcome: ".
        [[nodiscard]] std::string description() const;
        bool operator==(const Outcome&) const = default;
    };

    SpeakerMappingService(std::shared_ptr<RecordingAPI> api, std::shared_ptr<Clock> clock, Config config);
    // With the defaults, which the live system uses unchanged.
    SpeakerMappingService(std::shared_ptr<RecordingAPI> api, std::shared_ptr<Clock> clock);

    [[nodiscard]] const Config& config() const { return config_; }

    // For a recording whose mapping the backend starts by itself: no trigger, only the poll.
    Outcome pollLongRecordingMapping(const std::string& recordingId);
    // Sends the trigger (at most once per recording), then polls.
    Outcome runOnDemandMapping(const std::string& recordingId);

    // The meeting of a recording, cached once known; absent (and not cached) when there is none yet or the
    // look-up failed.
    std::optional<std::string> resolveMeetingId(const std::string& recordingId);
    // Polls the meeting row: the first round at once, then every interval seconds until deadline has passed.
    Outcome poll(const std::string& meetingId, double interval, double deadline);

    // Every running poll ends at its next round at the latest; a sleeping one when its sleep ends or its
    // task is cancelled. Stays in force until one of the resets.
    void abort();
    // A new stop of the same recording: lifts abort() only, so a resumed flow neither triggers twice nor
    // looks the meeting up twice.
    void resetForNewStopFlow();
    // A different recording: lifts abort(), allows a new trigger and forgets the meeting.
    void resetForNewRecording();

  private:
    [[nodiscard]] bool isAborted() const;

    const std::shared_ptr<RecordingAPI> api_;
    const std::shared_ptr<Clock> clock_;
    const Config config_;

    mutable std::mutex mutex_;
    bool abortFlag_ = false;                     // guarded by mutex_
    bool didPostOnDemand_ = false;               // guarded by mutex_
    std::optional<std::string> cachedMeetingId_; // guarded by mutex_
};

} // namespace kavelo
