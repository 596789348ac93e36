#include "helpers/DevServerProcess.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kavelo {

namespace {

constexpr int kStartTimeoutMs = 10000;

} // namespace

std::string DevServerProcess::binaryPath() {
#ifdef KAVELO_DEVSERVER_BINARY
    return KAVELO_DEVSERVER_BINARY;
#else
    const char* path = std::getenv("KAVELO_DEVSERVER_BINARY");
    if (!path) {
        throw std::runtime_error("KAVELO_DEVSERVER_BINARY is not set");
    }
    return path;
#endif
}

DevServerProcess::DevServerProcess(std::vector<std::string> extraArgs) : extraArgs_(std::move(extraArgs)) {
    std::string tmpl = (std::filesystem::temp_directory_path() / "kavelo-devserver-test-XXXXXX").string();
    if (!::mkdtemp(tmpl.data())) {
        throw std::runtime_error("cannot make a temporary directory");
    }
    dataDirectory_ = tmpl;
    for (std::size_t i = 0; i + 1 < extraArgs_.size(); ++i) {
        if (extraArgs_[i] == "--anon-key") {
            anonKey_ = extraArgs_[i + 1];
        }
    }
    launch();
}

DevServerProcess::~DevServerProcess() {
    stop();
    std::error_code ec;
    std::filesystem::remove_all(dataDirectory_, ec);
}

void DevServerProcess::restart(std::vector<std::string> extraArgs) {
    stop();
    extraArgs_ = std::move(extraArgs);
    launch();
}

void DevServerProcess::launch() {
    std::vector<std::string> args = {binaryPath(), "--data-dir", dataDirectory_.string(), "--port",
                                     std::to_string(port_)};
    args.insert(args.end(), extraArgs_.begin(), extraArgs_.end());
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    pid_t pid = ::fork();
    if (pid < 0) {
        ::close(pipeFds[0]);
        ::close(pipeFds[1]);
        throw std::runtime_error("fork failed");
    }
    if (pid == 0) {
        // A test that dies must not leave its server behind.
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        ::dup2(pipeFds[1], STDOUT_FILENO);
        std::vector<char*> argv;
        for (auto& arg : args) {
            argv.push_back(arg.data());
        }
        argv.push_back(nullptr);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(pipeFds[1]);
    pid_ = pid;
    stdoutFd_ = pipeFds[0];

    std::string line;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kStartTimeoutMs);
    while (line.find('\n') == std::string::npos) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                          std::chrono::steady_clock::now());
        pollfd pfd{stdoutFd_, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&pfd, 1, static_cast<int>(left.count())) <= 0) {
            kill();
            throw std::runtime_error("kavelo-devserver did not announce itself");
        }
        char buffer[256];
        auto n = ::read(stdoutFd_, buffer, sizeof buffer);
        if (n <= 0) {
            kill();
            throw std::runtime_error("kavelo-devserver ended before listening (see its standard error)");
        }
        line.append(buffer, static_cast<std::size_t>(n));
    }
    const std::string prefix = "listening 127.0.0.1:";
    if (line.rfind(prefix, 0) != 0) {
        kill();
        throw std::runtime_error("unexpected first line from kavelo-devserver: " + line);
    }
    port_ = std::stoi(line.substr(prefix.size()));
}

void DevServerProcess::signalAndWait(int signal) {
    if (pid_ <= 0) {
        return;
    }
    ::kill(pid_, signal);
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    if (stdoutFd_ >= 0) {
        ::close(stdoutFd_);
        stdoutFd_ = -1;
    }
}

void DevServerProcess::stop() {
    signalAndWait(SIGTERM);
}

void DevServerProcess::kill() {
    signalAndWait(SIGKILL);
}

} // namespace kavelo
