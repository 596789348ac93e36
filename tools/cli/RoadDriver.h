#pragma once

#include "tools/cli/CliContext.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace kavelo::cli {

// What the user decides after the stop, from options (or asked for at a terminal with --interactive).
struct ReviewChoices {
    std::optional<std::vector<std::string>> speakers; // replaces the names found
    std::optional<int> speakerCount;
    std::vector<std::string> recipients;
    bool includeTranscription = true;
    bool attachWord = false;
    bool interactive = false;
};

// Follows the coordinator for the command line: prints phases, chunks, uploads and warnings as they
// happen, and drives the road after the stop (processing, speaker review, share review, the wait for
// the server and the finalize) with the user's choices.
class RoadDriver {
  public:
    RoadDriver(CliContext& context, ReviewChoices choices);

    // Subscribes to the coordinator; call once, before the start.
    void attach();

    // Observers the composition root puts around the recorder and the upload worker.
    RecorderEventHandlers recorderObservers();
    UploadWorker::EventHandler uploadObserver();

    // Waits until the phase is one of the given ones, a stop is requested, or the time is up; the phase
    // then current.
    RecordingPhase waitForPhase(const std::vector<RecordingPhase>& phases, std::chrono::milliseconds limit);
    // Waits for a stop request or the deadline; true when a stop was requested.
    bool waitForStopOr(std::chrono::steady_clock::time_point deadline);
    void requestStop();
    [[nodiscard]] bool stopRequested() const { return stopRequested_.load(); }

    // Everything from a stopped recording to the end of the road. The exit status: 0 only on success.
    int finishRoad();
    // The last line in JSON mode and the closing line for people.
    void printDone(const std::string& why);

    void printStatusLine();

  private:
    void onPhase(RecordingPhase phase);
    void onWarnings();
    bool reviewSpeakers();
    bool reviewShare();

    CliContext& context_;
    ReviewChoices choices_;
    std::atomic<bool> stopRequested_{false};

    std::mutex mutex_;
    std::condition_variable changed_;
    RecordingPhase phase_ = RecordingPhase::signedOut; // guarded by mutex_
    RecordingWarnings lastWarnings_;                   // guarded by mutex_
    int chunksStored_ = 0;                             // guarded by mutex_
    int chunksUploaded_ = 0;                           // guarded by mutex_
    std::optional<int> lastChunkSequence_;             // guarded by mutex_
    std::optional<double> totalPausedMs_;              // guarded by mutex_; from the manifest at the stop
};

} // namespace kavelo::cli
