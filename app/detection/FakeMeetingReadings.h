#pragma once

#include "app/detection/MeetingReadings.h"

namespace kavelo {

// Readings set by hand, for tests and for trying the prompt without a meeting. Changing microphone use
// through setMicrophoneInUse delivers the watch callback as the audio server's event would.
class FakeMeetingReadings final : public MeetingReadings {
  public:
    bool anyInputDeviceInUse() override { return micInUse_; }
    std::vector<RunningApplication> runningApplications() override;
    std::optional<ApplicationIdentity> frontmostApplication() override { return frontmost_; }
    std::vector<std::string> frontmostWindowTitles() override { return titles_; }
    void watchInputDevices(std::function<void()> onInputUse, std::function<void()> onDeviceList) override;
    void unwatchInputDevices() override;

    // notify false changes the reading without the audio server's event (a device that came busy).
    void setMicrophoneInUse(bool inUse, bool notify = true);
    void changeDeviceList();
    // Adds a running application. It counts as active when it is the frontmost one (same pid) or when
    // added as active: on Wayland every owner of a capture stream stands in for the front application.
    void addRunning(ApplicationIdentity identity, bool active = false) {
        running_.push_back({std::move(identity), active});
    }
    void removeRunning(pid_t pid);
    void setFrontmost(std::optional<ApplicationIdentity> identity) { frontmost_ = std::move(identity); }
    void setWindowTitles(std::vector<std::string> titles) { titles_ = std::move(titles); }
    [[nodiscard]] bool watching() const { return static_cast<bool>(onInputUse_); }

  private:
    bool micInUse_ = false;
    std::vector<RunningApplication> running_;
    std::optional<ApplicationIdentity> frontmost_;
    std::vector<std::string> titles_;
    std::function<void()> onInputUse_;
    std::function<void()> onDeviceList_;
};

} // namespace kavelo
