#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kavelo {

// A program run by a test: its standard output read line by line, standard error kept apart,
// standard input fed from a string and then closed. The environment is the test's own with the given
// overrides (an empty value removes the variable). The destructor kills a child still running.
//
// Thread-safety: one thread (the test's).
class ChildProcess {
  public:
    ChildProcess(const std::string& program, const std::vector<std::string>& args,
                 const std::map<std::string, std::string>& environment = {}, const std::string& input = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // The next line of standard output without its newline; absent at the end of output or when
    // nothing arrives within the timeout.
    std::optional<std::string> readLine(std::chrono::milliseconds timeout);
    void signal(int signalNumber);
    // Reads what is left of standard output (kept for remainingLines), then waits for the exit.
    // Answers the exit status, or 128 + the signal for a child that a signal ended; -1 on a timeout.
    int wait(std::chrono::milliseconds timeout);
    // Lines read by wait() that readLine() had not returned yet.
    std::vector<std::string> remainingLines();
    // What the child wrote to standard error; complete once wait() returned.
    [[nodiscard]] const std::string& errorOutput() const { return stderr_; }

  private:
    bool fill(std::chrono::steady_clock::time_point deadline);
    void drainErrors();

    pid_t pid_ = -1;
    int stdout_ = -1;
    int stderr_fd_ = -1;
    std::string buffer_;
    std::string stderr_;
    bool endOfOutput_ = false;
    std::optional<int> status_;
};

} // namespace kavelo
