#include "bench/support/ResourceUsage.h"

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace kavelo::bench {

namespace {
double seconds(const timeval& t) {
    return double(t.tv_sec) + double(t.tv_usec) / 1e6;
}
} // namespace

ResourceUsage ResourceUsage::ofThisProcess() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    ResourceUsage result;
    result.userSeconds = seconds(usage.ru_utime);
    result.systemSeconds = seconds(usage.ru_stime);
    result.wallSeconds = monotonicSeconds();
    result.peakResidentKiB = usage.ru_maxrss;
    return result;
}

ResourceUsage ResourceUsage::operator-(const ResourceUsage& earlier) const {
    ResourceUsage result = *this;
    result.userSeconds -= earlier.userSeconds;
    result.systemSeconds -= earlier.systemSeconds;
    result.wallSeconds -= earlier.wallSeconds;
    return result;
}

double monotonicSeconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return double(now.tv_sec) + double(now.tv_nsec) / 1e9;
}

pid_t spawnProgram(const std::vector<std::string>& arguments, const std::vector<std::string>& environment,
                   const std::string& outputFile) {
    std::vector<std::string> entries = environment;
    for (char** e = environ; *e != nullptr; ++e) {
        std::string entry(*e);
        const auto name = entry.substr(0, entry.find('=') + 1);
        bool replaced = false;
        for (const auto& own : environment) {
            replaced = replaced || own.rfind(name, 0) == 0;
        }
        if (!replaced) {
            entries.push_back(entry);
        }
    }
    std::vector<char*> envp, argv;
    for (auto& e : entries) {
        envp.push_back(e.data());
    }
    envp.push_back(nullptr);
    std::vector<std::string> args = arguments;
    for (auto& a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    const std::string output = outputFile.empty() ? "/dev/null" : outputFile;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    pid_t pid = 0;
    const int rc = posix_spawnp(&pid, args.front().c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        throw std::runtime_error(arguments.front() + " did not start (is it installed?)");
    }
    return pid;
}

ResourceUsage waitForProgram(pid_t pid, double startedAtSeconds) {
    int status = 0;
    rusage usage{};
    while (wait4(pid, &status, 0, &usage) < 0) {
        if (errno != EINTR) {
            throw std::runtime_error("wait4 failed");
        }
    }
    ResourceUsage result;
    result.wallSeconds = monotonicSeconds() - startedAtSeconds;
    result.userSeconds = seconds(usage.ru_utime);
    result.systemSeconds = seconds(usage.ru_stime);
    result.peakResidentKiB = usage.ru_maxrss;
    result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

double processCpuSeconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // The command name may hold spaces and parentheses; the fields after it start past the last ')'.
    const auto close = text.rfind(')');
    if (close == std::string::npos) {
        return -1;
    }
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    long long utime = 0, stime = 0;
    for (int index = 3; fields >> field; ++index) {
        if (index == 14) {
            utime = std::stoll(field);
        } else if (index == 15) {
            stime = std::stoll(field);
            return double(utime + stime) / double(sysconf(_SC_CLK_TCK));
        }
    }
    return -1;
}

} // namespace kavelo::bench
