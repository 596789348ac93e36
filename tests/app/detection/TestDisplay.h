#pragma once

#include "helpers/ChildProcess.h"

#include <filesystem>
#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kavelo::testing {

// A bare X server of the test's own (Xvfb), and windows of the test window program on it, which play the
// window manager's part for themselves.
class TestDisplay {
  public:
    static bool available() { return std::filesystem::exists("/usr/bin/Xvfb"); }

    // Empty name() when the server did not start; error() then says why.
    TestDisplay() {
        // -displayfd picks a free display and writes its number: no clash with tests running beside us.
        server_ = std::make_unique<ChildProcess>(
            "/usr/bin/Xvfb",
            std::vector<std::string>{"-displayfd", "1", "-nolisten", "tcp", "-screen", "0", "320x240x24"});
        if (auto number = server_->readLine(std::chrono::seconds(20))) {
            name_ = ":" + *number;
        }
    }

    [[nodiscard]] const std::string& name() const { return name_; }
    [[nodiscard]] std::string error() const { return server_->errorOutput(); }
    void kill() { server_.reset(); }

    // Starts the window program with CLASS [--active] TITLE...; answers its process id, or -1.
    pid_t windows(std::unique_ptr<ChildProcess>& program, const std::vector<std::string>& args) const {
        program = std::make_unique<ChildProcess>(KAVELO_TEST_WINDOW, args,
                                                 std::map<std::string, std::string>{{"DISPLAY", name_}});
        auto line = program->readLine(std::chrono::seconds(10));
        return line && line->starts_with("pid ") ? std::stoi(line->substr(4)) : -1;
    }

  private:
    std::unique_ptr<ChildProcess> server_;
    std::string name_;
};

} // namespace kavelo::testing
