#pragma once

#include "core/backend/FinalizeService.h"
#include "core/backend/RecordingAPI.h"
#include "core/backend/SpeakerMappingService.h"
#include "core/recording/DiagnosticsCollector.h"
#include "core/recording/NativeRecorder.h"
#include "core/recording/PreflightContext.h"
#include "core/recording/ProcessingLine.h"
#include "core/recording/RecordingCoordinatorHooks.h"
#include "core/recording/RecordingStateMachine.h"
#include "core/recording/RecordingWarnings.h"
#include "core/recording/RecoveryStore.h"
#include "core/recording/ShareComposer.h"
#include "core/recording/SpeakerListModel.h"
#include "core/recording/StartBlocker.h"
#include "core/recording/SuccessSummary.h"
#include "core/support/AppConfig.h"
#include "core/support/Clock.h"
#include "core/support/CoreLogger.h"
#include "core/support/Task.h"
#include "core/transport/ChunkStore.h"
#include "core/transport/UploadWorker.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kavelo {

// Runs one recording at a time from the start tap to the report's hand-over: owns the state machine and
// drives the recorder, the upload queue, the backend, the mapping and finalize services and the recovery
// store. It has no user interface; observers learn of every change.
//
// Every phase change goes through the state machine; an event that does not apply changes nothing. No
// operation throws: a flow ends in a phase, a start blocker or a log line. Long operations (start, pause,
// resume, stop, share, recovery) block the calling thread until their step is done; callers run them off
// the user interface thread.
//
// Thread-safety: any thread. One mutex guards every mutable field; it is never held across a call to a
// collaborator, a hook, an observer, or a sleep. The coordinator's own tasks hold it weakly and are
// cancelled and joined when it goes away. Create it with create().
class RecordingCoordinator : public std::enable_shared_from_this<RecordingCoordinator> {
  public:
    struct Timings {
        double noFirstChunkWarning = 30.0;
        double processingMin = 1.5;
        double processingMax = 15.0;
        double processingChunkFailsafe = 8.0;
        double processingPhase1Delay = 0.75;
        double processingPhase3Delay = 0.45;
        double processingOpenDelay = 0.35;
        double heartbeatInterval = 60.0;
        double maxPause = 7200.0;
        double onDemandUploadWait = 12.0;
        double longRecordingThreshold = 600.0;
        std::int64_t minDiskBytes = 734003200; // 700 MiB
        std::int64_t lowDiskBytes = 104857600; // 100 MiB, about two hours of audio: warn while recording
    };

    struct Services {
        AppConfig config;
        std::shared_ptr<RecordingAPI> api;
        std::shared_ptr<NativeRecorder> recorder;
        std::shared_ptr<UploadWorker> uploader;
        std::shared_ptr<ChunkStore> chunkStore;
        std::shared_ptr<RecoveryStore> recoveryStore;
        std::shared_ptr<SpeakerMappingService> mapping;
        std::shared_ptr<FinalizeService> finalizeService;
        std::shared_ptr<DiagnosticsCollector> diagnostics;
        std::shared_ptr<Clock> clock;
        std::shared_ptr<CoreLogger> logger;
    };

    // The user interface's running clock: the time between start and pausedAt, or now without one.
    struct TimerAnchor {
        TimePoint start;
        std::optional<TimePoint> pausedAt;
        bool operator==(const TimerAnchor&) const = default;
    };

    // discardedEmpty: the earlier process died before its first chunk and before its journal held audio, so
    // nothing of it exists to report on. deferred: the server could not be asked (which chunks it holds, or
    // to take the report request again); the manifest stays for the next sign-in. finishedFinalize: the
    // earlier process had sent the report request; it has been confirmed with the server and the local copy
    // removed.
    enum class RecoveryDecisionKind {
        resumedActive,
        none,
        openedFinalizeFlow,
        discardedEmpty,
        deferred,
        finishedFinalize
    };
    struct RecoveryDecision {
        RecoveryDecisionKind kind = RecoveryDecisionKind::none;
        bool paused = false; // for resumedActive
        static RecoveryDecision resumedActive(bool paused) {
            return {RecoveryDecisionKind::resumedActive, paused};
        }
        static RecoveryDecision none() { return {}; }
        static RecoveryDecision openedFinalizeFlow() {
            return {RecoveryDecisionKind::openedFinalizeFlow, false};
        }
        static RecoveryDecision discardedEmpty() { return {RecoveryDecisionKind::discardedEmpty, false}; }
        static RecoveryDecision deferred() { return {RecoveryDecisionKind::deferred, false}; }
        static RecoveryDecision finishedFinalize() { return {RecoveryDecisionKind::finishedFinalize, false}; }
        bool operator==(const RecoveryDecision&) const = default;
    };

    // The answer of submitShare: a press that committed typed addresses, found a bad one, found no
    // network, or started the send.
    enum class SubmitOutcome { committedPendingInput, invalidPendingInput, offline, started };

    using PhaseObserver = std::function<void(RecordingPhase)>;
    using TickObserver = std::function<void()>;

    // Builds the coordinator and wires the recorder's and the uploader's events to it. The machine starts
    // in signedOut.
    static std::shared_ptr<RecordingCoordinator> create(Services services, RecordingCoordinatorHooks hooks,
                                                        Timings timings);
    static std::shared_ptr<RecordingCoordinator> create(Services services, RecordingCoordinatorHooks hooks);
    ~RecordingCoordinator();
    RecordingCoordinator(const RecordingCoordinator&) = delete;
    RecordingCoordinator& operator=(const RecordingCoordinator&) = delete;

    // Observers are kept for the coordinator's life and called in registration order, outside the lock,
    // on whatever thread made the change. A phase observer hears every accepted event, also one that ends
    // in the same phase; a tick says that something other than the phase may have changed.
    void onPhaseChange(PhaseObserver observer);
    void onTick(TickObserver observer);

    // Read-only state, each a consistent copy.
    [[nodiscard]] RecordingPhase phase() const;
    [[nodiscard]] RecordingWarnings warnings() const;
    [[nodiscard]] ProcessingLine processingLine() const;
    [[nodiscard]] std::optional<StartBlocker> startBlocker() const;
    [[nodiscard]] std::optional<SuccessSummary> successSummary() const;
    [[nodiscard]] std::vector<int> missingChunks() const;
    [[nodiscard]] std::optional<std::string> currentRecordingId() const;
    [[nodiscard]] bool isMappingInFlight() const;
    [[nodiscard]] std::string outputLanguage() const;
    // Active time: wall time since the start minus every pause, the running one included.
    [[nodiscard]] int elapsedActiveSeconds() const;
    [[nodiscard]] std::optional<TimerAnchor> timerAnchor() const;
    [[nodiscard]] SpeakerListModel speakerList() const;
    [[nodiscard]] ShareComposer share() const;
    [[nodiscard]] std::optional<std::string> selectedTemplateId() const;
    void setSelectedTemplateId(std::optional<std::string> templateId);
    // Chunk books of the current recording: what the recorder reported, what is known to be on the server,
    // and the final chunk's number once stopped.
    [[nodiscard]] std::vector<int> receivedSequences() const;
    [[nodiscard]] std::vector<int> uploadedSequences() const;
    [[nodiscard]] std::optional<int> lastSequence() const;

    // Session.
    void sessionDidSignIn();
    // Ends the coordinator's tasks and aborts mapping and finalize; a running recorder is left running.
    void sessionDidSignOut();
    void updateOutputLanguage(const std::string& language);

    // Start and stop.
    void startRecording(const PreflightContext& context);
    void stopTapped();
    void stopCancelled();
    void stopConfirmed();

    // What the recorder and the upload worker report; any thread.
    void ingest(const AudioChunkEvent& chunk);
    void ingest(const RecorderStateChange& stateChange);
    void ingest(const AudioErrorEvent& audioError);
    void ingest(const NativeUploadEvent& uploadEvent);

    // The live session.
    void pauseRecording();
    void resumeRecording();
    void stopFromPause();
    void switchMicrophone(const std::string& deviceId);
    void switchOutput(const std::string& deviceId);
    void switchSystemAudio(SystemAudioMode mode, const std::optional<std::string>& targetId);

    // Speaker review. The mutation works on a copy and is stored only when nothing else changed the list
    // meanwhile (otherwise it runs again on the fresh copy), so it must be a pure edit of its argument.
    void updateSpeakers(const std::function<void(SpeakerListModel&)>& mutation);
    void confirmSpeakers();
    void backToSpeakerReview();

    // Share review; the mutation follows the same rule as updateSpeakers.
    void updateShare(const std::function<void(ShareComposer&)>& mutation);
    // A first press commits what was typed; a press with nothing to commit runs the finalize pipeline to
    // its end: wait until the server holds every chunk, ask for the report, then erase the recording here.
    SubmitOutcome submitShare(bool isOnline);
    // Only a stopped recording can be finalised again; otherwise the retry is refused and the error stays.
    [[nodiscard]] bool canRetryFinalize() const;
    void retryFinalize();
    void dismissToIdle();

    // After a sign-in: brings back a recording that a previous process left behind.
    RecoveryDecision recoverIfNeeded(const AuthUser& user, const std::string& userName);

  private:
    RecordingCoordinator(Services services, RecordingCoordinatorHooks hooks, Timings timings);
    void wireEvents();

    // Shared plumbing (RecordingCoordinator.cpp).
    std::optional<RecordingPhase> fire(const RecordingEvent& event);
    void notifyTick();
    void log(LogLevel level, const std::string& message);
    [[nodiscard]] int elapsedActiveSecondsLocked(TimePoint now) const; // with mutex_ held
    [[nodiscard]] double pausedMsLocked(TimePoint now) const;          // with mutex_ held
    // The recovery store's operations; a refusal of the disk is logged as an error, never thrown.
    void saveManifest(const RecordingManifest& manifest);
    void clearManifest();
    void sendDiagnostics(const std::string& recordingId, const std::string& userId,
                         const DiagnosticsCollector::PayloadInput& input);
    static bool sleepAndContinue(Clock& clock, double seconds);
    static double millisecondsBetween(TimePoint from, TimePoint to);
    static std::vector<int> sequencesOf(const std::vector<FailedChunk>& failed);
    // Runs body on a task that holds the coordinator weakly and stores it in slot, cancelling the task
    // that stood there; slot is one of the fields guarded by mutex_.
    void startTask(Task& slot, std::function<void(std::weak_ptr<RecordingCoordinator>)> body);
    void cancelTask(Task& slot);
    void cancelAllTasks();

    // Start (RecordingCoordinatorStart.cpp).
    void setBlocker(StartBlocker blocker);

    // Live session and stop (RecordingCoordinatorLiveSession.cpp).
    void handleChunk(const AudioChunkEvent& event);
    void handleRecorderStateChange(const RecorderStateChange& change);
    void handleAudioError(const AudioErrorEvent& event);
    void handleUploadEvent(const NativeUploadEvent& event);
    void stopAtChunkLimit(int sequence);
    void startNoChunkWatchdog();
    void sendPauseHeartbeat();
    void startHeartbeatLoop();
    void startMaxPauseTimer();
    void saveManifestPauseState(bool isPaused, std::optional<TimePoint> pausedAt, double totalPausedMs);
    void performStop();

    // Processing and review (RecordingCoordinatorReview.cpp).
    void startBackgroundReconciliation();
    void runProcessingSequence();
    void openSpeakerReview();
    void startMappingTask(std::function<SpeakerMappingService::Outcome()> operation);
    std::function<SpeakerMappingService::Outcome()> longMappingPoll();
    std::function<SpeakerMappingService::Outcome()> onDemandMapping();
    void setProcessingLine(ProcessingLine line);

    // Finalize (RecordingCoordinatorFinalize.cpp).
    void runFinalizePipeline();
    void finalizeVerifiedRecording(const std::string& recordingId, int last, const PreflightContext& context);
    // Writes the report request's state into the stored manifest of recordingId, if it is still there.
    void saveFinalizeState(const std::string& recordingId, const FinalizePayload& request, bool accepted);

    // Recovery (RecordingCoordinatorRecovery.cpp).
    PreflightContext recoveredContext(const AuthUser& user, const std::string& userName,
                                      const RecordingManifest& manifest) const;
    // For an active manifest whose capture died with the earlier process: the highest chunk on this disk
    // or on the server; absent when the server could not be asked.
    std::optional<int> lastChunkOfInterruptedCapture(const RecordingManifest& manifest);
    // The chunk numbers on disk that a recording can have.
    [[nodiscard]] std::vector<int> storedChunks(const std::string& recordingId) const;
    // For a manifest that holds a report request: sends it again unless it was accepted, then removes the
    // recording here. Absent when the server refused it and the review must run again.
    std::optional<RecoveryDecision> finishInterruptedFinalize(const RecordingManifest& manifest);
    // Turns the journals an ended process left into chunks; onServer are the chunks known to be there.
    void sealJournalsOfInterruptedRecording(const std::string& recordingId, const std::vector<int>& onServer);

    const AppConfig config_;
    const std::shared_ptr<RecordingAPI> api_;
    const std::shared_ptr<NativeRecorder> recorder_;
    const std::shared_ptr<UploadWorker> uploader_;
    const std::shared_ptr<ChunkStore> chunkStore_;
    const std::shared_ptr<RecoveryStore> recoveryStore_;
    const std::shared_ptr<SpeakerMappingService> mapping_;
    const std::shared_ptr<FinalizeService> finalizeService_;
    const std::shared_ptr<DiagnosticsCollector> diagnostics_;
    const std::shared_ptr<Clock> clock_;
    const std::shared_ptr<CoreLogger> logger_;
    const RecordingCoordinatorHooks hooks_;
    const Timings timings_;

    // The live session's books: its running clock, the chunks the recorder and the uploads reported, the
    // warnings shown while recording and the tasks that supervise the capture and the pause.
    struct LiveSession {
        std::optional<TimePoint> startedAt;
        double totalPausedMs = 0;
        std::optional<TimePoint> pauseStartedAt;
        std::optional<int> lastSequence;
        std::set<int> receivedSequences;
        std::set<int> localUploaded;
        RecordingWarnings warnings;
        Task noChunkWatchdogTask;
        Task heartbeatTask;
        Task maxPauseTask;
        Task autoStopTask; // the stop that the maximum pause starts
    };

    // After the stop: the processing line, the names the backend maps to the speakers, and what the user
    // edits in the speaker and share reviews. A version counts every stored edit of its list.
    struct Review {
        ProcessingLine processingLine = ProcessingLine::secured;
        std::vector<std::string> mappingOutcomeNames;
        bool mappingInFlight = false;
        bool processingOpened = false;
        SpeakerListModel speakerList;
        std::uint64_t speakerListVersion = 0;
        ShareComposer share{std::string()};
        std::uint64_t shareVersion = 0;
        std::optional<std::string> selectedTemplateId;
        Task earlyMappingTask;
        Task processingTask;
        Task preverifyTask;
    };

    // The report request's outcome: the summary on success, the chunks the server lacks on failure.
    struct Finalize {
        std::optional<SuccessSummary> success;
        std::vector<int> missingChunks;
        Task hookTask; // tells the application of a finalized recording; nobody waits for it
    };

    mutable std::mutex mutex_;
    // Everything below is guarded by mutex_.
    RecordingStateMachine machine_{RecordingPhase::signedOut};
    // The current recording, from the start tap until it is dismissed.
    std::optional<PreflightContext> context_;
    std::optional<std::string> recordingId_;
    std::optional<std::string> recordingSecret_; // never logged
    std::optional<StartBlocker> blocker_;        // why the last start did not begin
    LiveSession live_;
    Review review_;
    Finalize finalize_;
    std::vector<Task> startedTasks_; // every task ever started and not yet finished, joined on teardown
    std::vector<PhaseObserver> phaseObservers_;
    std::vector<TickObserver> tickObservers_;
};

} // namespace kavelo
