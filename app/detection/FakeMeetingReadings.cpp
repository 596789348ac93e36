#include "app/detection/FakeMeetingReadings.h"

#include <algorithm>

namespace kavelo {

std::vector<MeetingReadings::RunningApplication> FakeMeetingReadings::runningApplications() {
    std::vector<RunningApplication> apps;
    for (const auto& app : running_) {
        apps.push_back({app.identity, app.active || (frontmost_ && frontmost_->pid == app.identity.pid)});
    }
    return apps;
}

void FakeMeetingReadings::watchInputDevices(std::function<void()> onInputUse,
                                            std::function<void()> onDeviceList) {
    onInputUse_ = std::move(onInputUse);
    onDeviceList_ = std::move(onDeviceList);
}

void FakeMeetingReadings::unwatchInputDevices() {
    onInputUse_ = nullptr;
    onDeviceList_ = nullptr;
}

void FakeMeetingReadings::setMicrophoneInUse(bool inUse, bool notify) {
    micInUse_ = inUse;
    if (auto callback = onInputUse_; callback && notify) {
        callback();
    }
}

void FakeMeetingReadings::changeDeviceList() {
    if (auto callback = onDeviceList_) {
        callback();
    }
}

void FakeMeetingReadings::removeRunning(pid_t pid) {
    std::erase_if(running_, [pid](const RunningApplication& app) { return app.identity.pid == pid; });
    if (frontmost_ && frontmost_->pid == pid) {
        frontmost_.reset();
    }
}

} // namespace kavelo
