#pragma once

#include <string>
#include <sys/types.h>

namespace kavelo {

// What names one running application on Linux. A process seen in /proc has a binary and, when a desktop
// launched it, a .desktop id (a Flatpak id for a Flatpak); a capture stream carries the audio server's
// application properties. Any field may be empty: each source knows only some of them.
struct ApplicationIdentity {
    pid_t pid = 0;
    std::string desktopId;  // without ".desktop"; also the X11 window class of the front window
    std::string binary;     // file name of the executable, or application.process.binary
    std::string streamName; // application.name of a capture stream
    std::string streamId;   // application.id of a capture stream
    bool operator==(const ApplicationIdentity&) const = default;
};

} // namespace kavelo
