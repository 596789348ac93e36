#include "helpers/ChildProcess.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace kavelo {

namespace {

void writeAll(int fd, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return;
        }
        done += static_cast<std::size_t>(n);
    }
}

} // namespace

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& args,
                           const std::map<std::string, std::string>& environment, const std::string& input) {
    int in[2];
    int out[2];
    int err[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    std::vector<std::string> argStrings{program};
    argStrings.insert(argStrings.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& arg : argStrings) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);

    pid_ = ::fork();
    if (pid_ < 0) {
        throw std::runtime_error("fork failed");
    }
    if (pid_ == 0) {
        ::dup2(in[0], STDIN_FILENO);
        ::dup2(out[1], STDOUT_FILENO);
        ::dup2(err[1], STDERR_FILENO);
        for (const auto& [name, value] : environment) {
            if (value.empty()) {
                ::unsetenv(name.c_str());
            } else {
                ::setenv(name.c_str(), value.c_str(), 1);
            }
        }
        ::execv(program.c_str(), argv.data());
        ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
    writeAll(in[1], input);
    ::close(in[1]);
    stdout_ = out[0];
    stderr_fd_ = err[0];
    ::fcntl(stderr_fd_, F_SETFL, ::fcntl(stderr_fd_, F_GETFL) | O_NONBLOCK);
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0 && !status_) {
        ::kill(pid_, SIGKILL);
        int status = 0;
        ::waitpid(pid_, &status, 0);
    }
    if (stdout_ >= 0) {
        ::close(stdout_);
    }
    if (stderr_fd_ >= 0) {
        ::close(stderr_fd_);
    }
}

void ChildProcess::drainErrors() {
    char chunk[4096];
    while (true) {
        const ssize_t n = ::read(stderr_fd_, chunk, sizeof chunk);
        if (n <= 0) {
            return;
        }
        stderr_.append(chunk, static_cast<std::size_t>(n));
    }
}

bool ChildProcess::fill(std::chrono::steady_clock::time_point deadline) {
    while (!endOfOutput_) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return false;
        }
        // Standard error is watched too, so that a chatty child never blocks on a full pipe.
        pollfd fds[2] = {{stdout_, POLLIN, 0}, {stderr_fd_, POLLIN, 0}};
        const int ready = ::poll(fds, 2, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (fds[1].revents != 0) {
            drainErrors();
        }
        if (fds[0].revents == 0) {
            continue;
        }
        char chunk[4096];
        const ssize_t n = ::read(stdout_, chunk, sizeof chunk);
        if (n <= 0) {
            endOfOutput_ = true;
            return true;
        }
        buffer_.append(chunk, static_cast<std::size_t>(n));
        return true;
    }
    return true;
}

std::optional<std::string> ChildProcess::readLine(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
        const auto newline = buffer_.find('\n');
        if (newline != std::string::npos) {
            std::string line = buffer_.substr(0, newline);
            buffer_.erase(0, newline + 1);
            return line;
        }
        if (endOfOutput_) {
            if (buffer_.empty()) {
                return std::nullopt;
            }
            std::string line = std::move(buffer_);
            buffer_.clear();
            return line;
        }
        if (!fill(deadline)) {
            return std::nullopt;
        }
    }
}

void ChildProcess::signal(int signalNumber) {
    if (pid_ > 0 && !status_) {
        ::kill(pid_, signalNumber);
    }
}

int ChildProcess::wait(std::chrono::milliseconds timeout) {
    if (status_) {
        return *status_;
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!endOfOutput_ && fill(deadline)) {
    }
    while (true) {
        int status = 0;
        const pid_t done = ::waitpid(pid_, &status, WNOHANG);
        if (done == pid_) {
            drainErrors();
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return *status_;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return -1;
        }
        drainErrors();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

std::vector<std::string> ChildProcess::remainingLines() {
    std::vector<std::string> lines;
    while (auto line = readLine(std::chrono::milliseconds(0))) {
        lines.push_back(*line);
    }
    return lines;
}

} // namespace kavelo
