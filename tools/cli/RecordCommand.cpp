#include "tools/cli/RecordCommand.h"

#include "core/recording/EmailValidator.h"
#include "tools/cli/ObservingRecorder.h"
#include "tools/cli/ObservingUploadWorker.h"
#include "tools/cli/RoadDriver.h"
#include "tools/cli/SignalWatcher.h"

#include <algorithm>
#include <chrono>

namespace kavelo::cli {

namespace {

// The phases in which the meeting is still being recorded or may be resumed; anything else means the
// recording ended by itself (the maximum pause, an unrecoverable error) and the run moves on.
bool stillRecording(RecordingPhase phase) {
    switch (phase) {
    case RecordingPhase::stoppingNativeRecorder:
    case RecordingPhase::processingMapping:
    case RecordingPhase::speakerReview:
    case RecordingPhase::shareReview:
    case RecordingPhase::waitingForUploads:
    case RecordingPhase::finalizing:
    case RecordingPhase::success:
    case RecordingPhase::errorRecoverable:
        return false;
    default:
        return isInActiveSession(phase);
    }
}

using namespace std::chrono_literals;

const std::set<std::string> kReviewValued{"speakers", "speaker-count", "recipients"};
const std::set<std::string> kReviewSwitches{"no-transcription", "attach-word", "interactive"};

ReviewChoices reviewChoices(const CliArguments& args) {
    ReviewChoices choices;
    if (const auto speakers = args.value("speakers")) {
        choices.speakers = splitList(*speakers);
    }
    choices.speakerCount = args.integer("speaker-count", 1, 32);
    if (const auto recipients = args.value("recipients")) {
        choices.recipients = splitList(*recipients);
        for (const auto& address : choices.recipients) {
            if (!EmailValidator::isValid(address)) {
                throw UsageError("'" + address + "' is not an e-mail address");
            }
        }
    }
    choices.includeTranscription = !args.has("no-transcription");
    choices.attachWord = args.has("attach-word");
    choices.interactive = args.has("interactive");
    return choices;
}

std::set<std::string> unite(std::initializer_list<std::set<std::string>> sets) {
    std::set<std::string> all;
    for (const auto& s : sets) {
        all.insert(s.begin(), s.end());
    }
    return all;
}

// Builds the world with the driver's observers around the recorder and the upload worker.
struct Composed {
    std::unique_ptr<CliContext> context;
    std::unique_ptr<RoadDriver> driver;
};

Composed compose(const CliArguments& args, const ReviewChoices& choices) {
    // The driver needs the context and the context's environment needs the driver's observers: the
    // decorators reach the driver through a slot filled right after.
    auto slot = std::make_shared<RoadDriver*>(nullptr);
    AppEnvironment::Options options;
    options.decorateRecorder =
        [slot](std::shared_ptr<NativeRecorder> inner) -> std::shared_ptr<NativeRecorder> {
        RecorderEventHandlers forward;
        forward.onAudioChunk = [slot](const AudioChunkEvent& e) {
            if (*slot) {
                (*slot)->recorderObservers().onAudioChunk(e);
            }
        };
        forward.onAudioError = [slot](const AudioErrorEvent& e) {
            if (*slot) {
                (*slot)->recorderObservers().onAudioError(e);
            }
        };
        return std::make_shared<ObservingRecorder>(std::move(inner), forward);
    };
    options.decorateUploader = [slot](std::shared_ptr<UploadWorker> inner) -> std::shared_ptr<UploadWorker> {
        return std::make_shared<ObservingUploadWorker>(std::move(inner), [slot](const NativeUploadEvent& e) {
            if (*slot) {
                (*slot)->uploadObserver()(e);
            }
        });
    };
    Composed composed;
    composed.context = std::make_unique<CliContext>(args, true, std::move(options));
    composed.driver = std::make_unique<RoadDriver>(*composed.context, choices);
    *slot = composed.driver.get();
    composed.driver->attach();
    return composed;
}

std::string blockerText(const StartBlocker& blocker) {
    switch (blocker.kind()) {
    case StartBlocker::Kind::backend:
        return blocker.text();
    case StartBlocker::Kind::signedOut:
        return "nobody is signed in";
    case StartBlocker::Kind::updateRequired:
        return "this version must be updated before it may record";
    case StartBlocker::Kind::microphonePermission:
        return "the audio server does not let us use the microphone";
    case StartBlocker::Kind::systemAudioPermission:
        return "the audio server does not let us capture system audio (try --system-audio off)";
    case StartBlocker::Kind::audioDeviceMissing:
        return "no microphone found";
    case StartBlocker::Kind::offline:
        return "no network: the recording could not be created on the server";
    case StartBlocker::Kind::insufficientDiskSpace:
        return "less than 700 MiB free in the data directory";
    }
    return "the start was refused";
}

} // namespace

const char* RecordCommand::help() {
    return R"(Usage: kavelo-cli record [options]

Records one meeting: signs in, starts a recording, records until the duration has passed or
Ctrl-C (SIGINT) or SIGTERM arrives, stops, shows the speakers the backend found, and asks the
backend for the report. Chunks are uploaded while the meeting runs; none is deleted before the
server holds it.

Options:
  --meeting NAME            name of the meeting
  --duration SECONDS        stop by itself after this many seconds (default: until Ctrl-C)
  --pause-at SECONDS        pause at this second from the start...
  --resume-at SECONDS       ...and resume at this one (both needed)
  --mic ID                  microphone id (see: kavelo-cli devices); default: the system's default
  --system-audio MODE       off, system (default) or app
  --app ID                  with --system-audio app: the application to capture (see devices)
  --language nl|en          language of the report (default nl)
  --speakers "A, B"         the speakers' names, replacing those found
  --speaker-count N         number of speakers (1-32)
  --recipients "a@x.nl, b@y.nl"  who gets the report besides you
  --no-transcription        leave the transcription out of the report mail
  --attach-word             attach the report as a Word document
  --interactive             ask for speakers and recipients when standard input is a terminal
  --json                    one JSON object per line: phase, chunk, upload, warning, processing,
                            speakers, success and, last, done
  --session-file PATH       keep the session in this file (readable by you alone) instead of the
                            Secret Service; for machines without one
  --verbose                 all log lines on standard error, not only warnings and errors

The world comes from the environment: KAVELO_BACKEND=mock runs against the in-process mock
backend with its demo account; KAVELO_RECORDER=mock there records from the mock recorder instead
of the audio server. Exit status 0 only when the report was requested.
)";
}

int RecordCommand::run(const std::vector<std::string>& rawArgs) {
    const CliArguments args(
        rawArgs,
        unite({{"meeting", "duration", "pause-at", "resume-at", "mic", "system-audio", "app", "language"},
               kReviewValued,
               CliContext::sessionOptions()}),
        unite({CliContext::commonSwitches(), kReviewSwitches}));
    const auto duration = args.number("duration", 1, 24 * 3600);
    const auto pauseAt = args.number("pause-at", 0, 24 * 3600);
    const auto resumeAt = args.number("resume-at", 0, 24 * 3600);
    if (pauseAt.has_value() != resumeAt.has_value()) {
        throw UsageError("--pause-at and --resume-at go together");
    }
    if (pauseAt && *resumeAt <= *pauseAt) {
        throw UsageError("--resume-at must come after --pause-at");
    }
    const std::string systemAudio = args.choice("system-audio", {"off", "system", "app"}, "system");
    if (systemAudio == "app" && !args.value("app")) {
        throw UsageError("--system-audio app needs --app ID (see: kavelo-cli devices)");
    }
    const std::string language = args.choice("language", {"nl", "en"}, "nl");
    const ReviewChoices choices = reviewChoices(args);

    auto composed = compose(args, choices);
    CliContext& context = *composed.context;
    RoadDriver& driver = *composed.driver;
    auto& env = context.env();
    SignalWatcher signals([&driver](int) { driver.requestStop(); });

    context.printer().say("Kavely " + env.config.appVersion + ", " + context.describeWorld() + ", data in " +
                          env.config.applicationSupportDirectory.string());
    const auto session = context.signIn();
    if (!session) {
        driver.printDone("nobody is signed in");
        return 2;
    }
    if (const auto pending = env.recoveryStore->load()) {
        context.printer().error("an earlier recording (" + pending->recordingId +
                                ") was not finished; run kavelo-cli recover first, so that it is not lost");
        driver.printDone("an earlier recording waits to be recovered");
        return 3;
    }

    PreflightContext preflight;
    preflight.user = session->user;
    preflight.userName = userNameOf(session->user);
    preflight.meetingName = args.value("meeting");
    preflight.outputLanguage = language;
    preflight.systemAudioMode = fromRaw<SystemAudioMode>(systemAudio).value_or(SystemAudioMode::system);
    preflight.systemAudioTargetId = args.value("app");
    if (const auto mic = args.value("mic")) {
        preflight.microphoneDeviceId = *mic;
    } else {
        const auto microphones = env.recorder->listMicrophones();
        for (const auto& device : microphones) {
            if (device.isDefault || preflight.microphoneDeviceId.empty()) {
                preflight.microphoneDeviceId = device.id;
            }
        }
    }

    auto& coordinator = *env.coordinator;
    coordinator.startRecording(preflight);
    if (coordinator.phase() != RecordingPhase::recording) {
        const auto blocker = coordinator.startBlocker();
        const std::string why =
            blocker ? blockerText(*blocker)
                    : "the recording did not start (phase " + std::string(toRaw(coordinator.phase())) + ")";
        context.printer().error(why);
        driver.printDone(why);
        return 1;
    }

    // The live part: a status line every second, the pause and resume at their seconds, and the stop
    // at the duration or on a signal.
    const auto start = std::chrono::steady_clock::now();
    auto at = [start](double seconds) {
        return start + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                           std::chrono::duration<double>(seconds));
    };
    bool paused = false;
    bool resumed = false;
    auto nextStatus = start + 1s;
    while (true) {
        auto deadline = nextStatus;
        if (duration) {
            deadline = std::min(deadline, at(*duration));
        }
        if (pauseAt && !paused) {
            deadline = std::min(deadline, at(*pauseAt));
        }
        if (resumeAt && paused && !resumed) {
            deadline = std::min(deadline, at(*resumeAt));
        }
        if (driver.waitForStopOr(deadline)) {
            context.printer().say("Stopping...");
            break;
        }
        const auto now = std::chrono::steady_clock::now();
        const auto phase = coordinator.phase();
        if (!stillRecording(phase)) {
            break; // the recording ended by itself (maximum pause, an unrecoverable error)
        }
        if (duration && now >= at(*duration)) {
            break;
        }
        if (pauseAt && !paused && now >= at(*pauseAt)) {
            paused = true;
            coordinator.pauseRecording();
        }
        if (resumeAt && paused && !resumed && now >= at(*resumeAt)) {
            resumed = true;
            coordinator.resumeRecording();
        }
        if (now >= nextStatus) {
            driver.printStatusLine();
            nextStatus += 1s;
        }
    }

    // The stop, through the same confirmation a person would give.
    if (coordinator.phase() == RecordingPhase::pausedUser) {
        coordinator.stopFromPause();
    } else {
        coordinator.stopTapped();
        coordinator.stopConfirmed();
    }
    return driver.finishRoad();
}

const char* RecoverCommand::help() {
    return R"(Usage: kavelo-cli recover [options]

Finishes a recording that an earlier run left behind (a crash, a power cut, a lost network):
signs in, brings the recording back, stops it if it was still running, and takes it along the
rest of the road like `record` does. Accepts the review options of `record` (--speakers,
--speaker-count, --recipients, --no-transcription, --attach-word, --interactive) and --json,
--session-file, --verbose.
)";
}

const char* RecoverCommand::retryHelp() {
    return R"(Usage: kavelo-cli retry [options]

Asks again for the report of a recording that stopped with a recoverable error (for instance the
server did not receive every chunk in time). Same options as `recover`.
)";
}

int RecoverCommand::run(const std::vector<std::string>& rawArgs, bool retryOnly) {
    const CliArguments args(rawArgs, unite({kReviewValued, CliContext::sessionOptions()}),
                            unite({CliContext::commonSwitches(), kReviewSwitches}));
    const ReviewChoices choices = reviewChoices(args);
    auto composed = compose(args, choices);
    CliContext& context = *composed.context;
    RoadDriver& driver = *composed.driver;
    SignalWatcher signals([&driver](int) { driver.requestStop(); });
    const auto session = context.signIn();
    if (!session) {
        driver.printDone("nobody is signed in");
        return 2;
    }
    auto& coordinator = *context.env().coordinator;
    const auto decision = coordinator.recoverIfNeeded(session->user, userNameOf(session->user));
    using Kind = RecordingCoordinator::RecoveryDecisionKind;
    switch (decision.kind) {
    case Kind::none:
        context.printer().say("Nothing to recover.");
        driver.printDone(retryOnly ? "no recording to retry" : "");
        return retryOnly ? 1 : 0;
    case Kind::finishedFinalize:
        context.printer().say("The report of the recording left behind had been requested; the server has it "
                              "and the local copy was removed.");
        driver.printDone("");
        return 0;
    case Kind::discardedEmpty:
        context.printer().say(
            "The recording left behind was cut off before its first chunk; nothing of it was kept.");
        driver.printDone("the recording left behind ended before its first chunk; nothing to send");
        return retryOnly ? 1 : 0;
    case Kind::deferred:
        context.printer().error("the server could not be reached to finish the recording left behind; "
                                "the recording stays on this machine, try again with: kavelo-cli recover");
        driver.printDone("the server could not be reached");
        return 1;
    case Kind::resumedActive:
        context.printer().say("A recording was still running when the last run ended; stopping it now.");
        if (coordinator.phase() == RecordingPhase::pausedUser) {
            coordinator.stopFromPause();
        } else {
            coordinator.stopTapped();
            coordinator.stopConfirmed();
        }
        break;
    case Kind::openedFinalizeFlow:
        context.printer().say("A stopped recording was waiting for its report.");
        break;
    }
    if (retryOnly && coordinator.canRetryFinalize() &&
        coordinator.phase() == RecordingPhase::errorRecoverable) {
        coordinator.retryFinalize();
    }
    return driver.finishRoad();
}

} // namespace kavelo::cli
