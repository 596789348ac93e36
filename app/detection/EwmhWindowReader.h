#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

struct xcb_connection_t;

namespace kavelo {

// Reads the front window and window titles from an X server (X11, or XWayland under a Wayland desktop)
// through the window manager's EWMH properties on the root window: _NET_ACTIVE_WINDOW, the stacking
// order, and per window _NET_WM_PID, _NET_WM_NAME and WM_CLASS.
//
// Every read answers in the negative when the server is gone or a property is missing or malformed.
// Thread-safety: one thread (the owner's).
class EwmhWindowReader {
  public:
    struct ActiveWindow {
        pid_t pid = 0;
        std::string windowClass; // the class half of WM_CLASS, often the .desktop id
    };

    // Windows and title lengths beyond these are not read: both come from other programs.
    static constexpr std::size_t maxWindows = 1024;
    static constexpr std::size_t maxTitleBytes = 1024;

    // Connects to the display named (empty: $DISPLAY). Null when there is no X server to talk to.
    static std::unique_ptr<EwmhWindowReader> connect(const std::string& display = {});
    ~EwmhWindowReader();
    EwmhWindowReader(const EwmhWindowReader&) = delete;
    EwmhWindowReader& operator=(const EwmhWindowReader&) = delete;

    // The active window's process. None when no window is active or its process is unknown (a native
    // Wayland window is active, or the window manager sets no _NET_WM_PID).
    [[nodiscard]] std::optional<ActiveWindow> activeWindow();
    // Titles of the process's normal windows, front to back; "" for a window without a title.
    [[nodiscard]] std::vector<std::string> titlesOf(pid_t pid);

  private:
    struct Atoms;
    EwmhWindowReader(xcb_connection_t* connection, std::uint32_t root);
    [[nodiscard]] std::vector<std::uint32_t> windowList(std::uint32_t window, std::uint32_t property);
    [[nodiscard]] std::optional<std::string> text(std::uint32_t window, std::uint32_t property,
                                                  std::uint32_t type, std::size_t maxBytes);
    [[nodiscard]] pid_t pidOf(std::uint32_t window);
    [[nodiscard]] bool isNormal(std::uint32_t window);

    xcb_connection_t* connection_;
    std::uint32_t root_;
    std::unique_ptr<Atoms> atoms_;
};

} // namespace kavelo
