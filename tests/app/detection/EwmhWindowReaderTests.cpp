#include "TestDisplay.h"
#include "app/detection/EwmhWindowReader.h"

#include <gtest/gtest.h>

using namespace kavelo;
using namespace std::chrono_literals;

namespace {

class EwmhWindowReaderTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!kavelo::testing::TestDisplay::available()) {
            GTEST_SKIP() << "Xvfb is not installed (scripts/install-deps.sh installs it)";
        }
        display = std::make_unique<kavelo::testing::TestDisplay>();
        ASSERT_FALSE(display->name().empty()) << display->error();
        reader = EwmhWindowReader::connect(display->name());
        ASSERT_NE(reader, nullptr);
    }

    pid_t windows(std::unique_ptr<ChildProcess>& program, const std::vector<std::string>& args) {
        auto pid = display->windows(program, args);
        EXPECT_GT(pid, 0) << program->errorOutput();
        return pid;
    }

    std::unique_ptr<kavelo::testing::TestDisplay> display;
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
    display->kill();
    EXPECT_FALSE(reader->activeWindow().has_value());
    EXPECT_TRUE(reader->titlesOf(pid).empty());
    EXPECT_EQ(EwmhWindowReader::connect(display->name()), nullptr);
}

} // namespace
