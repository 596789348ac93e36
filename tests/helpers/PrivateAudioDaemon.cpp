#include "PrivateAudioDaemon.h"

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace kavelo::testing {

namespace {
// Runs a shell command and returns its standard output and exit status.
std::pair<std::string, int> shell(const std::string& command) {
    std::string out;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return {"", -1};
    }
    std::array<char, 4096> buffer{};
    std::size_t n;
    while ((n = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0) {
        out.append(buffer.data(), n);
    }
    int status = pclose(pipe);
    return {out, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
}

bool installed(const char* program) {
    return shell(std::string("command -v ") + program).second == 0;
}
} // namespace

std::unique_ptr<PrivateAudioDaemon> PrivateAudioDaemon::startPulseAudio() {
    if (!installed("pulseaudio") || !installed("pactl")) {
        return nullptr;
    }
    std::unique_ptr<PrivateAudioDaemon> daemon(new PrivateAudioDaemon());
    char pattern[] = "/tmp/kavelo-pulse-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    daemon->directory_ = pattern;
    if (const char* previous = std::getenv("PULSE_SERVER")) {
        daemon->hadPreviousServer_ = true;
        daemon->previousServer_ = previous;
    }
    const auto& d = daemon->directory_;
    // HOME and the runtime directory point into the temporary directory, so that nothing of the machine's
    // own audio set-up (cookie, configuration, another server) is used or touched.
    auto [out, status] =
        shell("env HOME='" + d + "' XDG_RUNTIME_DIR='" + d + "' XDG_CONFIG_HOME='" + d +
              "' pulseaudio -n --daemonize=yes --exit-idle-time=-1 --use-pid-file=yes" +
              " --load='module-native-protocol-unix auth-anonymous=1'" +
              " --load='module-null-sink sink_name=meeting sink_properties=device.description=Vergadering'" +
              " --load='module-null-sink sink_name=micfeed sink_properties=device.description=Micvoeding'");
    if (status != 0) {
        std::filesystem::remove_all(d);
        throw std::runtime_error("pulseaudio did not start: " + out);
    }
    setenv("PULSE_SERVER", ("unix:" + d + "/pulse/native").c_str(), 1);
    for (int i = 0; i < 100 && shell("pactl info").second != 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    daemon->pactl("load-module module-remap-source source_name=testmic master=micfeed.monitor "
                  "source_properties=device.description=Testmicrofoon");
    daemon->pactl("set-default-source testmic");
    daemon->pactl("set-default-sink meeting");
    return daemon;
}

PrivateAudioDaemon::~PrivateAudioDaemon() {
    shell("env HOME='" + directory_ + "' XDG_RUNTIME_DIR='" + directory_ + "' pulseaudio -k");
    if (hadPreviousServer_) {
        setenv("PULSE_SERVER", previousServer_.c_str(), 1);
    } else {
        unsetenv("PULSE_SERVER");
    }
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

std::string PrivateAudioDaemon::pactl(const std::string& arguments) {
    auto [out, status] = shell("pactl " + arguments);
    if (status != 0) {
        throw std::runtime_error("pactl " + arguments + ": " + out);
    }
    return out;
}

std::string PrivateAudioDaemon::tone(double frequency, double seconds, double amplitude) {
    auto path = directory_ + "/tone-" + std::to_string(int(frequency)) + ".wav";
    auto [out, status] = shell("sox -n -r 48000 -c 1 -b 16 '" + path + "' synth " + std::to_string(seconds) +
                               " sine " + std::to_string(frequency) + " vol " + std::to_string(amplitude));
    if (status != 0) {
        throw std::runtime_error("sox: " + out);
    }
    return path;
}

std::string PrivateAudioDaemon::speech(const std::string& text) {
    auto path = directory_ + "/speech.wav";
    auto [out, status] = shell("espeak-ng -v nl -w '" + path + "' '" + text + "'");
    if (status != 0) {
        throw std::runtime_error("espeak-ng: " + out);
    }
    return path;
}

std::unique_ptr<PrivateAudioDaemon::Playback> PrivateAudioDaemon::play(const std::string& sink,
                                                                       const std::string& file,
                                                                       const std::string& applicationName) {
    std::vector<std::string> args{"paplay", "-d", sink, "--property=application.name=" + applicationName,
                                  file};
    std::vector<char*> argv;
    for (auto& a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (posix_spawnp(&pid, "paplay", nullptr, nullptr, argv.data(), environ) != 0) {
        throw std::runtime_error("paplay did not start");
    }
    return std::make_unique<Playback>(pid);
}

PrivateAudioDaemon::Playback::~Playback() {
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
}

} // namespace kavelo::testing
