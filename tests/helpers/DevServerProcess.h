#pragma once

#include <filesystem>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kavelo {

// Runs the built kavelo-devserver as a child process for a test: in a private temporary data directory,
// on an ephemeral loopback port read from its first line. A restart keeps the port and the directory, so
// clients see the same server come back with its state. The destructor stops the process and removes the
// directory.
//
// The binary comes from the compile definition KAVELO_DEVSERVER_BINARY, or else from the environment
// variable of that name.
//
// Thread-safety: one thread (the test's).
class DevServerProcess {
  public:
    // Starts at once. extraArgs go to the server after --data-dir and --port (for example --fault rules).
    explicit DevServerProcess(std::vector<std::string> extraArgs = {});
    ~DevServerProcess();
    DevServerProcess(const DevServerProcess&) = delete;
    DevServerProcess& operator=(const DevServerProcess&) = delete;

    // Starts again on the same port and directory; the arguments may change. Throws std::runtime_error
    // when the server does not announce itself within ten seconds.
    void restart(std::vector<std::string> extraArgs);
    void restart() { restart(extraArgs_); }
    // SIGTERM and wait. Safe when already stopped.
    void stop();
    // SIGKILL and wait: the server gets no chance to finish anything.
    void kill();

    [[nodiscard]] bool isRunning() const { return pid_ > 0; }
    [[nodiscard]] int port() const { return port_; }
    [[nodiscard]] std::string baseUrl() const { return "http://127.0.0.1:" + std::to_string(port_); }
    [[nodiscard]] const std::filesystem::path& dataDirectory() const { return dataDirectory_; }
    [[nodiscard]] const std::string& anonKey() const { return anonKey_; }

    static std::string binaryPath();

  private:
    void launch();
    void signalAndWait(int signal);

    std::vector<std::string> extraArgs_;
    std::filesystem::path dataDirectory_;
    std::string anonKey_ = "dev-anon-key";
    pid_t pid_ = -1;
    int stdoutFd_ = -1;
    int port_ = 0;
};

} // namespace kavelo
