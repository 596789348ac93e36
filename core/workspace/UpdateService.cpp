#include "core/workspace/UpdateService.h"

#include "core/workspace/SemVer.h"

namespace kavelo {

UpdateService::UpdateService(std::shared_ptr<UpdateBackend> backend, std::shared_ptr<KeyValueStore> store,
                             std::string currentVersion, std::shared_ptr<Clock> clock)
    : backend_(std::move(backend)), store_(std::move(store)), currentVersion_(std::move(currentVersion)),
      clock_(std::move(clock)) {}

UpdateStatus UpdateService::evaluate(const UpdatePolicy& policy, const std::string& currentVersion,
                                     TimePoint now) {
    if (SemVer::compare(currentVersion, policy.minimumSupportedVersion) < 0) {
        if (policy.mandatoryAfter && now < *policy.mandatoryAfter) {
            return UpdateStatus::updateAvailable(policy);
        }
        return UpdateStatus::updateRequired(policy);
    }
    if (SemVer::compare(currentVersion, policy.latestVersion) < 0) {
        return UpdateStatus::updateAvailable(policy);
    }
    return UpdateStatus::upToDate();
}

UpdateStatus UpdateService::cachedStatus() const {
    std::lock_guard lock(mutex_);
    return lastStatus_;
}

UpdateStatus UpdateService::checkForUpdates() {
    UpdatePolicy policy;
    try {
        policy = backend_->fetchPolicy();
    } catch (const std::exception&) {
        return cachedStatus();
    }
    UpdateStatus status = evaluate(policy, currentVersion_, clock_->now());
    std::lock_guard lock(mutex_);
    lastStatus_ = status;
    return status;
}

bool UpdateService::isUpdateRequired() {
    return checkForUpdates().kind() == UpdateStatus::Kind::updateRequired;
}

std::vector<ReleaseNote> UpdateService::releaseNotes() {
    try {
        return backend_->fetchReleaseNotes();
    } catch (const std::exception&) {
        return {};
    }
}

std::vector<ReleaseNote> UpdateService::unseenReleaseNotes() {
    // A value edited by hand into something that is no version counts as never seen.
    const auto stored = store_->string(kLastSeenReleaseKey);
    const std::string_view lastSeen =
        stored && SemVer::isAcceptable(*stored) ? std::string_view(*stored) : "0";
    std::vector<ReleaseNote> unseen;
    for (ReleaseNote& note : releaseNotes()) {
        if (SemVer::compare(note.version, lastSeen) > 0 &&
            SemVer::compare(note.version, currentVersion_) <= 0) {
            unseen.push_back(std::move(note));
        }
    }
    return unseen;
}

void UpdateService::markReleaseNotesSeen() {
    store_->setString(currentVersion_, kLastSeenReleaseKey);
}

} // namespace kavelo
