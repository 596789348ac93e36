// After the stop: background reconciliation with the server's chunk list, the staged processing screen,
// the mapping tasks that look for the participants' names, and the speaker and share review.
#include "core/recording/RecordingCoordinator.h"

#include <algorithm>

namespace kavelo {

void RecordingCoordinator::startBackgroundReconciliation() {
    cancelTask(&RecordingCoordinator::preverifyTask_);
    std::optional<std::string> recordingId;
    std::optional<int> last;
    {
        std::lock_guard lock(mutex_);
        recordingId = recordingId_;
        last = lastSequence_;
    }
    if (!recordingId || !last || *last < 1) {
        return;
    }
    startTask(&RecordingCoordinator::preverifyTask_, [id = *recordingId, last = *last, api = api_,
                                                      uploader = uploader_, clock = clock_](
                                                         std::weak_ptr<RecordingCoordinator> weak) {
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
                    self->localUploaded_.insert(onServer.begin(), onServer.end());
                    known = self->localUploaded_;
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
        processingLine_ = line;
    }
    notifyTick();
}

void RecordingCoordinator::runProcessingSequence() {
    bool isLong = false;
    bool silent = false;
    {
        auto now = clock_->now();
        std::lock_guard lock(mutex_);
        processingLine_ = ProcessingLine::secured;
        processingOpened_ = false;
        isLong = timings_.longRecordingThreshold <= elapsedActiveSecondsLocked(now);
        silent = warnings_.noAudio;
    }
    cancelTask(&RecordingCoordinator::processingTask_);
    notifyTick();
    startTask(&RecordingCoordinator::processingTask_, [isLong, silent, clock = clock_, t = timings_](
                                                          std::weak_ptr<RecordingCoordinator> weak) {
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
                inFlight = self->mappingInFlight_;
                finalChunkSeen = self->lastSequence_ && *self->lastSequence_ >= 1 &&
                                 self->receivedSequences_.count(*self->lastSequence_) == 1;
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
        if (processingOpened_) {
            return;
        }
        processingOpened_ = true;
    }
    std::optional<std::string> profileName;
    if (hooks_.currentProfileName) {
        profileName = hooks_.currentProfileName();
    }
    {
        std::lock_guard lock(mutex_);
        speakerList_.prefillHost(profileName);
        speakerList_.mergeMappingResults(mappingOutcomeNames_);
        ++speakerListVersion_;
    }
    fire(RecordingEvent::processingFinished());
    notifyTick();
}

void RecordingCoordinator::startMappingTask(std::function<SpeakerMappingService::Outcome()> operation) {
    {
        std::lock_guard lock(mutex_);
        if (mappingInFlight_) {
            // The running task goes on, and its outcome counts.
            return;
        }
        mappingInFlight_ = true;
    }
    cancelTask(&RecordingCoordinator::earlyMappingTask_);
    notifyTick();
    startTask(&RecordingCoordinator::earlyMappingTask_,
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
                      self->mappingInFlight_ = false;
                      if (outcome.kind == SpeakerMappingService::Outcome::Kind::names) {
                          self->mappingOutcomeNames_ = outcome.names;
                          // Names that come during the review join the open list; later ones are only kept.
                          if (self->machine_.phase() == RecordingPhase::speakerReview) {
                              self->speakerList_.mergeMappingResults(outcome.names);
                              ++self->speakerListVersion_;
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
                last = self->lastSequence_;
                known = self->localUploaded_;
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
            copy = speakerList_;
            version = speakerListVersion_;
        }
        mutation(copy);
        std::lock_guard lock(mutex_);
        if (version == speakerListVersion_) {
            speakerList_ = std::move(copy);
            ++speakerListVersion_;
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
            copy = share_;
            version = shareVersion_;
        }
        mutation(copy);
        std::lock_guard lock(mutex_);
        if (version == shareVersion_) {
            share_ = std::move(copy);
            ++shareVersion_;
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
