#include "tools/cli/RoadDriver.h"

#include "core/recording/EmailValidator.h"
#include "core/recording/ProcessingLine.h"

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

} // namespace

RoadDriver::RoadDriver(CliContext& context, ReviewChoices choices)
    : context_(context), choices_(std::move(choices)) {}

void RoadDriver::attach() {
    auto& coordinator = *context_.env().coordinator;
    {
        std::lock_guard lock(mutex_);
        phase_ = coordinator.phase();
    }
    coordinator.onPhaseChange([this](RecordingPhase phase) { onPhase(phase); });
    coordinator.onTick([this] { onWarnings(); });
}

RecorderEventHandlers RoadDriver::recorderObservers() {
    RecorderEventHandlers handlers;
    handlers.onAudioChunk = [this](const AudioChunkEvent& chunk) {
        {
            std::lock_guard lock(mutex_);
            ++chunksStored_;
            lastChunkSequence_ = chunk.sequence;
        }
        context_.printer().event("chunk", {{"sequence", chunk.sequence}, {"bytes", chunk.bytes}}, "");
    };
    handlers.onAudioError = [this](const AudioErrorEvent& error) {
        context_.printer().event("audio_error", {{"code", error.code}, {"message", error.message}}, "");
    };
    return handlers;
}

UploadWorker::EventHandler RoadDriver::uploadObserver() {
    return [this](const NativeUploadEvent& event) {
        std::string human;
        if (event.kind == NativeUploadEventKind::uploaded) {
            std::lock_guard lock(mutex_);
            ++chunksUploaded_;
        } else if (event.kind == NativeUploadEventKind::failed) {
            human = "upload of chunk " + std::to_string(event.sequence.value_or(0)) +
                    " set aside: " + event.message.value_or("");
        } else if (event.kind == NativeUploadEventKind::urlFetchFailed) {
            human = "signed upload addresses unavailable (" + event.message.value_or("") +
                    "); chunks go by the direct route meanwhile";
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
                             "phase: " + std::string(toRaw(phase)));
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
    auto report = [this](const std::string& kind, const std::string& text) {
        context_.printer().event("warning", {{"kind", kind}, {"message", text}}, "warning: " + text);
    };
    if (now.deviceWarning && now.deviceWarning != before.deviceWarning) {
        report("device", *now.deviceWarning);
    }
    if (now.noAudio && !before.noAudio) {
        report("no_audio", "no audio arrives; check the microphone");
    }
    if (now.offlineBuffering && !before.offlineBuffering) {
        report("offline", "offline: chunks are kept on disk and sent when the network returns");
    }
    if (now.routeChange && now.routeChange != before.routeChange) {
        report("route_changed", "audio route changed to " + *now.routeChange);
    }
    if (now.systemAudioFallback && !before.systemAudioFallback) {
        report("system_audio_fallback", "system audio could not be captured; the microphone goes on");
    }
    const auto dataDirectory = context_.env().chunkStore->root().string();
    if (now.diskFull && !before.diskFull) {
        report("disk_full", "disk full: the recording goes on and keeps its audio in memory; free space on " +
                                dataDirectory + " and it is written at once");
    } else if (!now.diskFull && before.diskFull) {
        report("disk_writable", "the disk takes the recording's audio again; nothing was lost");
    }
    if (now.diskSpaceLow && !before.diskSpaceLow) {
        report("disk_space_low", "little disk space left on " + dataDirectory +
                                     "; free space before it fills, or the audio waits in memory");
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
        return stopRequested_.load();
    });
    return phase_;
}

bool RoadDriver::waitForStopOr(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    changed_.wait_until(lock, deadline, [&] { return stopRequested_.load(); });
    return stopRequested_.load();
}

void RoadDriver::requestStop() {
    stopRequested_.store(true);
    changed_.notify_all();
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
    context_.printer().say(clockText(coordinator.elapsedActiveSeconds()) + "  " +
                           std::string(toRaw(coordinator.phase())) + "  chunks: " + std::to_string(stored) +
                           " recorded, " + std::to_string(uploaded) + " uploaded");
}

bool RoadDriver::reviewSpeakers() {
    auto& coordinator = *context_.env().coordinator;
    std::vector<std::string> names;
    for (const auto& speaker : coordinator.speakerList().speakers) {
        names.push_back(speaker.name);
    }
    std::string human = "Speakers found: ";
    for (std::size_t i = 0; i < names.size(); ++i) {
        human += (i ? ", " : "") + names[i];
    }
    context_.printer().event("speakers", {{"names", names}}, names.empty() ? "No speakers found." : human);

    auto speakers = choices_.speakers;
    auto count = choices_.speakerCount;
    if (choices_.interactive && isTerminal()) {
        if (const auto line = askLine("Speakers (comma-separated, empty keeps these): ");
            line && !line->empty()) {
            speakers = splitList(*line);
        }
        if (const auto line = askLine("Number of speakers (empty: from the names): ");
            line && !line->empty()) {
            try {
                count = std::stoi(*line);
            } catch (const std::exception&) {
                context_.printer().error("not a number; the count is left to the names");
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

bool RoadDriver::reviewShare() {
    auto& coordinator = *context_.env().coordinator;
    auto recipients = choices_.recipients;
    if (choices_.interactive && isTerminal()) {
        if (const auto line = askLine("Recipients besides you (comma-separated e-mail addresses): ");
            line && !line->empty()) {
            recipients = splitList(*line);
        }
    }
    bool allAdded = true;
    coordinator.updateShare([&](ShareComposer& share) {
        allAdded = true;
        share.includeTranscription = choices_.includeTranscription;
        share.attachmentWord = choices_.attachWord;
        for (const auto& address : recipients) {
            if (!share.isKnown(address) && !share.addRecipient(address)) {
                allAdded = false;
            }
        }
    });
    if (!allAdded) {
        context_.printer().error("a recipient address was refused; check the addresses");
        return false;
    }
    const auto share = coordinator.share();
    context_.printer().say(
        "Report goes to " + share.hostEmail() +
        (share.externalCount() > 0 ? " and " + std::to_string(share.externalCount()) + " other(s)" : "") +
        ".");
    for (int press = 0; press < 3; ++press) {
        const auto outcome = coordinator.submitShare(true);
        if (outcome == RecordingCoordinator::SubmitOutcome::started) {
            return true;
        }
        if (outcome == RecordingCoordinator::SubmitOutcome::invalidPendingInput) {
            context_.printer().error("an address is not valid");
            return false;
        }
        if (outcome == RecordingCoordinator::SubmitOutcome::offline) {
            context_.printer().say("Offline: the recording waits here until the network returns.");
            return false;
        }
    }
    return false;
}

int RoadDriver::finishRoad() {
    using namespace std::chrono_literals;
    auto& coordinator = *context_.env().coordinator;
    const std::vector<RecordingPhase> ends{RecordingPhase::errorRecoverable,
                                           RecordingPhase::errorUnrecoverable, RecordingPhase::idle,
                                           RecordingPhase::signedOut};

    // The processing screen: its lines, then the speaker review.
    std::optional<ProcessingLine> shownLine;
    auto phase = coordinator.phase();
    while (phase == RecordingPhase::stoppingNativeRecorder || phase == RecordingPhase::processingMapping) {
        const auto line = coordinator.processingLine();
        if (phase == RecordingPhase::processingMapping && line != shownLine) {
            shownLine = line;
            context_.printer().event("processing", {{"line", std::string(processingLineText(line))}},
                                     std::string(processingLineText(line)));
        }
        std::vector<RecordingPhase> next = ends;
        next.push_back(RecordingPhase::speakerReview);
        waitForPhase(next, 100ms);
        phase = coordinator.phase();
    }
    if (phase == RecordingPhase::speakerReview) {
        reviewSpeakers();
        auto waitFor = ends;
        waitFor.push_back(RecordingPhase::shareReview);
        phase = waitForPhase(waitFor, 10s);
    }
    if (phase != RecordingPhase::shareReview) {
        printDone("the recording did not reach the share review (phase " + std::string(toRaw(phase)) + ")");
        return 1;
    }
    if (!reviewShare()) {
        printDone("the report was not requested; the recording stays on this machine (kavelo-cli recover)");
        return 1;
    }
    // The wait for the server and the finalize, with progress for people.
    auto waitFor = ends;
    waitFor.push_back(RecordingPhase::success);
    auto lastLine = std::chrono::steady_clock::now();
    while (true) {
        phase = waitForPhase(waitFor, 1s);
        if (phase == RecordingPhase::success || phase == RecordingPhase::errorRecoverable ||
            phase == RecordingPhase::errorUnrecoverable || phase == RecordingPhase::idle ||
            phase == RecordingPhase::signedOut) {
            break;
        }
        if (std::chrono::steady_clock::now() - lastLine >= 1s) {
            lastLine = std::chrono::steady_clock::now();
            const auto missing = coordinator.missingChunks();
            if (phase == RecordingPhase::waitingForUploads) {
                context_.printer().say(
                    "waiting for the server: " + std::to_string(coordinator.uploadedSequences().size()) +
                    " of " + std::to_string(coordinator.lastSequence().value_or(0)) + " chunks there");
            }
        }
    }
    if (phase == RecordingPhase::success) {
        const auto summary = coordinator.successSummary().value_or(SuccessSummary{});
        context_.printer().event(
            "success",
            {{"meetingName", summary.meetingName},
             {"durationSeconds", summary.durationSeconds},
             {"recipients", summary.externalRecipientCount}},
            "Sent: " +
                (summary.meetingName.empty() ? std::string("recording") : "\"" + summary.meetingName + "\"") +
                ", " + clockText(summary.durationSeconds) + ", report for " + summary.recipientLabel() + ".");
        printDone("");
        return 0;
    }
    printDone("the report could not be requested (phase " + std::string(toRaw(phase)) +
              "); the chunks stay on this machine, try: kavelo-cli retry");
    return 1;
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
    context_.printer().event("done", fields, why.empty() ? "" : "Stopped here: " + why);
}

} // namespace kavelo::cli
