#include "app/detection/ProcessTable.h"

#include <array>
#include <cctype>
#include <charconv>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

namespace kavelo {

namespace {

std::string readSmallFile(const std::string& path, std::size_t limit) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        return {};
    }
    std::string content(limit, '\0');
    std::size_t used = 0;
    while (used < limit) {
        auto n = ::read(fd, content.data() + used, limit - used);
        if (n <= 0) {
            break;
        }
        used += static_cast<std::size_t>(n);
    }
    ::close(fd);
    content.resize(used);
    return content;
}

std::string baseName(const std::string& path) {
    auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// systemd escapes characters in unit names as \xNN; a dash in an application id arrives as "\x2d".
std::string unescaped(const std::string& text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        unsigned value = 0;
        if (text[i] == '\\' && i + 3 < text.size() && text[i + 1] == 'x' &&
            std::from_chars(text.data() + i + 2, text.data() + i + 4, value, 16).ptr == text.data() + i + 4) {
            out += static_cast<char>(value);
            i += 3;
        } else {
            out += text[i];
        }
    }
    return out;
}

} // namespace

ProcessTable::ProcessTable(std::string procRoot) : root_(std::move(procRoot)) {}

std::string ProcessTable::desktopIdFromCgroup(const std::string& cgroup) {
    // The unified hierarchy's line is "0::/path"; the unit is the path's last component.
    auto end = cgroup.find_last_not_of("\n");
    if (end == std::string::npos) {
        return {};
    }
    auto lineStart = cgroup.rfind('\n', end);
    auto line = cgroup.substr(lineStart == std::string::npos ? 0 : lineStart + 1, end + 1 - (lineStart + 1));
    auto unit = baseName(line);
    // app[-<launcher>]-<id>-<random>.scope or app[-<launcher>]-<id>[@<random>].service
    if (!unit.starts_with("app-")) {
        return {};
    }
    std::string name = unit.substr(4);
    if (name.ends_with(".scope")) {
        name.resize(name.size() - 6);
        auto dash = name.rfind('-');
        if (dash == std::string::npos) {
            return {};
        }
        name.resize(dash);
    } else if (name.ends_with(".service")) {
        name.resize(name.size() - 8);
        if (auto at = name.find('@'); at != std::string::npos) {
            name.resize(at);
        }
    } else {
        return {};
    }
    // Launchers that name themselves in the unit; an id itself holds no dash (systemd escapes them).
    for (std::string_view launcher : {"flatpak-", "gnome-", "kde-", "xfce4-", "cinnamon-"}) {
        if (name.starts_with(launcher) && name.size() > launcher.size()) {
            name = name.substr(launcher.size());
            break;
        }
    }
    return unescaped(name);
}

std::optional<ApplicationIdentity> ProcessTable::process(pid_t pid) const {
    if (pid <= 0) {
        return std::nullopt;
    }
    auto dir = root_ + "/" + std::to_string(pid);
    auto comm = readSmallFile(dir + "/comm", 64);
    if (comm.empty()) {
        return std::nullopt; // gone, or not a process
    }
    ApplicationIdentity identity;
    identity.pid = pid;
    std::array<char, 4096> target{};
    auto length = ::readlink((dir + "/exe").c_str(), target.data(), target.size() - 1);
    if (length > 0) {
        identity.binary = baseName(std::string(target.data(), static_cast<std::size_t>(length)));
        // An executable replaced while running reads "name (deleted)".
        if (identity.binary.ends_with(" (deleted)")) {
            identity.binary.resize(identity.binary.size() - 10);
        }
    } else {
        // Another user's process: the kernel's name, cut at 15 characters.
        identity.binary = comm.substr(0, comm.find('\n'));
    }
    identity.desktopId = desktopIdFromCgroup(readSmallFile(dir + "/cgroup", maxFileBytes));
    return identity;
}

std::vector<ApplicationIdentity> ProcessTable::processes() const {
    std::vector<ApplicationIdentity> result;
    DIR* dir = ::opendir(root_.c_str());
    if (dir == nullptr) {
        return result;
    }
    std::size_t seen = 0;
    while (auto* entry = ::readdir(dir)) {
        pid_t pid = 0;
        auto name = std::string_view(entry->d_name);
        auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
        if (error != std::errc{} || end != name.data() + name.size() || pid <= 0) {
            continue;
        }
        if (++seen > maxProcesses) {
            break;
        }
        if (auto identity = process(pid)) {
            result.push_back(std::move(*identity));
        }
    }
    ::closedir(dir);
    return result;
}

} // namespace kavelo
