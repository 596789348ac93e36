// After the stop: background reconciliation with the server's chunk list, the staged processing screen,
// the mapping tasks that look for the participants' names, and the speaker and share review.
#include "core/recording/RecordingCoordinator.h"

#include <algorithm>

namespace kavelo {

void RecordingCoordinator::startBackgroundReconciliation() {
    cancelTask(review_.preverifyTask);
    std::optional<std::string> recordingId;
    std::optional<int> last;
    {
        std::lock_guard lock(mutex_);
        recordingId = recordingId_;
        last = live_.lastSequence;
    }
    if (!recordingId || !last || *last < 1) {
        return;
    }
    startTask(review_.preverifyTask, [id = *recordingId, last = *last, api = api_, uploader = uploader_,
                                      clock = clock_](std::weak_ptr<RecordingCoordinator> weak) {
        auto inRange = [last](const std::vector<int>& list) {
            std::vector<int> kept;
            std::copy_if(list.begin(), list.end(), std::back_inserter(kept),
                         [last](int s) { return s >= 1 && s <= last; });
            return kept;
        };
        for (int round = 0; round < 60; ++round) {
            if (Task::isCurrentCancelled()) {
                return;
            }
            {
                auto self = weak.lock();
                if (!self) {
                    return;
                }
                auto phase = self->phase();
                if (phase != RecordingPhase::processingMapping && phase != RecordingPhase::speakerReview &&
                    phase != RecordingPhase::shareReview) {
                    return;
                }
            }
            ChunkReconciliation answer;
            try {
                answer = api->listRecordingChunks(id);
            } catch (...) {
                answer = ChunkReconciliation::unchecked();
            }
            // An unchecked answer says nothing either way.
            if (answer.checked) {
                auto onServer = inRange(answer.uploadedSequences);
                // The queue deletes their files: behind its back a file it is about to send would
                // vanish and the chunk would be parked as missing.
                uploader->acceptServerAcks(onServer);
                auto missing = inRange(answer.missing);
                std::set<int> known;
                {
                    auto self = weak.lock();
                    if (!self) {
                        return;
                    }
                    std::lock_guard lock(self->mutex_);
                    self->live_.localUploaded.insert(onServer.begin(), onServer.end());
                    known = self->live_.localUploaded;
                }
                for (int s : uploader->uploadedSequences()) {
                    known.insert(s);
                }
                std::set<int> toSend(missing.begin(), missing.end());
                for (int s = 1; s <= last; ++s) {
                    if (!known.count(s)) {
                        toSend.insert(s);
                    }
                }
                if (toSend.empty()) {
                    if (auto self = weak.lock()) {
                        self->log(LogLevel::info, "pre-verificatie compleet: alle " + std::to_string(last) +
                                                      " chunks op de server");
                    }
                    return;
                }
                uploader->requeue({toSend.begin(), toSend.end()});
            }
            if (!sleepAndContinue(*clock, 2.0)) {
                return;
            }
        }
    });
}

void RecordingCoordinator::setProcessingLine(ProcessingLine line) {
    {
        std::lock_guard lock(mutex_);
        review_.processingLine = line;
    }
    notifyTick();
}

void RecordingCoordinator::runProcessingSequence() {
    bool isLong = false;
    bool silent = false;
    {
        auto now = clock_->now();
        std::lock_guard lock(mutex_);
        review_.processingLine = ProcessingLine::secured;
        review_.processingOpened = false;
        isLong = timings_.longRecordingThreshold <= elapsedActiveSecondsLocked(now);
        silent = live_.warnings.noAudio;
    }
    cancelTask(review_.processingTask);
    notifyTick();
    startTask(review_.processingTask, [isLong, silent, clock = clock_,
                                       t = timings_](std::weak_ptr<RecordingCoordinator> weak) {
        auto begin = clock->now();
        {
            auto self = weak.lock();
            if (!self) {
                return;
            }
            self->startMappingTask(isLong ? self->longMappingPoll() : self->onDemandMapping());
        }
        if (!sleepAndContinue(*clock, t.processingPhase1Delay)) {
            return;
        }
        if (auto self = weak.lock()) {
            self->setProcessingLine(ProcessingLine::searching);
        } else {
            return;
        }

        auto chunkDeadline = addSeconds(begin, t.processingChunkFailsafe);
        auto mappingDeadline = addSeconds(begin, t.processingMax);
        if (silent) {
            // Nothing to map, so nobody waits for it.
            mappingDeadline = begin;
            if (auto self = weak.lock()) {
                self->log(LogLevel::info,
                          "processing: opname eindigde zonder audio — mapping-wachttijd overgeslagen");
            }
        }
        while (clock->now() < mappingDeadline) {
            if (Task::isCurrentCancelled()) {
                return;
            }
            auto self = weak.lock();
            if (!self) {
                return;
            }
            bool inFlight = false;
            bool finalChunkSeen = false;
            {
                std::lock_guard lock(self->mutex_);
                inFlight = self->review_.mappingInFlight;
                finalChunkSeen = self->live_.lastSequence && *self->live_.lastSequence >= 1 &&
                                 self->live_.receivedSequences.count(*self->live_.lastSequence) == 1;
            }
            if (!inFlight) {
                break;
            }
            if (clock->now() > chunkDeadline && !finalChunkSeen) {
                self->log(LogLevel::warn, "processing failsafe: chunk completion not done after 8s");
                break;
            }
            self.reset();
            if (!sleepAndContinue(*clock, 0.25)) {
                return;
            }
        }
        double spent = secondsBetween(begin, clock->now());
        if (spent < t.processingMin && !sleepAndContinue(*clock, t.processingMin - spent)) {
            return;
        }
        if (auto self = weak.lock()) {
            self->setProcessingLine(ProcessingLine::preparingList);
        } else {
            return;
        }
        if (!sleepAndContinue(*clock, t.processingPhase3Delay)) {
            return;
        }
        if (auto self = weak.lock()) {
            self->setProcessingLine(ProcessingLine::ready);
        } else {
            return;
        }
        if (!sleepAndContinue(*clock, t.processingOpenDelay)) {
            return;
        }
        if (auto self = weak.lock()) {
            self->openSpeakerReview();
        }
    });
}

void RecordingCoordinator::openSpeakerReview() {
    {
        std::lock_guard lock(mutex_);
        if (review_.processingOpened) {
            return;
        }
        review_.processingOpened = true;
    }
    std::optional<std::string> profileName;
    if (hooks_.currentProfileName) {
        profileName = hooks_.currentProfileName();
    }
    {
        std::lock_guard lock(mutex_);
        review_.speakerList.prefillHost(profileName);
        review_.speakerList.mergeMappingResults(review_.mappingOutcomeNames);
        ++review_.speakerListVersion;
    }
    fire(RecordingEvent::processingFinished());
    notifyTick();
}

void RecordingCoordinator::startMappingTask(std::function<SpeakerMappingService::Outcome()> operation) {
    {
        std::lock_guard lock(mutex_);
        if (review_.mappingInFlight) {
            // The running task goes on, and its outcome counts.
            return;
        }
        review_.mappingInFlight = true;
    }
    cancelTask(review_.earlyMappingTask);
    notifyTick();
    startTask(review_.earlyMappingTask,
              [operation = std::move(operation)](std::weak_ptr<RecordingCoordinator> weak) {
                  auto outcome = SpeakerMappingService::Outcome::aborted();
                  try {
                      outcome = operation();
                  } catch (...) {
                      // A cancelled task ends as aborted, so that the flag below is always cleared.
                  }
                  auto self = weak.lock();
                  if (!self) {
                      return;
                  }
                  {
                      std::lock_guard lock(self->mutex_);
                      self->review_.mappingInFlight = false;
                      if (outcome.kind == SpeakerMappingService::Outcome::Kind::names) {
                          self->review_.mappingOutcomeNames = outcome.names;
                          // Names that come during the review join the open list; later ones are only kept.
                          if (self->machine_.phase() == RecordingPhase::speakerReview) {
                              self->review_.speakerList.mergeMappingResults(outcome.names);
                              ++self->review_.speakerListVersion;
                          }
                      }
                  }
                  self->log(LogLevel::info, "mapping outcome: " + outcome.description());
                  self->notifyTick();
              });
}

std::function<SpeakerMappingService::Outcome()> RecordingCoordinator::longMappingPoll() {
    using Outcome = SpeakerMappingService::Outcome;
    return [weak = weak_from_this(), mapping = mapping_]() {
        std::optional<std::string> recordingId;
        if (auto self = weak.lock()) {
            recordingId = self->currentRecordingId();
        }
        if (!recordingId) {
            return Outcome::none("no_recording");
        }
        auto meetingId = mapping->resolveMeetingId(*recordingId);
        if (!meetingId) {
            return Outcome::none("meeting_not_found");
        }
        return mapping->poll(*meetingId, mapping->config().longPollInterval,
                             mapping->config().longPollDeadline);
    };
}

std::function<SpeakerMappingService::Outcome()> RecordingCoordinator::onDemandMapping() {
    using Outcome = SpeakerMappingService::Outcome;
    return [weak = weak_from_this(), mapping = mapping_, uploader = uploader_, clock = clock_,
            wait = timings_.onDemandUploadWait]() {
        std::optional<std::string> recordingId;
        if (auto self = weak.lock()) {
            recordingId = self->currentRecordingId();
        }
        if (!recordingId) {
            return Outcome::none("no_recording");
        }
        // Let the last uploads settle, so that the backend maps the whole recording.
        auto begin = clock->now();
        while (secondsBetween(begin, clock->now()) < wait) {
            std::optional<int> last;
            std::set<int> known;
            {
                auto self = weak.lock();
                if (!self) {
                    return Outcome::none("no_recording");
                }
                std::lock_guard lock(self->mutex_);
                last = self->live_.lastSequence;
                known = self->live_.localUploaded;
            }
            if (last) {
                if (*last <= 0) {
                    break;
                }
                for (int s : uploader->uploadedSequences()) {
                    known.insert(s);
                }
                bool complete = true;
                for (int s = 1; s <= *last && complete; ++s) {
                    complete = known.count(s) == 1;
                }
                if (complete) {
                    break;
                }
            }
            if (!sleepAndContinue(*clock, 0.5)) {
                return Outcome::aborted();
            }
        }
        return mapping->runOnDemandMapping(*recordingId);
    };
}

void RecordingCoordinator::updateSpeakers(const std::function<void(SpeakerListModel&)>& mutation) {
    // The mutation runs without the lock; a merge that came in between makes it run again on fresh data.
    for (;;) {
        SpeakerListModel copy;
        std::uint64_t version = 0;
        {
            std::lock_guard lock(mutex_);
            copy = review_.speakerList;
            version = review_.speakerListVersion;
        }
        mutation(copy);
        std::lock_guard lock(mutex_);
        if (version == review_.speakerListVersion) {
            review_.speakerList = std::move(copy);
            ++review_.speakerListVersion;
            break;
        }
    }
    notifyTick();
}

void RecordingCoordinator::confirmSpeakers() {
    // A poll that still runs has no more use.
    mapping_->abort();
    fire(RecordingEvent::speakersConfirmed());
}

void RecordingCoordinator::backToSpeakerReview() {
    fire(RecordingEvent::backToSpeakers());
}

void RecordingCoordinator::updateShare(const std::function<void(ShareComposer&)>& mutation) {
    for (;;) {
        ShareComposer copy;
        std::uint64_t version = 0;
        {
            std::lock_guard lock(mutex_);
            copy = review_.share;
            version = review_.shareVersion;
        }
        mutation(copy);
        std::lock_guard lock(mutex_);
        if (version == review_.shareVersion) {
            review_.share = std::move(copy);
            ++review_.shareVersion;
            break;
        }
    }
    notifyTick();
}

void RecordingCoordinator::dismissToIdle() {
    // The manifest and the chunks stay: an unfinished recording comes back at the next sign-in.
    fire(RecordingEvent::dismissed());
    {
        std::lock_guard lock(mutex_);
        blocker_.reset();
    }
    notifyTick();
}

} // namespace kavelo
