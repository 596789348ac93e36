#include "core/workspace/DashboardActivityCenter.h"

#include "core/support/AtomicFile.h"
#include "core/support/Task.h"
#include "core/support/UnicodeText.h"
#include "core/workspace/DashboardActivityFile.h"

#include <algorithm>
#include <chrono>

namespace kavelo {

namespace {

TimePoint toStoredPrecision(TimePoint date) {
    return std::chrono::floor<std::chrono::milliseconds>(date);
}

TimePoint recencyKey(const DashboardActivityItem& item) {
    return item.deliveredAt ? *item.deliveredAt : item.submittedAt;
}

DashboardActivityPhase advanced(DashboardActivityPhase current, RecordingStatusPhase reported) {
    switch (reported) {
    case RecordingStatusPhase::recording:
    case RecordingStatusPhase::failed:
        return current;
    case RecordingStatusPhase::transcribing:
        return current == DashboardActivityPhase::submitted ? DashboardActivityPhase::transcribing : current;
    case RecordingStatusPhase::generating:
        return current == DashboardActivityPhase::delivered ? current : DashboardActivityPhase::generating;
    case RecordingStatusPhase::delivered:
        return DashboardActivityPhase::delivered;
    }
    return current;
}

} // namespace

DashboardActivityCenter::DashboardActivityCenter(std::filesystem::path directory, NowFunction now)
    : directory_(std::move(directory)),
      now_(now ? std::move(now) : NowFunction([] { return std::chrono::system_clock::now(); })) {}

bool DashboardActivityCenter::usableUserId(const std::string& userId) {
    return !userId.empty() && userId.size() <= maxUserIdBytes && userId.find('\0') == std::string::npos;
}

std::filesystem::path DashboardActivityCenter::fileFor(const std::string& userId) const {
    std::string name = userId;
    std::replace(name.begin(), name.end(), '/', '_');
    return directory_ / ("dashboard-activity-" + name + ".json");
}

bool DashboardActivityCenter::byRecency(const DashboardActivityItem& a, const DashboardActivityItem& b) {
    return recencyKey(a) > recencyKey(b);
}

std::vector<DashboardActivityItem> DashboardActivityCenter::retain(std::vector<DashboardActivityItem> items) {
    std::stable_sort(items.begin(), items.end(), byRecency);
    std::vector<DashboardActivityItem> kept;
    std::size_t active = 0;
    std::size_t delivered = 0;
    for (auto& item : items) {
        if (item.phase == DashboardActivityPhase::delivered) {
            if (delivered++ < deliveredLimit) {
                kept.push_back(std::move(item));
            }
        } else if (active++ < activeLimit) {
            kept.push_back(std::move(item));
        }
    }
    // Both groups were taken from one list in recency order, so the join is already in that order.
    return kept;
}

std::vector<DashboardActivityItem> DashboardActivityCenter::items(const std::string& userId) const {
    if (!usableUserId(userId)) {
        return {};
    }
    auto data = DashboardActivityFile::readBounded(fileFor(userId));
    if (!data) {
        return {};
    }
    auto decoded = DashboardActivityFile::decode(*data);
    return decoded ? retain(std::move(*decoded)) : std::vector<DashboardActivityItem>{};
}

std::vector<DashboardActivityItem>
DashboardActivityCenter::writeLocked(const std::string& userId, std::vector<DashboardActivityItem> items) {
    auto kept = retain(std::move(items));
    // The file keeps milliseconds; the caller gets the list exactly as the next read will give it.
    for (auto& item : kept) {
        item.submittedAt = toStoredPrecision(item.submittedAt);
        item.updatedAt = toStoredPrecision(item.updatedAt);
        if (item.deliveredAt) {
            item.deliveredAt = toStoredPrecision(*item.deliveredAt);
        }
    }
    try {
        createPrivateDirectories(directory_);
    } catch (const std::exception&) {
        // The write below fails too and says nothing more; the list stays as it was on disk.
    }
    try {
        writeFileAtomically(fileFor(userId), DashboardActivityFile::encode(kept));
    } catch (const std::exception&) {
        // A full or read-only disk loses this update only; the next poll writes again.
    }
    return kept;
}

std::vector<DashboardActivityItem> DashboardActivityCenter::queue(const std::string& userId,
                                                                  const std::string& recordingId,
                                                                  const std::optional<std::string>& meetingId,
                                                                  const std::string& meetingName) {
    if (!usableUserId(userId) || recordingId.empty()) {
        return items(userId);
    }
    std::lock_guard lock(mutex_);
    const TimePoint now = now_();
    auto list = items(userId);
    auto existing = std::find_if(list.begin(), list.end(), [&](const DashboardActivityItem& item) {
        return item.recordingId == recordingId;
    });
    if (existing != list.end()) {
        existing->meetingName =
            UnicodeText::prefix(meetingName, DashboardActivityItem::maxMeetingNameCharacters);
        if (meetingId) {
            existing->meetingId = meetingId;
        }
        existing->updatedAt = now;
    } else {
        DashboardActivityItem item;
        item.id = meetingId ? *meetingId : recordingId;
        item.recordingId = recordingId;
        item.meetingId = meetingId;
        item.meetingName = UnicodeText::prefix(UnicodeText::trimBlanksAndNewlines(meetingName),
                                               DashboardActivityItem::maxMeetingNameCharacters);
        item.submittedAt = now;
        item.updatedAt = now;
        list.insert(list.begin(), std::move(item));
    }
    return writeLocked(userId, std::move(list));
}

std::vector<DashboardActivityItem> DashboardActivityCenter::refresh(const std::string& userId,
                                                                    RecordingStatusProviding& provider) {
    if (!usableUserId(userId)) {
        return {};
    }
    // The network calls happen without the lock, so a queue() meanwhile is not held up.
    std::vector<Observation> observations;
    bool pending = false;
    for (const auto& item : items(userId)) {
        if (item.phase == DashboardActivityPhase::delivered) {
            continue;
        }
        pending = true;
        if (Task::isCurrentCancelled()) {
            break;
        }
        try {
            auto meetingId = item.meetingId ? item.meetingId : provider.resolveMeetingId(item.recordingId);
            if (!meetingId || meetingId->empty()) {
                continue;
            }
            if (auto status = provider.fetchStatus(*meetingId)) {
                observations.push_back({item.id, *meetingId, *status});
            }
        } catch (const std::exception&) {
            // No news about this item; the next poll asks again.
        }
    }
    if (!pending) {
        return items(userId);
    }
    std::lock_guard lock(mutex_);
    auto list = items(userId); // read again: a queue() during the calls above must not be lost
    const TimePoint now = now_();
    for (const auto& observation : observations) {
        mergeLocked(list, observation, now);
    }
    return writeLocked(userId, std::move(list));
}

void DashboardActivityCenter::mergeLocked(std::vector<DashboardActivityItem>& items,
                                          const Observation& observation, TimePoint now) {
    auto it = std::find_if(items.begin(), items.end(),
                           [&](const DashboardActivityItem& item) { return item.id == observation.itemId; });
    if (it == items.end()) {
        return;
    }
    const bool oldEnough = secondsBetween(it->submittedAt, now) >= slowAfter;
    if (observation.status.phase == RecordingStatusPhase::failed) {
        if (++failedObservations_[it->id] >= failedConfirmationPolls) {
            failedObservations_.erase(it->id);
            items.erase(it);
            return;
        }
        it->slow = oldEnough;
        it->updatedAt = now;
        return;
    }
    failedObservations_.erase(it->id);
    it->meetingId = observation.meetingId;
    it->phase = advanced(it->phase, observation.status.phase);
    if (it->phase == DashboardActivityPhase::delivered) {
        if (observation.status.deliveredAt) {
            it->deliveredAt = observation.status.deliveredAt;
        } else if (!it->deliveredAt) {
            it->deliveredAt = now;
        }
    }
    if (observation.status.recipientCount) {
        it->recipientCount = observation.status.recipientCount;
    }
    it->slow = oldEnough && observation.status.slow;
    it->updatedAt = now;
}

} // namespace kavelo
