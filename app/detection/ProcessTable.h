#pragma once

#include "app/detection/ApplicationIdentity.h"

#include <optional>
#include <string>
#include <vector>

namespace kavelo {

// The running processes as applications, from /proc: the binary of each (the executable's file name, or
// the kernel's short name when the executable cannot be read) and, when a desktop started it, its .desktop
// or Flatpak id from the systemd unit it runs in ("app-flatpak-us.zoom.Zoom-1234.scope").
class ProcessTable {
  public:
    // Entries and bytes read are bounded: /proc describes other users' programs too.
    static constexpr std::size_t maxProcesses = 32768;
    static constexpr std::size_t maxFileBytes = 4096;

    explicit ProcessTable(std::string procRoot = "/proc");

    [[nodiscard]] std::vector<ApplicationIdentity> processes() const;
    [[nodiscard]] std::optional<ApplicationIdentity> process(pid_t pid) const;

    // The application id in a cgroup file's last line, or "" when the process runs in no application unit.
    [[nodiscard]] static std::string desktopIdFromCgroup(const std::string& cgroup);

  private:
    std::string root_;
};

} // namespace kavelo
