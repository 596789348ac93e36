#include "app/detection/ProcessTable.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <unistd.h>

using namespace kavelo;
namespace fs = std::filesystem;

namespace {

TEST(ProcessTableTest, DesktopIdFromTheApplicationUnit) {
    auto prefix = std::string("0::/user.slice/user-1000.slice/user@1000.service/app.slice/");
    EXPECT_EQ(ProcessTable::desktopIdFromCgroup(prefix + "app-flatpak-us.zoom.Zoom-12345.scope\n"),
              "us.zoom.Zoom");
    EXPECT_EQ(ProcessTable::desktopIdFromCgroup(prefix + "app-gnome-slack-4567.scope\n"), "slack");
    EXPECT_EQ(ProcessTable::desktopIdFromCgroup(prefix + "app-gnome-teams\\x2dfor\\x2dlinux-99.scope"),
              "teams-for-linux");
    EXPECT_EQ(ProcessTable::desktopIdFromCgroup(prefix + "app-gnome\\x2dterminal@a1b2.service"),
              "gnome-terminal");
    EXPECT_EQ(ProcessTable::desktopIdFromCgroup(prefix + "app-org.kde.konsole@0f3e.service"),
              "org.kde.konsole");
    // cgroup v1 lists several hierarchies; the last line is the unified one.
    EXPECT_EQ(
        ProcessTable::desktopIdFromCgroup("1:name=systemd:/x\n0::/app.slice/app-gnome-firefox-7.scope\n"),
        "firefox");
    EXPECT_EQ(ProcessTable::desktopIdFromCgroup(prefix + "session-2.scope"), "");
    EXPECT_EQ(ProcessTable::desktopIdFromCgroup("0::/system.slice/cups.service"), "");
    EXPECT_EQ(ProcessTable::desktopIdFromCgroup(prefix + "app-12345.scope"), "");
    EXPECT_EQ(ProcessTable::desktopIdFromCgroup(""), "");
}

TEST(ProcessTableTest, ReadsProcessesFromAProcTree) {
    auto root = fs::temp_directory_path() / ("kavelo-proc-" + std::to_string(getpid()));
    fs::remove_all(root);
    auto add = [&](const std::string& pid, const std::string& comm, const std::string& cgroup) {
        fs::create_directories(root / pid);
        std::ofstream(root / pid / "comm") << comm;
        std::ofstream(root / pid / "cgroup") << cgroup;
    };
    add("100", "zoom\n", "0::/app.slice/app-flatpak-us.zoom.Zoom-100.scope\n");
    add("200", "teams-for-linu\n", "0::/user.slice/session-1.scope\n"); // comm is cut at 15 bytes
    add("300", "", "");                                                 // a process that went away
    fs::create_directories(root / "self");
    fs::create_directories(root / "sys");
    // A runaway cgroup file is read only up to the bound: no id from a cut-off line.
    add("400", "huge\n",
        std::string(ProcessTable::maxFileBytes * 2, 'x') + "\n0::/app-gnome-slack-1.scope\n");

    ProcessTable table(root.string());
    auto processes = table.processes();
    std::sort(processes.begin(), processes.end(), [](const auto& a, const auto& b) { return a.pid < b.pid; });
    ASSERT_EQ(processes.size(), 3u);
    EXPECT_EQ(processes[0].pid, 100);
    EXPECT_EQ(processes[0].binary, "zoom");
    EXPECT_EQ(processes[0].desktopId, "us.zoom.Zoom");
    EXPECT_EQ(processes[1].binary, "teams-for-linu");
    EXPECT_EQ(processes[1].desktopId, "");
    EXPECT_EQ(processes[2].desktopId, "");
    EXPECT_EQ(table.process(300), std::nullopt);
    EXPECT_EQ(table.process(-1), std::nullopt);
    fs::remove_all(root);
}

TEST(ProcessTableTest, ReadsThisProcessFromTheRealProc) {
    auto self = ProcessTable().process(getpid());
    ASSERT_TRUE(self.has_value());
    EXPECT_EQ(self->binary, "test_app_detection") << "the executable's name, not the 15-character comm";
}

} // namespace
