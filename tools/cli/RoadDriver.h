#pragma once

#include "tools/cli/CliContext.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
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
//
// Threads: the command's main thread drives; the coordinator's, recorder's and upload worker's threads
// call the observers; the signal watcher calls interrupt(). The finalize runs on a thread of the
// driver's own, so that the main thread can stop waiting for it.
class RoadDriver {
  public:
    // What a Ctrl-C (or SIGTERM) did: the first stops the recording, the next stops waiting for the
    // server (the recording stays on this machine for `recover`), the one after asks to end at once.
    enum class InterruptAction { stop, abandon, exitNow };

    RoadDriver(CliContext& context, ReviewChoices choices);
    ~RoadDriver();
    RoadDriver(const RoadDriver&) = delete;
    RoadDriver& operator=(const RoadDriver&) = delete;

    // Subscribes to the coordinator; call once, before the start.
    void attach();
    // From here on the observers do nothing, and a finalize still running has returned: called before
    // the world is torn down around them.
    void detach();

    // Observers the composition root puts around the recorder and the upload worker.
    RecorderEventHandlers recorderObservers();
    UploadWorker::EventHandler uploadObserver();

    // Waits for a stop request or the deadline; true when a stop was requested.
    bool waitForStopOr(std::chrono::steady_clock::time_point deadline);
    InterruptAction interrupt();
    // The recording is over (stopped or left behind by another run): a Ctrl-C now stops the waiting.
    void markPastStop();

    // Everything from a stopped recording to the end of the road; the exit status.
    int finishRoad();
    // A recording that failed to finalize, asked for again; the exit status.
    int retryRoad();
    // The last line in JSON mode and the closing line for people.
    void printDone(const std::string& why);
    // How the road ends when it does not end in "sent": what is still on this machine and the status
    // that says so (exitKeptNotSent while the recording waits here for `recover`, else exitFailure).
    int endWithoutSending(const std::string& why);

    void printStatusLine();

  private:
    void onPhase(RecordingPhase phase);
    void onWarnings();
    RecordingPhase waitForPhase(const std::vector<RecordingPhase>& phases, std::chrono::milliseconds limit);
    [[nodiscard]] bool abandoned() const;
    bool reviewSpeakers();
    bool prepareShare();
    void runInBackground(std::function<void()> work);
    int awaitFinalize();
    std::string text(const std::string& english, const std::string& dutch) const {
        return context_.text(english, dutch);
    }

    CliContext& context_;
    ReviewChoices choices_;
    std::atomic<bool> detached_{false};
    std::thread background_; // the finalize; joined before the road ends

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    RecordingPhase phase_ = RecordingPhase::signedOut; // guarded by mutex_
    RecordingWarnings lastWarnings_;                   // guarded by mutex_
    int chunksStored_ = 0;                             // guarded by mutex_
    int chunksUploaded_ = 0;                           // guarded by mutex_
    std::optional<int> lastChunkSequence_;             // guarded by mutex_
    std::optional<double> totalPausedMs_;              // guarded by mutex_; from the manifest at the stop
    bool stopRequested_ = false;                       // guarded by mutex_
    bool pastStop_ = false;                            // guarded by mutex_
    bool abandoned_ = false;                           // guarded by mutex_
    bool backgroundDone_ = false;                      // guarded by mutex_
    std::optional<RecordingCoordinator::SubmitOutcome> submitOutcome_; // guarded by mutex_
};

} // namespace kavelo::cli
