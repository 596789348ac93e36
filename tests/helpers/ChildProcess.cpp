#include "helpers/ChildProcess.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

extern char** environ;

namespace kavelo::testing {

namespace {

std::vector<std::string> mergedEnvironment(const std::map<std::string, std::string>& overrides) {
    std::map<std::string, std::string> all;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        const auto equals = text.find('=');
        if (equals != std::string::npos) {
            all[text.substr(0, equals)] = text.substr(equals + 1);
        }
    }
    for (const auto& [name, value] : overrides) {
        if (value.empty()) {
            all.erase(name);
        } else {
            all[name] = value;
        }
    }
    std::vector<std::string> lines;
    for (const auto& [name, value] : all) {
        lines.push_back(name + "=" + value);
    }
    return lines;
}

void closeIfOpen(int& fd) {
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

} // namespace

ChildProcess::ChildProcess(Options options) : stderrFile_(options.stderrFile) {
    if (options.args.empty()) {
        throw std::invalid_argument("ChildProcess needs a program");
    }
    // Everything the child needs is prepared before the fork: between fork and exec a child of a
    // threaded process may only make async-signal-safe calls.
    std::vector<std::string> envLines = mergedEnvironment(options.env);
    std::vector<char*> envp;
    for (auto& line : envLines) {
        envp.push_back(line.data());
    }
    envp.push_back(nullptr);
    std::vector<char*> argv;
    for (auto& arg : options.args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);

    int out[2] = {-1, -1};
    int in[2] = {-1, -1};
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(in, O_CLOEXEC) != 0) {
        closeIfOpen(out[0]);
        closeIfOpen(out[1]);
        throw std::runtime_error("pipe failed");
    }
    int err = ::open(stderrFile_.empty() ? "/dev/null" : stderrFile_.c_str(),
                     O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (err < 0) {
        for (int* fd : {&out[0], &out[1], &in[0], &in[1]}) {
            closeIfOpen(*fd);
        }
        throw std::runtime_error("cannot open " + stderrFile_.string());
    }
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid < 0) {
        for (int* fd : {&out[0], &out[1], &in[0], &in[1], &err}) {
            closeIfOpen(*fd);
        }
        throw std::runtime_error("fork failed");
    }
    if (pid == 0) {
        // A test that dies must not leave its programs running.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) {
            ::_exit(127);
        }
        ::dup2(in[0], STDIN_FILENO);
        ::dup2(out[1], STDOUT_FILENO);
        ::dup2(err, STDERR_FILENO);
        ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    pid_ = pid;
    ::close(out[1]);
    ::close(in[0]);
    ::close(err);
    stdoutFd_ = out[0];
    // A child that never reads its input must not block us: the texts here are far below a pipe's size.
    const std::string& input = options.input;
    std::size_t written = 0;
    ::signal(SIGPIPE, SIG_IGN);
    while (written < input.size()) {
        const auto n = ::write(in[1], input.data() + written, input.size() - written);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        written += static_cast<std::size_t>(n);
    }
    ::close(in[1]);
}

ChildProcess::~ChildProcess() {
    if (!status_ && pid_ > 0) {
        ::kill(pid_, SIGKILL);
        int status = 0;
        while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
    }
    closeIfOpen(stdoutFd_);
}

std::optional<std::string> ChildProcess::readLine(std::chrono::steady_clock::time_point deadline) {
    while (true) {
        if (const auto newline = buffered_.find('\n'); newline != std::string::npos) {
            std::string line = buffered_.substr(0, newline);
            buffered_.erase(0, newline + 1);
            return line;
        }
        if (ended_) {
            if (buffered_.empty()) {
                return std::nullopt;
            }
            return std::exchange(buffered_, {});
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return std::nullopt;
        }
        pollfd pfd{stdoutFd_, POLLIN, 0};
        const int ready = ::poll(&pfd, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready <= 0) {
            return std::nullopt;
        }
        char buffer[4096];
        const auto n = ::read(stdoutFd_, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            ended_ = true;
            continue;
        }
        buffered_.append(buffer, static_cast<std::size_t>(n));
    }
}

void ChildProcess::signal(int signalNumber) {
    if (!status_ && pid_ > 0) {
        ::kill(pid_, signalNumber);
    }
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!status_) {
        int status = 0;
        const pid_t done = ::waitpid(pid_, &status, WNOHANG);
        if (done == pid_) {
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
            break;
        }
        if (done < 0 && errno != EINTR) {
            throw std::runtime_error(std::string("waitpid: ") + std::strerror(errno));
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return std::nullopt;
        }
        // Polled: a child's end has no descriptor that fits in poll() with the others here.
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return status_;
}

std::string ChildProcess::errorOutput() const {
    if (stderrFile_.empty()) {
        return "";
    }
    std::ifstream file(stderrFile_);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

} // namespace kavelo::testing
