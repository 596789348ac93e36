#include "app/detection/EwmhWindowReader.h"
#include "helpers/ChildProcess.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace kavelo;
using namespace std::chrono_literals;

namespace {

// A bare X server of the test's own; the test programs' windows play the window manager's part.
class EwmhWindowReaderTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!std::filesystem::exists("/usr/bin/Xvfb")) {
            GTEST_SKIP() << "Xvfb is not installed (scripts/install-deps.sh installs it)";
        }
        // -displayfd picks a free display and writes its number: no clash with other tests running.
        server = std::make_unique<ChildProcess>(
            "/usr/bin/Xvfb",
            std::vector<std::string>{"-displayfd", "1", "-nolisten", "tcp", "-screen", "0", "320x240x24"});
        auto number = server->readLine(20s);
        ASSERT_TRUE(number) << server->errorOutput();
        display = ":" + *number;
        reader = EwmhWindowReader::connect(display);
        ASSERT_NE(reader, nullptr);
    }

    // Starts the test window program; answers its process id.
    pid_t windows(std::unique_ptr<ChildProcess>& program, std::vector<std::string> args) {
        program = std::make_unique<ChildProcess>(KAVELO_TEST_WINDOW, args,
                                                 std::map<std::string, std::string>{{"DISPLAY", display}});
        auto line = program->readLine(10s);
        EXPECT_TRUE(line && line->starts_with("pid ")) << program->errorOutput();
        return line && line->starts_with("pid ") ? std::stoi(line->substr(4)) : -1;
    }

    std::unique_ptr<ChildProcess> server;
    std::string display;
    std::unique_ptr<EwmhWindowReader> reader;
};

TEST_F(EwmhWindowReaderTest, ReadsTheActiveWindowsProcessAndItsTitlesFrontToBack) {
    EXPECT_FALSE(reader->activeWindow().has_value()) << "no window manager has set an active window yet";

    std::unique_ptr<ChildProcess> browser;
    std::unique_ptr<ChildProcess> editor;
    // The browser's second window, without a title, lies above the meeting tab and is the active one; the
    // editor's window comes later, on top, but is not active.
    auto browserPid = windows(browser, {"Google-chrome", "--active", "Meet \xE2\x80\x93 abc-defg-hij", ""});
    auto editorPid = windows(editor, {"Gnome-text-editor", "notes.txt"});

    auto active = reader->activeWindow();
    ASSERT_TRUE(active.has_value());
    EXPECT_EQ(active->pid, browserPid);
    EXPECT_EQ(active->windowClass, "Google-chrome");
    EXPECT_EQ(reader->titlesOf(browserPid), (std::vector<std::string>{"", "Meet \xE2\x80\x93 abc-defg-hij"}));
    EXPECT_EQ(reader->titlesOf(editorPid), std::vector<std::string>{"notes.txt"});
    EXPECT_TRUE(reader->titlesOf(getpid()).empty());
}

TEST_F(EwmhWindowReaderTest, GoneServerReadsAsNothing) {
    std::unique_ptr<ChildProcess> zoom;
    auto pid = windows(zoom, {"zoom", "--active", "Zoom Meeting"});
    ASSERT_TRUE(reader->activeWindow().has_value());
    zoom.reset();
    server.reset(); // kills Xvfb
    EXPECT_FALSE(reader->activeWindow().has_value());
    EXPECT_TRUE(reader->titlesOf(pid).empty());
    EXPECT_EQ(EwmhWindowReader::connect(display), nullptr);
}

} // namespace
