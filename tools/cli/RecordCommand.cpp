#include "tools/cli/RecordCommand.h"

#include "core/recording/EmailValidator.h"
#include "tools/cli/AudioCopy.h"
#include "tools/cli/ExitCode.h"
#include "tools/cli/ObservingRecorder.h"
#include "tools/cli/ObservingUploadWorker.h"
#include "tools/cli/RoadDriver.h"

#include <algorithm>
#include <chrono>
#include <cstring>

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

// The world with the driver's observers around the recorder and the upload worker. The world goes first
// at the end: its threads may still report while it winds down, and the driver they report to must then
// still exist (detached, so that it no longer reaches into the world).
struct Composed {
    std::unique_ptr<CliContext> context;
    std::unique_ptr<RoadDriver> driver;

    Composed() = default;
    Composed(Composed&&) = default;
    ~Composed() {
        if (driver) {
            driver->detach();
        }
        context.reset();
        driver.reset();
    }
};

// Ctrl-C and SIGTERM along the road: stop, then stop waiting, then quit at once.
SignalWatcher::Handler interruptHandler(RoadDriver& driver) {
    return [&driver](int, int) {
        if (driver.interrupt() == RoadDriver::InterruptAction::exitNow) {
            std::fflush(nullptr);
            std::_Exit(exitInterrupted);
        }
    };
}

Composed compose(const CliArguments& args, const ReviewChoices& choices,
                 std::shared_ptr<AudioCopy> audioCopy = nullptr) {
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
    options.decorateUploader =
        [slot, audioCopy](std::shared_ptr<UploadWorker> inner) -> std::shared_ptr<UploadWorker> {
        ObservingUploadWorker::ChunkObserver copy;
        if (audioCopy) {
            copy = [audioCopy](const Bytes& data, int) { audioCopy->append(data); };
        }
        return std::make_shared<ObservingUploadWorker>(
            std::move(inner),
            [slot](const NativeUploadEvent& e) {
                if (*slot) {
                    (*slot)->uploadObserver()(e);
                }
            },
            std::move(copy));
    };
    Composed composed;
    composed.context = std::make_unique<CliContext>(args, true, std::move(options));
    composed.driver = std::make_unique<RoadDriver>(*composed.context, choices);
    *slot = composed.driver.get();
    composed.driver->attach();
    return composed;
}

std::string blockerText(const StartBlocker& blocker, const CliContext& c) {
    switch (blocker.kind()) {
    case StartBlocker::Kind::backend:
        return c.text("the backend refused the start: ", "de backend weigerde de start: ") + blocker.text();
    case StartBlocker::Kind::signedOut:
        return c.text("nobody is signed in. Run: kavelo-cli login --email ADDRESS",
                      "niemand is aangemeld. Voer uit: kavelo-cli login --email ADRES");
    case StartBlocker::Kind::updateRequired:
        return c.text(
            "this version must be updated before it may record; install the new version",
            "deze versie moet worden bijgewerkt voordat ze mag opnemen; installeer de nieuwe versie");
    case StartBlocker::Kind::microphonePermission:
        return c.text(
            "the audio server does not let this program use the microphone; check the sound settings",
            "de geluidsserver laat dit programma de microfoon niet gebruiken; kijk in de "
            "geluidsinstellingen");
    case StartBlocker::Kind::systemAudioPermission:
        return c.text(
            "the audio server does not let this program capture system audio; try --system-audio off",
            "de geluidsserver laat dit programma het systeemgeluid niet opnemen; probeer "
            "--system-audio off");
    case StartBlocker::Kind::audioDeviceMissing:
        return c.text("no microphone found; see: kavelo-cli devices",
                      "geen microfoon gevonden; zie: kavelo-cli devices");
    case StartBlocker::Kind::offline:
        return c.text("no network: the recording could not be created on the server; try again when online",
                      "geen netwerk: de opname kon niet op de server worden aangemaakt; probeer het opnieuw "
                      "zodra je online bent");
    case StartBlocker::Kind::insufficientDiskSpace:
        return c.text("less than 700 MiB free in the data directory; make room and try again",
                      "minder dan 700 MiB vrij in de gegevensmap; maak ruimte en probeer het opnieuw");
    }
    return c.text("the start was refused", "de start werd geweigerd");
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
  --keep-audio FILE         also write everything recorded to FILE as one AAC stream (the chunks
                            themselves are deleted once the server holds them)
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
of the audio server.

Ctrl-C once stops the recording and goes on to request the report; twice stops waiting for the
server (the recording stays on this machine for `kavelo-cli recover`); three times quits at once.

Exit status: 0 the report was requested; 1 failure; 2 a mistake on the command line; 3 the
recording is kept on this machine and not sent yet (finish it with `kavelo-cli recover`);
130 quit at once by a third Ctrl-C.
)";
}

int RecordCommand::run(const std::vector<std::string>& rawArgs, SignalWatcher& signals) {
    const CliArguments args(rawArgs,
                            unite({{"meeting", "duration", "pause-at", "resume-at", "mic", "system-audio",
                                    "app", "language", "keep-audio"},
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
    std::shared_ptr<AudioCopy> audioCopy;
    if (const auto keep = args.value("keep-audio")) {
        const auto language = CliLanguage::fromEnvironment(processEnvironment());
        audioCopy = std::make_shared<AudioCopy>(
            *keep, language.text("--keep-audio: " + *keep +
                                     " cannot be written; choose a file in a folder you "
                                     "can write in",
                                 "--keep-audio: " + *keep +
                                     " is niet te schrijven; kies een bestand in een map "
                                     "waarin je mag schrijven"));
    }

    auto composed = compose(args, choices, audioCopy);
    CliContext& context = *composed.context;
    RoadDriver& driver = *composed.driver;
    auto& env = context.env();
    const SignalWatcher::Scope interrupts(signals, interruptHandler(driver));

    context.printer().say("Kavely " + env.config.appVersion + ", " + context.describeWorld() +
                          context.text(", data in ", ", gegevens in ") +
                          env.config.applicationSupportDirectory.string());
    const auto session = context.signIn();
    if (!session) {
        driver.printDone(context.text("nobody is signed in", "niemand is aangemeld"));
        return exitFailure;
    }
    if (const auto pending = env.recoveryStore->load()) {
        // Starting anew would overwrite the record of the earlier recording, and with it the way to send it.
        const std::string why = context.text(
            "an earlier recording (" + pending->recordingId +
                ") is kept on this machine and not sent yet; finish it first with: kavelo-cli recover",
            "een eerdere opname (" + pending->recordingId +
                ") staat nog op deze computer en is niet verstuurd; rond haar eerst af met: kavelo-cli "
                "recover");
        context.printer().error(why);
        driver.printDone(why);
        return exitKeptNotSent;
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
            blocker ? blockerText(*blocker, context)
                    : context.text("the recording did not start (phase ", "de opname begon niet (fase ") +
                          std::string(toRaw(coordinator.phase())) +
                          context.text("); the log above says why", "); het logboek hierboven zegt "
                                                                    "waarom");
        context.printer().error(why);
        driver.printDone(why);
        return exitFailure;
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

    // The stop, through the same confirmation a person would give. From here a Ctrl-C stops the waiting.
    driver.markPastStop();
    if (coordinator.phase() == RecordingPhase::pausedUser) {
        coordinator.stopFromPause();
    } else {
        coordinator.stopTapped();
        coordinator.stopConfirmed();
    }
    if (audioCopy) {
        // The recorder has handed over its last chunk: the copy is complete, or says where it broke off.
        const std::string where = audioCopy->path().string();
        const std::string size = std::to_string(audioCopy->bytesWritten() / 1024);
        if (const int error = audioCopy->firstError()) {
            context.printer().error(context.text("the copy in " + where + " broke off after " + size +
                                                     " KiB (" + std::strerror(error) +
                                                     "); the recording itself goes on",
                                                 "de kopie in " + where + " hield op na " + size + " KiB (" +
                                                     std::strerror(error) + "); de opname zelf gaat door"));
        }
        context.printer().event(
            "audio_copy", {{"path", where}, {"bytes", audioCopy->bytesWritten()}},
            context.text("A copy of the audio (" + size + " KiB) is in " + where,
                         "Een kopie van het geluid (" + size + " KiB) staat in " + where));
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

int RecoverCommand::run(const std::vector<std::string>& rawArgs, bool retryOnly, SignalWatcher& signals) {
    const CliArguments args(rawArgs, unite({kReviewValued, CliContext::sessionOptions()}),
                            unite({CliContext::commonSwitches(), kReviewSwitches}));
    const ReviewChoices choices = reviewChoices(args);
    auto composed = compose(args, choices);
    CliContext& context = *composed.context;
    RoadDriver& driver = *composed.driver;
    // Nothing records here: the first Ctrl-C already stops the waiting.
    driver.markPastStop();
    const SignalWatcher::Scope interrupts(signals, interruptHandler(driver));
    const auto session = context.signIn();
    if (!session) {
        driver.printDone(context.text("nobody is signed in", "niemand is aangemeld"));
        return exitFailure;
    }
    auto& coordinator = *context.env().coordinator;
    const auto decision = coordinator.recoverIfNeeded(session->user, userNameOf(session->user));
    using Kind = RecordingCoordinator::RecoveryDecisionKind;
    auto& printer = context.printer();
    switch (decision.kind) {
    case Kind::none:
        printer.say(context.text("Nothing to recover.", "Niets om af te ronden."));
        driver.printDone(
            retryOnly ? context.text("no recording to retry", "geen opname om opnieuw te proberen") : "");
        return retryOnly ? exitFailure : exitSuccess;
    case Kind::discardedExpired:
        printer.say(context.text("The recording left behind was too old to finish and was set aside.",
                                 "De achtergebleven opname was te oud om af te ronden en is opzijgezet."));
        driver.printDone(
            context.text("the recording left behind had expired", "de achtergebleven opname was verlopen"));
        return exitFailure;
    case Kind::discardedEmpty:
        printer.say(context.text(
            "The recording left behind was cut off before its first chunk; nothing of it was kept.",
            "De achtergebleven opname hield op voor haar eerste stuk; er is niets van bewaard."));
        driver.printDone(
            context.text("the recording left behind ended before its first chunk; nothing to send",
                         "de achtergebleven opname hield op voor haar eerste stuk; niets te versturen"));
        return retryOnly ? exitFailure : exitSuccess;
    case Kind::deferred: {
        const std::string why =
            context.text("the server could not say which chunks of the recording left behind it holds; the "
                         "recording stays on "
                         "this machine. Try kavelo-cli recover again when the server is reachable",
                         "de server kon niet zeggen welke stukken van de achtergebleven opname hij heeft; de "
                         "opname blijft op "
                         "deze computer. Probeer kavelo-cli recover opnieuw zodra de server bereikbaar is");
        printer.error(why);
        driver.printDone(why);
        return exitKeptNotSent;
    }
    case Kind::resumedActive:
        printer.say(
            context.text("A recording was still running when the last run ended; stopping it now.",
                         "Er liep nog een opname toen het programma de vorige keer stopte; die stopt nu."));
        if (coordinator.phase() == RecordingPhase::pausedUser) {
            coordinator.stopFromPause();
        } else {
            coordinator.stopTapped();
            coordinator.stopConfirmed();
        }
        break;
    case Kind::openedFinalizeFlow:
        printer.say(context.text("A stopped recording was waiting for its report.",
                                 "Een gestopte opname wachtte op haar verslag."));
        break;
    }
    if (retryOnly && coordinator.canRetryFinalize() &&
        coordinator.phase() == RecordingPhase::errorRecoverable) {
        return driver.retryRoad();
    }
    return driver.finishRoad();
}

} // namespace kavelo::cli
