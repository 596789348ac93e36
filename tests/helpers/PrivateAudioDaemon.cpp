#include "PrivateAudioDaemon.h"

#include "core/support/AtomicFile.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
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
    daemon->setEnvironment("PULSE_SERVER", ("unix:" + d + "/pulse/native").c_str());
    // PipeWire clients of this process and its children look for a server in the temporary directory and
    // find none, so a recorder never takes the aggregate path through the machine's own PipeWire.
    daemon->setEnvironment("PIPEWIRE_RUNTIME_DIR", d.c_str());
    daemon->setEnvironment("PIPEWIRE_REMOTE", nullptr);
    for (int i = 0; i < 100 && shell("pactl info").second != 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    daemon->pactl("load-module module-remap-source source_name=testmic master=micfeed.monitor "
                  "source_properties=device.description=Testmicrofoon");
    daemon->pactl("set-default-source testmic");
    daemon->pactl("set-default-sink meeting");
    return daemon;
}

std::unique_ptr<PrivateAudioDaemon> PrivateAudioDaemon::startPipeWire() {
    for (const char* program :
         {"pipewire", "wireplumber", "pipewire-pulse", "dbus-daemon", "pactl", "paplay"}) {
        if (!installed(program)) {
            return nullptr;
        }
    }
    std::unique_ptr<PrivateAudioDaemon> daemon(new PrivateAudioDaemon());
    char pattern[] = "/tmp/kavelo-pipewire-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    daemon->directory_ = pattern;
    const auto& d = daemon->directory_;
    // Everything the programs read or keep (configuration, the session manager's remembered defaults,
    // sockets) lives in the temporary directory, so that neither the machine's own set-up nor an earlier
    // run changes what this server does.
    const std::vector<std::string> environment{
        "HOME=" + d,
        "XDG_RUNTIME_DIR=" + d,
        "XDG_CONFIG_HOME=" + d + "/config",
        "XDG_STATE_HOME=" + d + "/state",
        "XDG_DATA_HOME=" + d + "/data",
        "PIPEWIRE_RUNTIME_DIR=" + d,
        "DBUS_SESSION_BUS_ADDRESS=unix:path=" + d + "/bus",
        "DISPLAY=",
    };
    auto waitFor = [&](const std::string& path, const char* what) {
        for (int i = 0; i < 200; ++i) {
            if (std::filesystem::exists(path)) {
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
        throw std::runtime_error(std::string(what) + " did not start: " + daemon->logOf(what));
    };
    daemon->spawn(
        {"dbus-daemon", "--session", "--nofork", "--nopidfile", "--address=unix:path=" + d + "/bus"},
        environment);
    waitFor(d + "/bus", "dbus-daemon");
    daemon->spawn({"pipewire"}, environment);
    waitFor(d + "/pipewire-0", "pipewire");
    daemon->spawn({"wireplumber"}, environment);
    daemon->spawn({"pipewire-pulse"}, environment);
    waitFor(d + "/pulse/native", "pipewire-pulse");

    daemon->setEnvironment("PULSE_SERVER", ("unix:" + d + "/pulse/native").c_str());
    daemon->setEnvironment("PIPEWIRE_RUNTIME_DIR", d.c_str());
    daemon->setEnvironment("PIPEWIRE_REMOTE", nullptr);
    for (int i = 0; i < 100 && shell("pactl info").second != 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    daemon->pactl(
        "load-module module-null-sink sink_name=meeting sink_properties=device.description=Vergadering");
    daemon->pactl(
        "load-module module-null-sink sink_name=micfeed sink_properties=device.description=Micvoeding");
    daemon->pactl("load-module module-remap-source source_name=testmic master=micfeed.monitor "
                  "source_properties=device.description=Testmicrofoon");
    // The defaults are kept by the session manager, which may still be starting.
    for (int i = 0;; ++i) {
        if (shell("pactl set-default-sink meeting").second == 0 &&
            shell("pactl set-default-source testmic").second == 0) {
            break;
        }
        if (i == 200) {
            throw std::runtime_error("the session manager keeps no defaults: " +
                                     daemon->logOf("wireplumber"));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return daemon;
}

PrivateAudioDaemon::~PrivateAudioDaemon() {
    if (children_.empty()) {
        shell("env HOME='" + directory_ + "' XDG_RUNTIME_DIR='" + directory_ + "' pulseaudio -k");
    }
    // The last started goes first: clients before the server, the bus last.
    for (auto it = children_.rbegin(); it != children_.rend(); ++it) {
        kill(*it, SIGTERM);
        int status = 0;
        bool ended = false;
        for (int i = 0; i < 100 && !ended; ++i) {
            ended = waitpid(*it, &status, WNOHANG) == *it;
            if (!ended) {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
        }
        if (!ended) {
            kill(*it, SIGKILL);
            waitpid(*it, &status, 0);
        }
    }
    for (auto it = previousEnvironment_.rbegin(); it != previousEnvironment_.rend(); ++it) {
        if (it->second) {
            setenv(it->first.c_str(), it->second->c_str(), 1);
        } else {
            unsetenv(it->first.c_str());
        }
    }
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
}

void PrivateAudioDaemon::setEnvironment(const std::string& name, const char* value) {
    const char* previous = std::getenv(name.c_str());
    previousEnvironment_.emplace_back(name, previous ? std::optional<std::string>(previous) : std::nullopt);
    if (value != nullptr) {
        setenv(name.c_str(), value, 1);
    } else {
        unsetenv(name.c_str());
    }
}

pid_t PrivateAudioDaemon::spawn(const std::vector<std::string>& arguments,
                                const std::vector<std::string>& environment) {
    // This process's environment with the given names replaced, and none of the variables that would
    // lead the program to another server.
    std::vector<std::string> entries = environment;
    for (char** e = environ; *e != nullptr; ++e) {
        std::string entry(*e);
        auto name = entry.substr(0, entry.find('=') + 1);
        bool replaced = name == "PULSE_SERVER=" || name == "PIPEWIRE_REMOTE=";
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
    const auto log = directory_ + "/" + arguments.front() + ".log";
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    pid_t pid = 0;
    int rc = posix_spawnp(&pid, args.front().c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        throw std::runtime_error(arguments.front() + " did not start");
    }
    children_.push_back(pid);
    return pid;
}

std::string PrivateAudioDaemon::logOf(const std::string& program) const {
    auto text = readWholeFile(directory_ + "/" + program + ".log");
    return text ? std::string(text->begin(), text->end()) : "(no log)";
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
    // On a loaded machine paplay may take a second to connect; a recording that starts before its stream
    // exists would measure the tone over a stretch of silence. So this returns once the server lists one
    // playback stream more (or after five seconds).
    auto streams = [] {
        auto out = shell("pactl list short sink-inputs").first;
        return std::count(out.begin(), out.end(), '\n');
    };
    const auto before = streams();
    pid_t pid = 0;
    if (posix_spawnp(&pid, "paplay", nullptr, nullptr, argv.data(), environ) != 0) {
        throw std::runtime_error("paplay did not start");
    }
    auto playback = std::make_unique<Playback>(pid);
    for (int i = 0; i < 200 && streams() <= before; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    return playback;
}

PrivateAudioDaemon::Playback::~Playback() {
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
}

} // namespace kavelo::testing
