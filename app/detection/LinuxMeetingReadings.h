#pragma once

#include "app/detection/EwmhWindowReader.h"
#include "app/detection/MeetingReadings.h"
#include "app/detection/ProcessTable.h"

#include <memory>

namespace kavelo {

// The readings on a Linux desktop. Microphone use is pushed in from the audio layer (the capture streams
// of other programs on real inputs, from the server's events); processes come from /proc; the front
// application and its window titles from the X server through EWMH.
//
// Without an X server (a pure Wayland session), or when the active window is a native Wayland window,
// no program may learn which application is in front. Then every application that owns a capture stream
// stands in for the front one, and no window titles are read, so browser tabs are not recognised.
//
// Single-threaded: the owner calls everything, including updateCaptureClients, on one thread.
class LinuxMeetingReadings final : public MeetingReadings {
  public:
    struct CaptureClient {
        pid_t pid = 0;
        std::string applicationName;
        std::string processBinary;
        std::string applicationId;
        bool operator==(const CaptureClient&) const = default;
    };

    // windows may be null (no X server). standInOnWayland: the session is Wayland, so an X server that
    // shows no active window means a Wayland window is in front, not that nothing is.
    LinuxMeetingReadings(std::unique_ptr<EwmhWindowReader> windows, bool standInOnWayland,
                         ProcessTable processes = ProcessTable());

    // From the audio layer: the programs now capturing from a real input. Calls the use watcher.
    void updateCaptureClients(std::vector<CaptureClient> clients);
    // From the audio layer: input devices came or went.
    void deviceListChanged();

    bool anyInputDeviceInUse() override { return !clients_.empty(); }
    std::vector<RunningApplication> runningApplications() override;
    std::optional<ApplicationIdentity> frontmostApplication() override;
    std::vector<std::string> frontmostWindowTitles() override;
    void watchInputDevices(std::function<void()> onInputUse, std::function<void()> onDeviceList) override;
    void unwatchInputDevices() override;

  private:
    [[nodiscard]] ApplicationIdentity identityOf(const CaptureClient& client) const;
    [[nodiscard]] bool standingIn();

    std::unique_ptr<EwmhWindowReader> windows_;
    const bool standInOnWayland_;
    ProcessTable processes_;
    std::vector<CaptureClient> clients_;
    std::function<void()> onInputUse_;
    std::function<void()> onDeviceList_;
};

} // namespace kavelo
