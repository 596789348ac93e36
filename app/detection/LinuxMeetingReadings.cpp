#include "app/detection/LinuxMeetingReadings.h"

#include <algorithm>

namespace kavelo {

LinuxMeetingReadings::LinuxMeetingReadings(std::unique_ptr<EwmhWindowReader> windows, bool standInOnWayland,
                                           ProcessTable processes)
    : windows_(std::move(windows)), standInOnWayland_(standInOnWayland), processes_(std::move(processes)) {}

void LinuxMeetingReadings::updateCaptureClients(std::vector<CaptureClient> clients) {
    if (clients == clients_) {
        return;
    }
    clients_ = std::move(clients);
    if (auto callback = onInputUse_) {
        callback();
    }
}

void LinuxMeetingReadings::deviceListChanged() {
    if (auto callback = onDeviceList_) {
        callback();
    }
}

void LinuxMeetingReadings::watchInputDevices(std::function<void()> onInputUse,
                                             std::function<void()> onDeviceList) {
    onInputUse_ = std::move(onInputUse);
    onDeviceList_ = std::move(onDeviceList);
}

void LinuxMeetingReadings::unwatchInputDevices() {
    onInputUse_ = nullptr;
    onDeviceList_ = nullptr;
}

ApplicationIdentity LinuxMeetingReadings::identityOf(const CaptureClient& client) const {
    auto identity = processes_.process(client.pid).value_or(ApplicationIdentity{});
    identity.pid = client.pid;
    identity.streamName = client.applicationName;
    identity.streamId = client.applicationId;
    if (!client.processBinary.empty()) {
        identity.binary = client.processBinary;
    }
    return identity;
}

bool LinuxMeetingReadings::standingIn() {
    if (!windows_) {
        return true;
    }
    return standInOnWayland_ && !windows_->activeWindow();
}

std::vector<MeetingReadings::RunningApplication> LinuxMeetingReadings::runningApplications() {
    std::vector<RunningApplication> apps;
    bool standIn = standingIn();
    auto front = standIn ? std::optional<ApplicationIdentity>{} : frontmostApplication();
    bool frontListed = false;
    for (auto& identity : processes_.processes()) {
        if (front && front->pid == identity.pid) {
            // The front identity also carries the window class, where the process has no .desktop id.
            apps.push_back({*front, true});
            frontListed = true;
        } else {
            apps.push_back({std::move(identity), false});
        }
    }
    if (front && !frontListed) {
        apps.push_back({*front, true}); // gone from /proc since, or in a process namespace of its own
    }
    // The streams' own names: a Flatpak'd or renamed binary is often known only by them.
    for (const auto& client : clients_) {
        auto identity = identityOf(client);
        bool active = standIn || (front && front->pid == identity.pid);
        apps.push_back({std::move(identity), active});
    }
    return apps;
}

std::optional<ApplicationIdentity> LinuxMeetingReadings::frontmostApplication() {
    if (windows_) {
        if (auto active = windows_->activeWindow()) {
            auto identity = processes_.process(active->pid).value_or(ApplicationIdentity{});
            identity.pid = active->pid;
            if (identity.desktopId.empty()) {
                identity.desktopId = active->windowClass;
            }
            return identity;
        }
        if (!standInOnWayland_) {
            return std::nullopt;
        }
    }
    // The most recent capture stream's owner stands in for the front application.
    if (clients_.empty()) {
        return std::nullopt;
    }
    return identityOf(clients_.back());
}

std::vector<std::string> LinuxMeetingReadings::frontmostWindowTitles() {
    if (!windows_) {
        return {};
    }
    auto active = windows_->activeWindow();
    return active ? windows_->titlesOf(active->pid) : std::vector<std::string>{};
}

} // namespace kavelo
