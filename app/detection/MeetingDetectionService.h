#pragma once

#include "app/detection/DetectionPreferences.h"
#include "app/detection/MainThreadScheduler.h"
#include "app/detection/MeetingReadings.h"
#include "core/support/Clock.h"
#include "core/support/CoreLogger.h"

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>

namespace kavelo {

// Notices that the user has gone into a call and offers to record it, through onMeetingDetected(name).
//
// Two signals together decide: the microphone is in use, and a known meeting application (or a browser
// tab of a meeting service) is in front. Two triggers share one debounce: the rising edge of microphone
// use, confirmed after a short delay so that the brief probe many applications make at launch does not
// count, and a slow scan that catches a meeting that was already running or came to the front later.
//
// Single-threaded: every member, every readings callback and all scheduled work run on the thread that
// owns the service (the GUI thread). Scheduled work holds the service weakly.
class MeetingDetectionService : public std::enable_shared_from_this<MeetingDetectionService> {
  public:
    static constexpr double scanIntervalSeconds = 20.0;
    static constexpr double flankConfirmDelaySeconds = 2.0;
    static constexpr double promptDebounceSeconds = 90.0;
    static constexpr double reattachDelaySeconds = 0.4;

    struct Dependencies {
        std::shared_ptr<MeetingReadings> readings;
        std::shared_ptr<MainThreadScheduler> scheduler;
        std::shared_ptr<Clock> clock;
        std::shared_ptr<KeyValueStore> preferences;
        std::shared_ptr<CoreLogger> logger;
    };

    static std::shared_ptr<MeetingDetectionService> make(Dependencies deps);
    ~MeetingDetectionService();
    MeetingDetectionService(const MeetingDetectionService&) = delete;
    MeetingDetectionService& operator=(const MeetingDetectionService&) = delete;

    void start();
    void stop();
    // Never prompt for this application again (stored with the preferences).
    void mute(const std::string& appName);
    // The recording phase is not idle: our own microphone use must not prompt.
    void setRecordingActive(bool active) { recordingActive_ = active; }
    // An audio test holds the microphone.
    void setAudioTestActive(bool active) { audioTestActive_ = active; }
    void setOnMeetingDetected(std::function<void(const std::string&)> handler) {
        onMeetingDetected_ = std::move(handler);
    }
    // Forgets what was prompted (for a new session): the next meeting prompts even within the debounce.
    void forgetPrompts();

  private:
    explicit MeetingDetectionService(Dependencies deps);

    void log(const std::string& message);
    [[nodiscard]] bool debounceHolds() const;
    void prompt(const std::string& name);

    void startMicUsageMonitor();
    void stopMicUsageMonitor();
    void attachToAllInputDevices();
    void scheduleReattach();
    void micUsageChanged();
    void confirmFlankPrompt();
    [[nodiscard]] std::optional<std::string> activeMeetingAppName();
    [[nodiscard]] std::optional<std::string> frontmostBrowserService();
    void frontmostScan();

    const Dependencies deps_;
    DetectionPreferences preferences_;
    std::function<void(const std::string&)> onMeetingDetected_;
    bool recordingActive_ = false;
    bool audioTestActive_ = false;
    bool alreadyPromptedThisMicSession_ = false;
    std::set<std::string> promptedByFrontmostScan_;
    std::optional<TimePoint> lastPromptAt_;
    bool monitoring_ = false;
    bool micWasInUse_ = false;
    bool loggedMissingWindowTitles_ = false;
    std::unique_ptr<MainThreadScheduler::Handle> timer_;
    std::unique_ptr<MainThreadScheduler::Handle> reattachWork_;
    std::unique_ptr<MainThreadScheduler::Handle> flankConfirmWork_;
};

} // namespace kavelo
