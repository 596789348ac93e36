#include "app/detection/MeetingDetectionService.h"

#include "app/detection/MeetingAppTable.h"

#include <algorithm>
#include <cstdio>

namespace kavelo {

namespace {
std::string describe(const std::optional<ApplicationIdentity>& identity) {
    if (!identity) {
        return "?";
    }
    for (const auto* field :
         {&identity->desktopId, &identity->streamId, &identity->binary, &identity->streamName}) {
        if (!field->empty()) {
            return *field;
        }
    }
    return "?";
}

std::string seconds(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%f", value);
    return text;
}
} // namespace

std::shared_ptr<MeetingDetectionService> MeetingDetectionService::make(Dependencies deps) {
    return std::shared_ptr<MeetingDetectionService>(new MeetingDetectionService(std::move(deps)));
}

MeetingDetectionService::MeetingDetectionService(Dependencies deps)
    : deps_(std::move(deps)), preferences_(deps_.preferences) {}

MeetingDetectionService::~MeetingDetectionService() {
    stop();
}

void MeetingDetectionService::log(const std::string& message) {
    if (deps_.logger) {
        deps_.logger->info("detect: " + message);
    }
}

bool MeetingDetectionService::debounceHolds() const {
    return lastPromptAt_ && secondsBetween(*lastPromptAt_, deps_.clock->now()) < promptDebounceSeconds;
}

void MeetingDetectionService::prompt(const std::string& name) {
    lastPromptAt_ = deps_.clock->now();
    // Copied: the handler may replace itself or stop the service.
    auto handler = onMeetingDetected_;
    if (handler) {
        handler(name);
    }
}

void MeetingDetectionService::start() {
    stop();
    std::weak_ptr<MeetingDetectionService> weak = weak_from_this();
    timer_ = deps_.scheduler->every(scanIntervalSeconds, [weak] {
        if (auto self = weak.lock()) {
            self->frontmostScan();
        }
    });
    startMicUsageMonitor();
    frontmostScan();
}

void MeetingDetectionService::stop() {
    timer_.reset();
    flankConfirmWork_.reset();
    reattachWork_.reset();
    stopMicUsageMonitor();
}

void MeetingDetectionService::mute(const std::string& appName) {
    preferences_.mute(appName);
}

void MeetingDetectionService::forgetPrompts() {
    alreadyPromptedThisMicSession_ = false;
    promptedByFrontmostScan_.clear();
    lastPromptAt_.reset();
}

void MeetingDetectionService::startMicUsageMonitor() {
    attachToAllInputDevices();
    std::weak_ptr<MeetingDetectionService> weak = weak_from_this();
    deps_.readings->watchInputDevices(
        [weak] {
            if (auto self = weak.lock(); self && self->monitoring_) {
                self->micUsageChanged();
            }
        },
        [weak] {
            if (auto self = weak.lock(); self && self->monitoring_) {
                self->scheduleReattach();
            }
        });
    monitoring_ = true;
    log("mic-usage monitor gestart");
}

void MeetingDetectionService::stopMicUsageMonitor() {
    if (monitoring_) {
        deps_.readings->unwatchInputDevices();
        monitoring_ = false;
    }
}

void MeetingDetectionService::attachToAllInputDevices() {
    // A microphone already busy when we attach gives no edge: the scan handles a running meeting.
    micWasInUse_ = deps_.readings->anyInputDeviceInUse();
}

void MeetingDetectionService::scheduleReattach() {
    std::weak_ptr<MeetingDetectionService> weak = weak_from_this();
    reattachWork_ = deps_.scheduler->after(reattachDelaySeconds, [weak] {
        if (auto self = weak.lock()) {
            self->attachToAllInputDevices();
        }
    });
}

void MeetingDetectionService::micUsageChanged() {
    if (!deps_.readings->anyInputDeviceInUse()) {
        if (alreadyPromptedThisMicSession_) {
            log("mic vrijgegeven \xE2\x80\x94 prompt-guard gereset");
        }
        alreadyPromptedThisMicSession_ = false;
        if (flankConfirmWork_) {
            log("mic alweer vrij binnen bevestigingsvenster \xE2\x80\x94 geen prompt (device-probe)");
            flankConfirmWork_.reset();
        }
        micWasInUse_ = false;
        return;
    }
    if (micWasInUse_) {
        return;
    }
    log("mic actief geworden \xE2\x80\x94 evalueren");
    auto guard = [this](const char* line) {
        log(line);
        micWasInUse_ = true;
    };
    if (!preferences_.enabled()) {
        return guard("\xE2\x86\x92 detectie uitgeschakeld in instellingen");
    }
    if (recordingActive_ || audioTestActive_) {
        return guard("\xE2\x86\x92 onderdrukt: eigen opname/audiotest");
    }
    if (alreadyPromptedThisMicSession_) {
        return guard("\xE2\x86\x92 al geprompt deze mic-sessie");
    }
    if (debounceHolds()) {
        return guard("\xE2\x86\x92 debounce actief");
    }
    if (!activeMeetingAppName()) {
        log("\xE2\x86\x92 geen frontmost meeting-app (frontmost: " +
            describe(deps_.readings->frontmostApplication()) + ")");
        micWasInUse_ = true;
        return;
    }
    log("\xE2\x86\x92 bevestiging over " + seconds(flankConfirmDelaySeconds) +
        "s (mic moet in gebruik blijven)");
    std::weak_ptr<MeetingDetectionService> weak = weak_from_this();
    flankConfirmWork_ = deps_.scheduler->after(flankConfirmDelaySeconds, [weak] {
        if (auto self = weak.lock()) {
            self->confirmFlankPrompt();
        }
    });
    micWasInUse_ = true;
}

void MeetingDetectionService::confirmFlankPrompt() {
    flankConfirmWork_.reset();
    if (!deps_.readings->anyInputDeviceInUse()) {
        log("\xE2\x86\x92 mic niet meer in gebruik na bevestigingsvenster \xE2\x80\x94 geen prompt");
        return;
    }
    if (!preferences_.enabled() || recordingActive_ || audioTestActive_ || alreadyPromptedThisMicSession_ ||
        debounceHolds()) {
        return;
    }
    auto name = activeMeetingAppName();
    if (!name) {
        log("\xE2\x86\x92 geen frontmost meeting-app meer na bevestiging \xE2\x80\x94 geen prompt "
            "(frontmost-scan vangt "
            "dit op)");
        return;
    }
    log("\xE2\x86\x92 prompt voor " + *name + " (mic \xE2\x89\xA5" + seconds(flankConfirmDelaySeconds) +
        "s in gebruik)");
    alreadyPromptedThisMicSession_ = true;
    prompt(*name);
}

std::optional<std::string> MeetingDetectionService::activeMeetingAppName() {
    auto muted = preferences_.mutedApps();
    auto running = deps_.readings->runningApplications();
    for (const auto& entry : MeetingAppTable::meetingApps()) {
        if (std::find(muted.begin(), muted.end(), entry.name) != muted.end()) {
            continue;
        }
        for (const auto& app : running) {
            if (app.active && MeetingAppTable::matches(entry, app.identity)) {
                return entry.name;
            }
        }
    }
    auto service = frontmostBrowserService();
    if (service && std::find(muted.begin(), muted.end(), *service) == muted.end()) {
        return service;
    }
    return std::nullopt;
}

std::optional<std::string> MeetingDetectionService::frontmostBrowserService() {
    auto front = deps_.readings->frontmostApplication();
    if (!front || !MeetingAppTable::isBrowser(*front)) {
        return std::nullopt;
    }
    bool titleMissing = false;
    for (const auto& title : deps_.readings->frontmostWindowTitles()) {
        if (title.empty()) {
            titleMissing = true;
            continue;
        }
        if (auto service = MeetingAppTable::serviceFromTitle(title)) {
            return service;
        }
    }
    if (titleMissing && !loggedMissingWindowTitles_) {
        loggedMissingWindowTitles_ = true;
        log("browservenster zonder titel \xE2\x80\x94 venstertitels niet leesbaar (Wayland-venster?); "
            "browserdetectie inactief");
    }
    return std::nullopt;
}

void MeetingDetectionService::frontmostScan() {
    if (!preferences_.enabled() || recordingActive_ || audioTestActive_) {
        return;
    }
    auto muted = preferences_.mutedApps();
    auto isMuted = [&](const std::string& name) {
        return std::find(muted.begin(), muted.end(), name) != muted.end();
    };
    auto running = deps_.readings->runningApplications();
    for (const auto& entry : MeetingAppTable::meetingApps()) {
        bool present = std::any_of(running.begin(), running.end(), [&](const auto& app) {
            return MeetingAppTable::matches(entry, app.identity);
        });
        if (!present) {
            // The next meeting in that application may prompt again.
            promptedByFrontmostScan_.erase(entry.name);
        }
    }
    if (!deps_.readings->anyInputDeviceInUse()) {
        return;
    }
    for (const auto& entry : MeetingAppTable::meetingApps()) {
        if (isMuted(entry.name) || promptedByFrontmostScan_.contains(entry.name)) {
            continue;
        }
        bool active = std::any_of(running.begin(), running.end(), [&](const auto& app) {
            return app.active && MeetingAppTable::matches(entry, app.identity);
        });
        if (!active) {
            continue;
        }
        if (debounceHolds()) {
            return;
        }
        promptedByFrontmostScan_.insert(entry.name);
        log("frontmost-scan prompt voor " + entry.name + " (mic in gebruik)");
        prompt(entry.name);
        return;
    }
    auto service = frontmostBrowserService();
    if (!service || isMuted(*service) || promptedByFrontmostScan_.contains(*service) || debounceHolds()) {
        return;
    }
    promptedByFrontmostScan_.insert(*service);
    log("frontmost-scan prompt voor browserdienst " + *service + " (mic in gebruik)");
    prompt(*service);
}

} // namespace kavelo
