#pragma once

#include <string>
#include <sys/types.h>
#include <vector>

namespace kavelo::bench {

// What a stretch of work cost: processor time (user and system, all threads) and, for a child process,
// its wall time and its resident-set high-water mark.
struct ResourceUsage {
    double userSeconds = 0;
    double systemSeconds = 0;
    double wallSeconds = 0;
    long peakResidentKiB = 0;
    int exitStatus = 0; // of a child: its exit code, or 128 + the signal that ended it

    [[nodiscard]] double cpuSeconds() const { return userSeconds + systemSeconds; }
    // This process so far (all its threads).
    static ResourceUsage ofThisProcess();
    ResourceUsage operator-(const ResourceUsage& earlier) const;
};

// Starts a program (found on PATH) with extra environment entries ("NAME=value") and standard output and
// error sent to a file (or /dev/null when empty). Throws std::runtime_error when it cannot be started.
pid_t spawnProgram(const std::vector<std::string>& arguments, const std::vector<std::string>& environment,
                   const std::string& outputFile);

// Waits for a child to end and reports what it used, from wait4: its processor time and its peak
// resident set are the kernel's own account, not a sample.
ResourceUsage waitForProgram(pid_t pid, double startedAtSeconds);

// Seconds on the monotonic clock, for wall times.
double monotonicSeconds();

// user + system processor seconds a running process has used so far, from /proc/<pid>/stat; negative
// when it cannot be read.
double processCpuSeconds(pid_t pid);

} // namespace kavelo::bench
