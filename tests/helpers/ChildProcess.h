#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kavelo::testing {

// A program of ours run by a test the way a user runs it: its own environment on top of the test's,
// standard input fed from a text, standard output read line by line, standard error kept in a file for
// the failure message. The child dies with the test process, and the destructor kills it if it still
// runs, so that a failing test leaves nothing behind.
//
// Thread-safety: one thread per instance; several instances may run on several threads at once (every
// descriptor is opened close-on-exec, so no child inherits another child's pipe).
class ChildProcess {
  public:
    struct Options {
        std::vector<std::string> args; // args[0] is the program's path
        // Set on top of the test process's environment; an empty value removes the variable.
        std::map<std::string, std::string> env;
        std::string input;                // written to standard input, which is then closed
        std::filesystem::path stderrFile; // empty: standard error is thrown away
    };

    explicit ChildProcess(Options options); // throws std::runtime_error when the program cannot start
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // The next line of standard output without its newline; absent at the end of the output or when the
    // deadline passes first (atEnd() tells the two apart).
    std::optional<std::string> readLine(std::chrono::steady_clock::time_point deadline);
    [[nodiscard]] bool atEnd() const { return ended_; }

    void signal(int signalNumber);
    // Waits for the end: the exit status, or minus the signal that ended it. Absent when the limit passes
    // first; the child is then still running.
    std::optional<int> wait(std::chrono::milliseconds limit);

    [[nodiscard]] pid_t pid() const { return pid_; }
    // What the child wrote on standard error so far (its file), for failure messages.
    [[nodiscard]] std::string errorOutput() const;

  private:
    std::filesystem::path stderrFile_;
    pid_t pid_ = -1;
    int stdoutFd_ = -1;
    std::string buffered_;
    bool ended_ = false;
    std::optional<int> status_;
};

} // namespace kavelo::testing
