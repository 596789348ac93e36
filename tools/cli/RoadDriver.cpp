#include "tools/cli/RoadDriver.h"

#include "core/recording/EmailValidator.h"
#include "core/recording/ProcessingLine.h"
#include "tools/cli/ExitCode.h"

#include <cstdio>
#include <iostream>
#include <unistd.h>

namespace kavelo::cli {

namespace {

Json uploadFields(const NativeUploadEvent& event) {
    Json fields = {{"kind", std::string(toRaw(event.kind))}};
    auto put = [&fields](const char* key, const auto& value) {
        if (value) {
            fields[key] = *value;
        }
    };
    put("sequence", event.sequence);
    put("statusCode", event.statusCode);
    put("attempt", event.attempt);
    put("mode", event.mode);
    put("message", event.message);
    put("uploadedCount", event.uploadedCount);
    put("failedCount", event.failedCount);
    put("startSequence", event.startSequence);
    put("count", event.count);
    put("retryAfterSeconds", event.retryAfterSeconds);
    return fields;
}

std::string clockText(int seconds) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%02d:%02d:%02d", seconds / 3600, seconds / 60 % 60, seconds % 60);
    return buffer;
}

std::optional<std::string> askLine(const std::string& prompt) {
    std::fprintf(stderr, "%s", prompt.c_str());
    std::fflush(stderr);
    std::string line;
    if (!std::getline(std::cin, line)) {
        return std::nullopt;
    }
    return line;
}

bool isTerminal() {
    return ::isatty(STDIN_FILENO) == 1;
}

// The processing lines as the CLI tells them; the core's own are the Dutch screen texts.
std::string processingText(ProcessingLine line, const CliLanguage& language) {
    switch (line) {
    case ProcessingLine::secured:
        return language.text("Recording secured.", std::string(processingLineText(line)));
    case ProcessingLine::searching:
        return language.text("Looking for names...", std::string(processingLineText(line)));
    case ProcessingLine::preparingList:
        return language.text("Preparing the list...", std::string(processingLineText(line)));
    case ProcessingLine::ready:
        return language.text("List ready.", std::string(processingLineText(line)));
    }
    return {};
}

} // namespace

RoadDriver::RoadDriver(CliContext& context, ReviewChoices choices)
    : context_(context), choices_(std::move(choices)) {}

RoadDriver::~RoadDriver() {
    detach();
}

void RoadDriver::attach() {
    auto& coordinator = *context_.env().coordinator;
    {
        std::lock_guard lock(mutex_);
        phase_ = coordinator.phase();
    }
    coordinator.onPhaseChange([this](RecordingPhase phase) {
        if (!detached_.load()) {
            onPhase(phase);
        }
    });
    coordinator.onTick([this] {
        if (!detached_.load()) {
            onWarnings();
        }
    });
}

void RoadDriver::detach() {
    detached_.store(true);
    if (background_.joinable()) {
        // Only an early end (an exception) leaves the finalize running here: stop its waits, and let it
        // return before the world it works in goes.
        context_.env().finalizeService->abort();
        context_.env().mappingService->abort();
        background_.join();
    }
}

RecorderEventHandlers RoadDriver::recorderObservers() {
    RecorderEventHandlers handlers;
    handlers.onAudioChunk = [this](const AudioChunkEvent& chunk) {
        if (detached_.load()) {
            return;
        }
        {
            std::lock_guard lock(mutex_);
            ++chunksStored_;
            lastChunkSequence_ = chunk.sequence;
        }
        context_.printer().event("chunk", {{"sequence", chunk.sequence}, {"bytes", chunk.bytes}}, "");
    };
    handlers.onAudioError = [this](const AudioErrorEvent& error) {
        if (detached_.load()) {
            return;
        }
        context_.printer().event("audio_error", {{"code", error.code}, {"message", error.message}}, "");
    };
    return handlers;
}

UploadWorker::EventHandler RoadDriver::uploadObserver() {
    return [this](const NativeUploadEvent& event) {
        if (detached_.load()) {
            return;
        }
        std::string human;
        if (event.kind == NativeUploadEventKind::uploaded) {
            std::lock_guard lock(mutex_);
            ++chunksUploaded_;
        } else if (event.kind == NativeUploadEventKind::failed) {
            const std::string sequence = std::to_string(event.sequence.value_or(0));
            human = text("upload of chunk " + sequence + " set aside, the chunk stays on disk: ",
                         "upload van stuk " + sequence + " opzijgezet, het stuk blijft op schijf: ") +
                    event.message.value_or("");
        } else if (event.kind == NativeUploadEventKind::urlFetchFailed) {
            human = text("signed upload addresses unavailable (",
                         "ondertekende uploadadressen niet beschikbaar (") +
                    event.message.value_or("") +
                    text("); chunks go by the direct route meanwhile",
                         "); stukken gaan intussen via de directe route");
        }
        context_.printer().event("upload", uploadFields(event), human);
        changed_.notify_all();
    };
}

void RoadDriver::onPhase(RecordingPhase phase) {
    // The manifest written at the stop is the record of what was captured; its pause total is what
    // scripts check against the pauses they asked for, and it is gone once the report is requested.
    std::optional<double> pausedMs;
    if (phase == RecordingPhase::processingMapping) {
        if (const auto manifest = context_.env().recoveryStore->load()) {
            pausedMs = manifest->totalPausedMs;
        }
    }
    {
        std::lock_guard lock(mutex_);
        phase_ = phase;
        if (pausedMs) {
            totalPausedMs_ = pausedMs;
        }
    }
    context_.printer().event("phase", {{"phase", std::string(toRaw(phase))}},
                             text("phase: ", "fase: ") + std::string(toRaw(phase)));
    changed_.notify_all();
}

void RoadDriver::onWarnings() {
    const RecordingWarnings now = context_.env().coordinator->warnings();
    RecordingWarnings before;
    {
        std::lock_guard lock(mutex_);
        before = lastWarnings_;
        lastWarnings_ = now;
    }
    auto report = [this](const std::string& kind, const std::string& message) {
        context_.printer().event("warning", {{"kind", kind}, {"message", message}},
                                 text("warning: ", "waarschuwing: ") + message);
    };
    if (now.deviceWarning && now.deviceWarning != before.deviceWarning) {
        report("device", *now.deviceWarning);
    }
    if (now.noAudio && !before.noAudio) {
        report("no_audio", text("no audio arrives; check the microphone (kavelo-cli devices)",
                                "er komt geen geluid binnen; controleer de microfoon (kavelo-cli devices)"));
    }
    if (now.offlineBuffering && !before.offlineBuffering) {
        report("offline", text("offline: chunks are kept on disk and sent when the network returns",
                               "offline: stukken blijven op schijf en gaan mee zodra het netwerk terug is"));
    }
    if (now.routeChange && now.routeChange != before.routeChange) {
        report("route_changed",
               text("audio route changed to ", "geluidsroute gewijzigd naar ") + *now.routeChange);
    }
    if (now.systemAudioFallback && !before.systemAudioFallback) {
        report("system_audio_fallback",
               text("system audio could not be captured; the microphone goes on",
                    "het systeemgeluid kon niet worden opgenomen; de microfoon gaat door"));
    }
    const auto dataDirectory = context_.env().chunkStore->root().string();
    if (now.diskFull && !before.diskFull) {
        report(
            "disk_full",
            text(
                "disk full: the recording goes on and keeps its audio in memory; free space on ",
                "schijf vol: de opname gaat door en houdt het geluid in het geheugen; maak ruimte vrij op ") +
                dataDirectory);
    } else if (!now.diskFull && before.diskFull) {
        report("disk_writable", text("the disk takes the recording's audio again; nothing was lost",
                                     "de schijf neemt het geluid weer aan; er is niets verloren"));
    }
    if (now.diskSpaceLow && !before.diskSpaceLow) {
        report("disk_space_low", text("little disk space left; free space on ",
                                      "weinig schijfruimte over; maak ruimte vrij op ") +
                                     dataDirectory);
    }
    changed_.notify_all();
}

RecordingPhase RoadDriver::waitForPhase(const std::vector<RecordingPhase>& phases,
                                        std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    std::unique_lock lock(mutex_);
    changed_.wait_until(lock, deadline, [&] {
        for (const auto phase : phases) {
            if (phase_ == phase) {
                return true;
            }
        }
        return abandoned_;
    });
    return phase_;
}

bool RoadDriver::abandoned() const {
    std::lock_guard lock(mutex_);
    return abandoned_;
}

bool RoadDriver::waitForStopOr(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    changed_.wait_until(lock, deadline, [&] { return stopRequested_; });
    return stopRequested_;
}

void RoadDriver::markPastStop() {
    std::lock_guard lock(mutex_);
    pastStop_ = true;
}

RoadDriver::InterruptAction RoadDriver::interrupt() {
    InterruptAction action = InterruptAction::exitNow;
    {
        std::lock_guard lock(mutex_);
        if (!stopRequested_ && !pastStop_) {
            stopRequested_ = true;
            action = InterruptAction::stop;
        } else if (!abandoned_) {
            abandoned_ = true;
            action = InterruptAction::abandon;
        }
    }
    changed_.notify_all();
    auto& env = context_.env();
    switch (action) {
    case InterruptAction::stop:
        context_.printer().event(
            "interrupt", {{"action", "stop"}},
            text("Stopping the recording; the report is requested next. Ctrl-C again stops waiting for the "
                 "server, and the recording stays on this machine.",
                 "De opname stopt; daarna wordt het verslag aangevraagd. Nogmaals Ctrl-C stopt het wachten "
                 "op de "
                 "server, en de opname blijft op deze computer."));
        break;
    case InterruptAction::abandon:
        // The waits of the finalize and the speaker search end at their next round.
        env.finalizeService->abort();
        env.mappingService->abort();
        context_.printer().event(
            "interrupt", {{"action", "abandon"}},
            text("No longer waiting for the server. Ctrl-C once more quits at once.",
                 "Er wordt niet meer op de server gewacht. Nog een keer Ctrl-C stopt meteen."));
        break;
    case InterruptAction::exitNow:
        context_.printer().event("interrupt", {{"action", "exit"}},
                                 text("Quitting at once; what is on disk stays for kavelo-cli recover.",
                                      "Meteen gestopt; wat op schijf staat blijft voor kavelo-cli recover."));
        break;
    }
    return action;
}

void RoadDriver::printStatusLine() {
    if (context_.printer().json()) {
        return;
    }
    const auto& coordinator = *context_.env().coordinator;
    int stored = 0;
    int uploaded = 0;
    {
        std::lock_guard lock(mutex_);
        stored = chunksStored_;
        uploaded = chunksUploaded_;
    }
    context_.printer().say(
        clockText(coordinator.elapsedActiveSeconds()) + "  " + std::string(toRaw(coordinator.phase())) +
        "  " +
        text("chunks: " + std::to_string(stored) + " recorded, " + std::to_string(uploaded) + " uploaded",
             "stukken: " + std::to_string(stored) + " opgenomen, " + std::to_string(uploaded) +
                 " verstuurd"));
}

bool RoadDriver::reviewSpeakers() {
    auto& coordinator = *context_.env().coordinator;
    std::vector<std::string> names;
    for (const auto& speaker : coordinator.speakerList().speakers) {
        names.push_back(speaker.name);
    }
    std::string human = text("Speakers found: ", "Gevonden sprekers: ");
    for (std::size_t i = 0; i < names.size(); ++i) {
        human += (i ? ", " : "") + names[i];
    }
    context_.printer().event("speakers", {{"names", names}},
                             names.empty() ? text("No speakers found.", "Geen sprekers gevonden.") : human);

    auto speakers = choices_.speakers;
    auto count = choices_.speakerCount;
    if (choices_.interactive && isTerminal()) {
        if (const auto line = askLine(text("Speakers (comma-separated, empty keeps these): ",
                                           "Sprekers (met komma's ertussen, leeg houdt deze): "));
            line && !line->empty()) {
            speakers = splitList(*line);
        }
        if (const auto line = askLine(text("Number of speakers (empty: from the names): ",
                                           "Aantal sprekers (leeg: volgens de namen): "));
            line && !line->empty()) {
            try {
                count = std::stoi(*line);
            } catch (const std::exception&) {
                context_.printer().error(text("not a number; the count is left to the names",
                                              "geen getal; het aantal volgt uit de namen"));
            }
        }
    }
    if (speakers || count) {
        coordinator.updateSpeakers([&](SpeakerListModel& list) {
            if (speakers) {
                std::vector<SpeakerListModel::Speaker> kept;
                for (const auto& speaker : list.speakers) {
                    if (speaker.isHost) {
                        kept.push_back(speaker);
                    }
                }
                list.speakers = kept;
                for (const auto& name : *speakers) {
                    list.addManual(name);
                }
            }
            if (count) {
                list.setManualCount(*count);
            }
        });
    }
    coordinator.confirmSpeakers();
    return true;
}

bool RoadDriver::prepareShare() {
    auto& coordinator = *context_.env().coordinator;
    auto recipients = choices_.recipients;
    if (choices_.interactive && isTerminal()) {
        if (const auto line = askLine(text("Recipients besides you (comma-separated e-mail addresses): ",
                                           "Ontvangers naast jou (e-mailadressen met komma's ertussen): "));
            line && !line->empty()) {
            recipients = splitList(*line);
        }
    }
    std::vector<std::string> refused;
    coordinator.updateShare([&](ShareComposer& share) {
        refused.clear();
        share.includeTranscription = choices_.includeTranscription;
        share.attachmentWord = choices_.attachWord;
        for (const auto& address : recipients) {
            if (!share.isKnown(address) && !share.addRecipient(address)) {
                refused.push_back(address);
            }
        }
    });
    if (!refused.empty()) {
        context_.printer().error(
            text("the recipient address '" + refused.front() +
                     "' was refused; check it and give it again with --recipients",
                 "het ontvangersadres '" + refused.front() +
                     "' werd geweigerd; controleer het en geef het opnieuw met --recipients"));
        return false;
    }
    const auto share = coordinator.share();
    const int others = share.externalCount();
    context_.printer().say(
        text("Report goes to ", "Het verslag gaat naar ") + share.hostEmail() +
        (others > 0 ? text(" and " + std::to_string(others) + (others == 1 ? " other" : " others"),
                           " en " + std::to_string(others) + (others == 1 ? " ander" : " anderen"))
                    : std::string()) +
        ".");
    return true;
}

void RoadDriver::runInBackground(std::function<void()> work) {
    {
        std::lock_guard lock(mutex_);
        backgroundDone_ = false;
    }
    background_ = std::thread([this, work = std::move(work)] {
        work();
        {
            std::lock_guard lock(mutex_);
            backgroundDone_ = true;
        }
        changed_.notify_all();
    });
}

int RoadDriver::finishRoad() {
    using namespace std::chrono_literals;
    markPastStop();
    auto& coordinator = *context_.env().coordinator;
    const std::vector<RecordingPhase> ends{RecordingPhase::errorRecoverable,
                                           RecordingPhase::errorUnrecoverable, RecordingPhase::idle,
                                           RecordingPhase::signedOut};

    // The processing screen: its lines, then the speaker review.
    std::optional<ProcessingLine> shownLine;
    auto phase = coordinator.phase();
    while ((phase == RecordingPhase::stoppingNativeRecorder || phase == RecordingPhase::processingMapping) &&
           !abandoned()) {
        const auto line = coordinator.processingLine();
        if (phase == RecordingPhase::processingMapping && line != shownLine) {
            shownLine = line;
            context_.printer().event("processing", {{"line", std::string(processingLineText(line))}},
                                     processingText(line, context_.language()));
        }
        std::vector<RecordingPhase> next = ends;
        next.push_back(RecordingPhase::speakerReview);
        waitForPhase(next, 100ms);
        phase = coordinator.phase();
    }
    if (phase == RecordingPhase::speakerReview && !abandoned()) {
        reviewSpeakers();
        auto waitFor = ends;
        waitFor.push_back(RecordingPhase::shareReview);
        phase = waitForPhase(waitFor, 10s);
    }
    if (abandoned()) {
        return endWithoutSending(text("you stopped waiting", "je stopte het wachten"));
    }
    if (phase != RecordingPhase::shareReview) {
        return endWithoutSending(text("the recording did not reach the share review (phase ",
                                      "de opname kwam niet bij de keuze van ontvangers (fase ") +
                                 std::string(toRaw(phase)) + ")");
    }
    if (!prepareShare()) {
        return endWithoutSending(text("the report was not requested", "het verslag is niet aangevraagd"));
    }
    runInBackground([this, &coordinator] {
        // A first press may only commit typed addresses; the next one sends.
        for (int press = 0; press < 3; ++press) {
            const auto outcome = coordinator.submitShare(true);
            {
                std::lock_guard lock(mutex_);
                submitOutcome_ = outcome;
            }
            if (outcome != RecordingCoordinator::SubmitOutcome::committedPendingInput) {
                return;
            }
        }
    });
    return awaitFinalize();
}

int RoadDriver::retryRoad() {
    markPastStop();
    auto& coordinator = *context_.env().coordinator;
    runInBackground([&coordinator] { coordinator.retryFinalize(); });
    return awaitFinalize();
}

int RoadDriver::awaitFinalize() {
    using namespace std::chrono_literals;
    auto& coordinator = *context_.env().coordinator;
    while (true) {
        {
            std::unique_lock lock(mutex_);
            changed_.wait_for(lock, 1s, [this] { return backgroundDone_ || abandoned_; });
            if (backgroundDone_ || abandoned_) {
                break;
            }
        }
        if (coordinator.phase() == RecordingPhase::waitingForUploads) {
            const auto there = std::to_string(coordinator.uploadedSequences().size());
            const auto all = std::to_string(coordinator.lastSequence().value_or(0));
            context_.printer().say(
                text("waiting for the server: " + there + " of " + all + " chunks there",
                     "wachten op de server: " + there + " van " + all + " stukken aangekomen"));
        }
    }
    // After a second Ctrl-C the finalize has been told to stop; a request already on its way still
    // ends first (a third Ctrl-C does not wait for it), and decides what is true below.
    if (background_.joinable()) {
        background_.join();
    }
    std::optional<RecordingCoordinator::SubmitOutcome> outcome;
    bool gaveUp = false;
    {
        std::lock_guard lock(mutex_);
        outcome = submitOutcome_;
        gaveUp = abandoned_;
    }
    const auto phase = coordinator.phase();
    if (phase == RecordingPhase::success) {
        const auto summary = coordinator.successSummary().value_or(SuccessSummary{});
        const int others = summary.externalRecipientCount;
        const std::string forWhom =
            others == 0 ? text("you alone", "alleen jou")
                        : text("you and ", "jou en ") + std::to_string(others) +
                              text(others == 1 ? " other" : " others", others == 1 ? " ander" : " anderen");
        const std::string name =
            summary.meetingName.empty() ? text("recording", "opname") : "\"" + summary.meetingName + "\"";
        context_.printer().event("success",
                                 {{"meetingName", summary.meetingName},
                                  {"durationSeconds", summary.durationSeconds},
                                  {"recipients", summary.externalRecipientCount}},
                                 text("Sent: ", "Verstuurd: ") + name + ", " +
                                     clockText(summary.durationSeconds) +
                                     text(", report for ", ", verslag voor ") + forWhom + ".");
        printDone("");
        return exitSuccess;
    }
    if (gaveUp) {
        return endWithoutSending(text("you stopped waiting", "je stopte het wachten"));
    }
    if (outcome == RecordingCoordinator::SubmitOutcome::invalidPendingInput) {
        return endWithoutSending(text("a recipient address is not valid", "een ontvangersadres is ongeldig"));
    }
    if (outcome == RecordingCoordinator::SubmitOutcome::offline) {
        return endWithoutSending(text("no network", "geen netwerk"));
    }
    return endWithoutSending(
        text("the report could not be requested (phase ", "het verslag kon niet worden aangevraagd (fase ") +
        std::string(toRaw(phase)) + ")");
}

int RoadDriver::endWithoutSending(const std::string& why) {
    // Say only what the disk shows: the manifest is what `recover` starts from, and the chunk files are
    // the audio the server does not hold yet.
    auto& env = context_.env();
    const auto manifest = env.recoveryStore->load();
    std::size_t chunksHere = 0;
    if (manifest) {
        chunksHere = env.chunkStore->storedSequences(manifest->recordingId).size();
    } else if (const auto id = env.coordinator->currentRecordingId()) {
        chunksHere = env.chunkStore->storedSequences(*id).size();
    }
    const std::string count = std::to_string(chunksHere);
    if (manifest) {
        const std::string kept =
            chunksHere == 0
                ? text("; the recording is kept on this machine (every chunk is on the server already) and "
                       "is not "
                       "sent yet. Finish it with: kavelo-cli recover",
                       "; de opname blijft op deze computer (alle stukken staan al op de server) en is nog "
                       "niet "
                       "verstuurd. Rond haar af met: kavelo-cli recover")
                : text("; the recording is kept on this machine (" + count +
                           " chunk(s) not on the server yet) and is not sent yet. Finish it with: kavelo-cli "
                           "recover",
                       "; de opname blijft op deze computer (" + count +
                           " stuk(ken) nog niet op de server) en is nog niet verstuurd. Rond haar af met: "
                           "kavelo-cli recover");
        printDone(why + kept);
        return exitKeptNotSent;
    }
    const std::string lost = chunksHere == 0
                                 ? text("; nothing of this recording is kept on this machine",
                                        "; van deze opname is niets op deze computer bewaard")
                                 : text("; " + count + " chunk file(s) are left in " +
                                            env.config.applicationSupportDirectory.string() +
                                            ", but no record of the recording to finish it with",
                                        "; " + count + " stukbestand(en) staan nog in " +
                                            env.config.applicationSupportDirectory.string() +
                                            ", maar zonder gegevens om de opname mee af te ronden");
    printDone(why + lost);
    return exitFailure;
}

void RoadDriver::printDone(const std::string& why) {
    auto& coordinator = *context_.env().coordinator;
    Json fields = {{"phase", std::string(toRaw(coordinator.phase()))}};
    fields["recordingId"] =
        coordinator.currentRecordingId() ? Json(*coordinator.currentRecordingId()) : Json(nullptr);
    std::optional<int> last = coordinator.lastSequence();
    {
        std::lock_guard lock(mutex_);
        if (!last) {
            last = lastChunkSequence_;
        }
        if (totalPausedMs_) {
            fields["totalPausedMs"] = *totalPausedMs_;
        }
    }
    fields["lastSequence"] = last ? Json(*last) : Json(nullptr);
    if (!why.empty()) {
        fields["reason"] = why;
    }
    context_.printer().event("done", fields,
                             why.empty() ? "" : text("Stopped here: ", "Hier gestopt: ") + why);
}

} // namespace kavelo::cli
