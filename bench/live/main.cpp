// Processor time and peak memory of a live recording: `kavelo-cli record` of the microphone and the
// system audio against the in-process mock backend, on a private audio server of its own (PulseAudio, or
// PipeWire with its PulseAudio-protocol server), while pink noise plays on the output and speech-like
// noise on the microphone. Beside it, on the same server for the same time: `ffmpeg -f pulse` recording
// the output's monitor alone into AAC at the same rate. Prints each program's processor seconds (whole
// run, from wait4) and its share of one core over the steady middle of the recording (from /proc), its
// peak resident set, and the ratios; with --memory-map, where the recorder's resident memory sits half-way
// through. Asserts nothing.

#include "bench/support/ResourceUsage.h"
#include "tests/helpers/PrivateAudioDaemon.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace kavelo::bench;
using kavelo::testing::PrivateAudioDaemon;

namespace {

struct Arguments {
    std::string server = "pulseaudio";
    double seconds = 60;
    std::string cli;
    std::string ffmpeg = "ffmpeg";
    std::string workDirectory;
    bool memoryMap = false;
};

const char* kUsage = "usage: live --cli PATH/kavelo-cli --work-dir DIR [--server pulseaudio|pipewire]\n"
                     "            [--seconds S] [--ffmpeg PROGRAM|none] [--memory-map]\n";

bool parse(int argc, char** argv, Arguments& a) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--memory-map") {
            a.memoryMap = true;
            continue;
        }
        if (i + 1 >= argc) {
            return false;
        }
        const std::string value = argv[++i];
        if (arg == "--server" && (value == "pulseaudio" || value == "pipewire")) {
            a.server = value;
        } else if (arg == "--seconds") {
            a.seconds = std::stod(value);
        } else if (arg == "--cli") {
            a.cli = value;
        } else if (arg == "--ffmpeg") {
            a.ffmpeg = value;
        } else if (arg == "--work-dir") {
            a.workDirectory = value;
        } else {
            return false;
        }
    }
    return !a.cli.empty() && !a.workDirectory.empty() && a.seconds >= 20 && a.seconds <= 3600;
}

void runQuietly(const std::vector<std::string>& arguments) {
    const pid_t pid = spawnProgram(arguments, {}, "");
    if (waitForProgram(pid, monotonicSeconds()).exitStatus != 0) {
        throw std::runtime_error(arguments.front() + " failed");
    }
}

// Resident kilobytes by what they belong to (a library, the heap, thread stacks, other anonymous memory),
// largest first, from /proc/<pid>/smaps.
std::vector<std::pair<std::string, long>> residentByMapping(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/smaps");
    std::map<std::string, long> sizes;
    std::string line, current;
    while (std::getline(in, line)) {
        if (line.rfind("Rss:", 0) == 0) {
            sizes[current] += std::stol(line.substr(4));
            continue;
        }
        const auto colon = line.find(':');
        const bool header = colon == std::string::npos || line.find(' ') < colon;
        if (!header) {
            continue;
        }
        std::istringstream fields(line);
        std::string range, perms, offset, device, inode, path;
        fields >> range >> perms >> offset >> device >> inode;
        std::getline(fields >> std::ws, path);
        if (path.empty()) {
            current = "[anonymous]";
        } else {
            current = std::filesystem::path(path).filename().string();
            if (current.empty() || path.front() == '[') {
                current = path;
            }
        }
    }
    std::vector<std::pair<std::string, long>> sorted(sizes.begin(), sizes.end());
    std::sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) { return a.second > b.second; });
    return sorted;
}

// Which road the recorder took, as the server sees it: the aggregate path is one PipeWire node of ours
// (which a PipeWire server also lists as one record stream), the fallback path two record streams.
std::string captureRoad() {
    auto count = [](const char* command) {
        FILE* pipe = popen(command, "r");
        int n = 0;
        if (pipe != nullptr) {
            if (std::fscanf(pipe, "%d", &n) != 1) {
                n = 0;
            }
            pclose(pipe);
        }
        return n;
    };
    const int nodes = count("pw-cli ls Node 2>/dev/null | grep -c kavely.capture");
    const int streams =
        count("pactl list source-outputs 2>/dev/null | grep -c 'application.name = \"Kavely'");
    return std::to_string(nodes) + " PipeWire capture node(s) of ours, " + std::to_string(streams) +
           " record stream(s) of ours listed over the PulseAudio protocol";
}

// The kernel's split of the resident set: anonymous (heap, stacks, relocated library data), file pages
// (code and read-only data of the program and its libraries) and shared memory (the audio server's pool).
std::string residentKinds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line, out;
    while (std::getline(in, line)) {
        for (const char* key : {"RssAnon:", "RssFile:", "RssShmem:"}) {
            if (line.rfind(key, 0) == 0) {
                const long kib = std::stol(line.substr(std::strlen(key)));
                char part[64];
                std::snprintf(part, sizeof part, "%s%s %.1f MB", out.empty() ? "" : ", ",
                              std::string(key + 3, std::strlen(key) - 4).c_str(), double(kib) / 1024);
                out += part;
            }
        }
    }
    return out;
}

int threadCount(pid_t pid) {
    int count = 0;
    std::error_code ignored;
    for (auto it = std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", ignored);
         it != std::filesystem::directory_iterator(); it.increment(ignored)) {
        ++count;
    }
    return count;
}

struct Measured {
    ResourceUsage whole;
    double steadyShareOfCore = 0; // percent of one core between the marks
    double steadySeconds = 0;
};

void sleepUntil(double at) {
    const double wait = at - monotonicSeconds();
    if (wait > 0) {
        std::this_thread::sleep_for(std::chrono::duration<double>(wait));
    }
}

// Runs a program that records for args.seconds, and reads its processor time over the steady middle:
// from 5 seconds after its start (connected, capturing) to 3 seconds before the recording ends.
Measured measure(const Arguments& args, const std::vector<std::string>& command,
                 const std::vector<std::string>& environment, const std::string& log, bool showRoad,
                 bool showMemoryMap) {
    const double started = monotonicSeconds();
    const pid_t pid = spawnProgram(command, environment, log);
    const double from = started + 5, to = started + args.seconds - 3;
    sleepUntil(from);
    const double cpuFrom = processCpuSeconds(pid);
    if (showRoad) {
        std::printf("   capture: %s\n", captureRoad().c_str());
    }
    if (showMemoryMap) {
        sleepUntil(started + args.seconds / 2);
        const auto map = residentByMapping(pid);
        long total = 0;
        for (const auto& [name, kib] : map) {
            total += kib;
        }
        std::printf("   resident half-way: %.1f MB in %d threads (%s); largest parts:\n",
                    double(total) / 1024, threadCount(pid), residentKinds(pid).c_str());
        for (std::size_t i = 0; i < map.size() && i < 14; ++i) {
            std::printf("   %9.1f MB  %s\n", double(map[i].second) / 1024, map[i].first.c_str());
        }
    }
    sleepUntil(to);
    const double cpuTo = processCpuSeconds(pid);
    Measured m;
    m.whole = waitForProgram(pid, started);
    m.steadySeconds = to - from;
    if (cpuFrom >= 0 && cpuTo >= 0) {
        m.steadyShareOfCore = (cpuTo - cpuFrom) / m.steadySeconds * 100;
    }
    return m;
}

void print(const char* name, const Measured& m) {
    std::printf("%-11s cpu %6.2f s in %5.1f s (user %5.2f, system %5.2f); steady %5.2f %% of a core; "
                "peak RSS %6.1f MB; exit %d\n",
                name, m.whole.cpuSeconds(), m.whole.wallSeconds, m.whole.userSeconds, m.whole.systemSeconds,
                m.steadyShareOfCore, double(m.whole.peakResidentKiB) / 1024, m.whole.exitStatus);
}

} // namespace

int main(int argc, char** argv) {
    Arguments args;
    try {
        if (!parse(argc, argv, args)) {
            std::cerr << kUsage;
            return 2;
        }
    } catch (const std::exception&) {
        std::cerr << kUsage;
        return 2;
    }
    try {
        const auto work = std::filesystem::absolute(args.workDirectory);
        std::filesystem::create_directories(work);
        auto daemon = args.server == "pipewire" ? PrivateAudioDaemon::startPipeWire()
                                                : PrivateAudioDaemon::startPulseAudio();
        if (!daemon) {
            std::cerr << "live: the programs of a " << args.server << " server are not installed\n";
            return 1;
        }
        // Sound on both sides for longer than both runs: pink noise as the meeting, a sweeping tone
        // under noise as the voice.
        const auto length = std::to_string(int(args.seconds * 2 + 30));
        const auto system = (work / "system.wav").string(), voice = (work / "voice.wav").string();
        runQuietly({"sox", "-n", "-r", "48000", "-c", "2", "-b", "16", system, "synth", length, "pinknoise",
                    "vol", "0.3"});
        runQuietly({"sox", "-n", "-r", "48000", "-c", "1", "-b", "16", voice, "synth", length, "sine",
                    "200-2000", "pinknoise", "vol", "0.3"});
        auto meeting = daemon->play("meeting", system, "bench-meeting");
        auto microphone = daemon->play("micfeed", voice, "bench-voice");

        std::printf("== %s: %.0f s recordings of microphone and system audio\n", args.server.c_str(),
                    args.seconds);
        const auto data = work / "data";
        std::filesystem::create_directories(data);
        const auto ours = measure(
            args,
            {args.cli, "record", "--duration", std::to_string(int(args.seconds)), "--meeting", "bench-live"},
            {"KAVELO_BACKEND=mock", "XDG_DATA_HOME=" + data.string(), "XDG_CONFIG_HOME=" + data.string()},
            (work / "kavelo-cli.log").string(), true, args.memoryMap);
        print("kavelo-cli", ours);
        if (ours.whole.exitStatus != 0) {
            std::cerr << "live: kavelo-cli failed; see " << (work / "kavelo-cli.log").string() << "\n";
            return 1;
        }
        if (args.ffmpeg != "none") {
            const auto reference = measure(args,
                                           {args.ffmpeg,
                                            "-nostdin",
                                            "-hide_banner",
                                            "-loglevel",
                                            "error",
                                            "-y",
                                            "-f",
                                            "pulse",
                                            "-i",
                                            "meeting.monitor",
                                            "-t",
                                            std::to_string(int(args.seconds)),
                                            "-ac",
                                            "1",
                                            "-ar",
                                            "48000",
                                            "-c:a",
                                            "aac",
                                            "-b:a",
                                            "96000",
                                            "-f",
                                            "adts",
                                            (work / "ffmpeg.aac").string()},
                                           {}, (work / "ffmpeg.log").string(), false, false);
            print("ffmpeg", reference);
            std::printf("ratio steady cpu kavelo-cli/ffmpeg: %.2f\n",
                        ours.steadyShareOfCore / std::max(reference.steadyShareOfCore, 1e-9));
            std::printf("ratio peak RSS kavelo-cli/ffmpeg:   %.2f\n",
                        double(ours.whole.peakResidentKiB) /
                            double(std::max(reference.whole.peakResidentKiB, 1L)));
        }
        std::printf("targets: at most 1.50 %% of a core and 30 MB\n");
    } catch (const std::exception& e) {
        std::cerr << "live: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
