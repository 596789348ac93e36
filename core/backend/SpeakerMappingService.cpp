#include "core/backend/SpeakerMappingService.h"

#include "core/backend/PrintedForm.h"

namespace kavelo {

std::string SpeakerMappingService::Outcome::description() const {
    switch (kind) {
    case Kind::names: {
        std::string text = "names([";
        for (std::size_t i = 0; i < names.size(); ++i) {
            text += (i ? ", " : "") + PrintedForm::quoted(names[i]);
        }
        return text + "])";
    }
    case Kind::none:
        return "none(reason: " + PrintedForm::quoted(reason) + ")";
    case Kind::aborted:
        return "aborted";
    }
    return "aborted";
}

SpeakerMappingService::SpeakerMappingService(std::shared_ptr<RecordingAPI> api, std::shared_ptr<Clock> clock,
                                             Config config)
    : api_(std::move(api)), clock_(std::move(clock)), config_(config) {}

SpeakerMappingService::SpeakerMappingService(std::shared_ptr<RecordingAPI> api, std::shared_ptr<Clock> clock)
    : SpeakerMappingService(std::move(api), std::move(clock), Config{}) {}

bool SpeakerMappingService::isAborted() const {
    std::lock_guard lock(mutex_);
    return abortFlag_;
}

void SpeakerMappingService::abort() {
    std::lock_guard lock(mutex_);
    abortFlag_ = true;
}

void SpeakerMappingService::resetForNewStopFlow() {
    std::lock_guard lock(mutex_);
    abortFlag_ = false;
}

void SpeakerMappingService::resetForNewRecording() {
    std::lock_guard lock(mutex_);
    abortFlag_ = false;
    didPostOnDemand_ = false;
    cachedMeetingId_.reset();
}

std::optional<std::string> SpeakerMappingService::resolveMeetingId(const std::string& recordingId) {
    {
        std::lock_guard lock(mutex_);
        if (cachedMeetingId_) {
            return cachedMeetingId_;
        }
    }
    std::optional<std::string> meetingId;
    try {
        meetingId = api_->resolveMeetingId(recordingId);
    } catch (...) {
        // The row may simply not be there yet; the next call asks again.
        return std::nullopt;
    }
    if (meetingId) {
        std::lock_guard lock(mutex_);
        cachedMeetingId_ = meetingId;
    }
    return meetingId;
}

SpeakerMappingService::Outcome
SpeakerMappingService::pollLongRecordingMapping(const std::string& recordingId) {
    auto meetingId = resolveMeetingId(recordingId);
    if (!meetingId) {
        return Outcome::none("meeting_not_found");
    }
    return poll(*meetingId, config_.longPollInterval, config_.longPollDeadline);
}

SpeakerMappingService::Outcome SpeakerMappingService::runOnDemandMapping(const std::string& recordingId) {
    if (isAborted()) {
        return Outcome::aborted();
    }
    auto meetingId = resolveMeetingId(recordingId);
    if (!meetingId) {
        return Outcome::none("meeting_not_found");
    }
    {
        // Set before the call and never cleared on failure: a recording gets at most one trigger.
        std::lock_guard lock(mutex_);
        if (didPostOnDemand_) {
            return Outcome::none("already_posted");
        }
        didPostOnDemand_ = true;
    }
    EarlyMappingDispatch dispatch;
    try {
        dispatch = api_->triggerEarlySpeakerMapping(*meetingId);
    } catch (...) {
        return Outcome::none("dispatch_failed");
    }
    if (dispatch.shouldPoll()) {
        return poll(*meetingId, config_.onDemandPollInterval, config_.onDemandPollDeadline);
    }
    return Outcome::none(dispatch.reason.value_or(dispatch.status.value_or("rejected")));
}

SpeakerMappingService::Outcome SpeakerMappingService::poll(const std::string& meetingId, double interval,
                                                           double deadline) {
    const auto started = clock_->now();
    int grace = config_.gracePolls;
    for (;;) {
        if (isAborted()) {
            return Outcome::aborted();
        }
        // A round that starts exactly at the deadline still polls.
        if (secondsBetween(started, clock_->now()) > deadline) {
            return Outcome::none("timeout");
        }
        try {
            auto row = api_->fetchMeetingMapping(meetingId);
            if (!row.participants.empty()) {
                return Outcome::withNames(std::move(row.participants));
            }
            const auto& status = row.earlyMappingStatus;
            if (status == "failed") {
                return Outcome::none("failed");
            }
            // The status may be written a moment before the participants become visible, hence the grace.
            if (status == "done" || status == "skipped") {
                if (grace <= 0) {
                    return Outcome::none(*status);
                }
                --grace;
            }
        } catch (...) {
            // A failed read ends nothing; the next round asks again (a cancelled task ends at the sleep).
        }
        try {
            clock_->sleep(interval);
        } catch (...) {
            return Outcome::aborted();
        }
    }
}

} // namespace kavelo
