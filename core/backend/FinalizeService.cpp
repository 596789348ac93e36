#include "core/backend/FinalizeService.h"

#include "core/backend/APIError.h"
#include "core/backend/PrintedForm.h"
#include "core/support/RecordingLimits.h"
#include "core/support/UnicodeText.h"

#include <algorithm>
#include <set>

namespace kavelo {

namespace {

std::string printedList(const std::vector<int>& values) {
    std::string text = "[";
    for (std::size_t i = 0; i < values.size(); ++i) {
        text += (i ? ", " : "") + std::to_string(values[i]);
    }
    return text + "]";
}

std::string printed(FinalizeService::FinalizeError::Kind kind, const std::vector<int>& sequences,
                    const std::string& text) {
    using Kind = FinalizeService::FinalizeError::Kind;
    switch (kind) {
    case Kind::missingChunks:
        return "missingChunks(" + printedList(sequences) + ")";
    case Kind::backend:
        return "backend(" + PrintedForm::quoted(text) + ")";
    case Kind::noLastSequence:
        return "noLastSequence";
    case Kind::offline:
        return "offline";
    }
    return "offline";
}

std::vector<int> inRange(const std::vector<int>& sequences, int lastSequence) {
    std::vector<int> kept;
    std::copy_if(sequences.begin(), sequences.end(), std::back_inserter(kept),
                 [&](int s) { return s >= 1 && s <= lastSequence; });
    return kept;
}

} // namespace

FinalizeService::FinalizeError::FinalizeError(Kind kind, std::vector<int> sequences, std::string text)
    : std::runtime_error(printed(kind, sequences, text)), kind_(kind), sequences_(std::move(sequences)),
      text_(std::move(text)) {}

FinalizeService::FinalizeError FinalizeService::FinalizeError::missingChunks(std::vector<int> sequences) {
    return {Kind::missingChunks, std::move(sequences), {}};
}
FinalizeService::FinalizeError FinalizeService::FinalizeError::backend(std::string text) {
    return {Kind::backend, {}, std::move(text)};
}
FinalizeService::FinalizeError FinalizeService::FinalizeError::noLastSequence() {
    return {Kind::noLastSequence, {}, {}};
}
FinalizeService::FinalizeError FinalizeService::FinalizeError::offline() {
    return {Kind::offline, {}, {}};
}

FinalizeService::FinalizeService(std::shared_ptr<RecordingAPI> api, std::shared_ptr<Clock> clock,
                                 Config config, std::shared_ptr<CoreLogger> logger)
    : api_(std::move(api)), clock_(std::move(clock)), config_(config), logger_(std::move(logger)) {}

bool FinalizeService::isAborted() const {
    std::lock_guard lock(mutex_);
    return abortFlag_;
}

void FinalizeService::abort() {
    std::lock_guard lock(mutex_);
    abortFlag_ = true;
}

void FinalizeService::reset() {
    std::lock_guard lock(mutex_);
    abortFlag_ = false;
}

FinalizeService::WaitResult FinalizeService::waitForServerChunks(const std::string& recordingId,
                                                                 int lastSequence,
                                                                 const LocalProgress& localProgress,
                                                                 const SequencesCallback& onServerAck,
                                                                 const SequencesCallback& kick) {
    if (lastSequence < 1) {
        return WaitResult::allChunksOnServer();
    }
    if (lastSequence > RecordingLimits::maxChunks) {
        // Every round counts up to this number; one that no recording reaches is refused, not waited for.
        logger_->error("finalize wait refused: last sequence " + std::to_string(lastSequence) +
                       " is beyond what a recording holds");
        return WaitResult::missingChunks({});
    }
    const auto started = clock_->now();
    auto lastProgressAt = started;
    std::vector<int> lastMissing(static_cast<std::size_t>(lastSequence));
    for (int i = 0; i < lastSequence; ++i) {
        lastMissing[static_cast<std::size_t>(i)] = i + 1;
    }
    int uncheckedRounds = 0;
    int lastUploaded = 0;
    std::size_t lastMissingCount = 0;
    bool firstRound = true;

    for (;;) {
        if (isAborted()) {
            return WaitResult::aborted();
        }
        if (secondsBetween(started, clock_->now()) > config_.absoluteTimeout) {
            return WaitResult::missingChunks(lastMissing);
        }
        ChunkReconciliation server;
        try {
            server = api_->listRecordingChunks(recordingId);
        } catch (...) {
            server = ChunkReconciliation::unchecked(); // the contract says it never throws; hold to that here
        }
        if (server.checked && !server.uploadedSequences.empty()) {
            onServerAck(inRange(server.uploadedSequences, lastSequence));
        }

        // Progress is measured on the local side only: a server that repeats itself while the worker uploads
        // does not end the wait.
        const auto snapshot = localProgress();
        if (firstRound || snapshot.uploadedCount != lastUploaded ||
            snapshot.missing.size() != lastMissingCount) {
            lastProgressAt = clock_->now();
        }
        lastUploaded = snapshot.uploadedCount;
        lastMissingCount = snapshot.missing.size();
        firstRound = false;
        auto stalled = [&] {
            return secondsBetween(lastProgressAt, clock_->now()) > config_.noProgressTimeout;
        };

        if (server.checked) {
            std::set<int> joined(snapshot.missing.begin(), snapshot.missing.end());
            for (int s : inRange(server.missing, lastSequence)) {
                joined.insert(s);
            }
            std::vector<int> gaps(joined.begin(), joined.end());
            if (gaps.empty() && snapshot.pendingCount == 0) {
                return WaitResult::allChunksOnServer();
            }
            if (!gaps.empty()) {
                kick(gaps);
            }
            if (stalled()) {
                return WaitResult::missingChunks(gaps);
            }
            uncheckedRounds = 0;
            lastMissing = std::move(gaps);
        } else {
            ++uncheckedRounds;
            if (!snapshot.missing.empty()) {
                kick(snapshot.missing);
            } else if (snapshot.pendingCount == 0 && uncheckedRounds >= 3) {
                // A server that cannot be asked must not hold up a recording whose chunks were all
                // acknowledged locally; three unchecked rounds in a row settle it.
                logger_->warn("list-recording-chunks unavailable after " + std::to_string(uncheckedRounds) +
                              " attempts — falling back to local/native ACKs (iOS parity)");
                return WaitResult::allChunksOnServer();
            }
            if (stalled()) {
                return WaitResult::missingChunks(snapshot.missing);
            }
            lastMissing = snapshot.missing;
        }

        try {
            clock_->sleep(config_.pollInterval);
        } catch (...) {
            return WaitResult::aborted();
        }
    }
}

FinalizePayload FinalizeService::buildPayload(const FinalizeInput& input) {
    FinalizePayload payload;
    payload.recordingId = input.recordingId;
    payload.userId = input.user.id;
    payload.userEmail = input.user.email;
    payload.userName = input.userName;
    if (input.meetingName) {
        auto trimmed = UnicodeText::trimBlanksAndNewlines(*input.meetingName);
        if (!trimmed.empty()) {
            payload.meetingName = std::move(trimmed);
        }
    }
    payload.recipients = input.share.recipientsPayload();
    payload.participants = input.speakers.participantsPayload();
    payload.uploadMode = input.uploadMode;
    payload.includeTranscription = input.share.includeTranscription;
    payload.attachmentWord = input.share.attachmentWord;
    if (auto count = input.speakers.speakerCountPayload()) {
        payload.speakerCount = count->count;
        payload.speakerCountMode = count->mode;
    }
    payload.outputLanguage = input.outputLanguage;
    payload.diagnostics = input.diagnostics;
    payload.promptTemplateId = input.selectedTemplateId;
    return payload;
}

void FinalizeService::finalize(const FinalizePayload& payload) {
    try {
        api_->finalizeRecording(payload);
    } catch (const APIError& error) {
        if (error.kind() == APIError::Kind::network || error.kind() == APIError::Kind::timeout) {
            throw FinalizeError::offline();
        }
        throw FinalizeError::backend(error.description());
    }
}

} // namespace kavelo
