#include "app/shell/DashboardPreferences.h"

#include <charconv>
#include <climits>

namespace kavelo {

namespace {

constexpr auto kHasRecorded = "kavelo_has_recorded";
constexpr auto kTipCursor = "kavelo_tip_cursor";
constexpr auto kFirstRecording = "first-recording";
constexpr auto kProcessingStatus = "processing-status";
constexpr auto kReportSettings = "report-settings";
constexpr auto kPending = "pending";
constexpr auto kCompleted = "completed";

} // namespace

DashboardPreferences::DashboardPreferences(std::shared_ptr<KeyValueStore> store) : store_(std::move(store)) {}

std::string DashboardPreferences::educationKey(const std::string& mark, const std::string& userId) {
    return "kavely:coachmark:" + mark + ":v1:" + userId;
}

bool DashboardPreferences::hasRecordedBefore(const std::optional<std::string>& userId) const {
    const std::string key = userId ? std::string(kHasRecorded) + ":" + *userId : kHasRecorded;
    return store_->boolean(key).value_or(false);
}

void DashboardPreferences::markRecorded(const std::string& userId) {
    store_->setBool(true, std::string(kHasRecorded) + ":" + userId);
}

DashboardPreferences::Education DashboardPreferences::initializeEducation(const std::string& userId) {
    const auto first = store_->string(educationKey(kFirstRecording, userId));
    // Versions before per-user flags kept one flag for the computer; a user who already finished the first
    // recording's mark is taken to be the one who recorded.
    if (!hasRecordedBefore(userId) && hasRecordedBefore(std::nullopt) && first && *first != kPending) {
        markRecorded(userId);
    }
    const bool recorded = hasRecordedBefore(userId);
    const std::string fallback = recorded ? kCompleted : kPending;
    if (!first || (*first == kPending && recorded)) {
        store_->setString(fallback, educationKey(kFirstRecording, userId));
    }
    for (const char* mark : {kProcessingStatus, kReportSettings}) {
        if (!store_->string(educationKey(mark, userId))) {
            store_->setString(fallback, educationKey(mark, userId));
        }
    }
    return education(userId);
}

DashboardPreferences::Education DashboardPreferences::education(const std::string& userId) const {
    auto pending = [&](const char* mark) { return store_->string(educationKey(mark, userId)) == kPending; };
    return {pending(kFirstRecording), pending(kProcessingStatus), pending(kReportSettings)};
}

void DashboardPreferences::completeEducation(const std::string& userId, const std::string& mark) {
    store_->setString(kCompleted, educationKey(mark, userId));
}

int DashboardPreferences::nextTipCursor() {
    int cursor = 0;
    if (const auto stored = store_->string(kTipCursor)) {
        const auto* end = stored->data() + stored->size();
        const auto [stop, error] = std::from_chars(stored->data(), end, cursor);
        if (error != std::errc{} || stop != end || cursor < 0) {
            cursor = 0;
        }
    }
    // Wraps long before overflow: the card takes the cursor modulo the number of tips anyway.
    store_->setString(std::to_string(cursor == INT_MAX ? 0 : cursor + 1), kTipCursor);
    return cursor;
}

} // namespace kavelo
