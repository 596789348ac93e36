#pragma once

#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace kavelo::testing {

// An audio server of the test's own, in a temporary runtime directory, with two null sinks: "meeting"
// (the default output: what plays there is "system audio") and "micfeed", whose monitor is remapped into
// the source "testmic" (the default input: what plays on micfeed is "the microphone").
// While it lives, this process and its children talk to it (PULSE_SERVER, and PIPEWIRE_RUNTIME_DIR for a
// PipeWire server; with a PulseAudio server PipeWire clients find no server at all); the machine's own
// server, if any, is left alone.
class PrivateAudioDaemon {
  public:
    // Null when the pulseaudio program is not installed; throws std::runtime_error when it will not start.
    static std::unique_ptr<PrivateAudioDaemon> startPulseAudio();
    // A PipeWire server with its session manager and its PulseAudio-protocol server (for pactl and paplay),
    // on a private D-Bus session bus of its own, since the session manager will not run without one.
    // Null when one of those programs is not installed; throws std::runtime_error when it will not start.
    static std::unique_ptr<PrivateAudioDaemon> startPipeWire();
    ~PrivateAudioDaemon();
    PrivateAudioDaemon(const PrivateAudioDaemon&) = delete;
    PrivateAudioDaemon& operator=(const PrivateAudioDaemon&) = delete;

    // Runs "pactl <arguments>" against this server; returns its output, or throws when it fails.
    std::string pactl(const std::string& arguments);
    // A mono 48 kHz WAV of a sine, made with sox in the runtime directory.
    std::string tone(double frequency, double seconds, double amplitude = 0.5);
    // A WAV of Dutch speech, made with espeak-ng.
    std::string speech(const std::string& text);

    // Plays a file on a sink, as an application of the given name, until stopped or the daemon ends.
    class Playback {
      public:
        Playback(pid_t pid) : pid_(pid) {}
        ~Playback();
        Playback(const Playback&) = delete;
        Playback& operator=(const Playback&) = delete;

      private:
        pid_t pid_;
    };
    std::unique_ptr<Playback> play(const std::string& sink, const std::string& file,
                                   const std::string& applicationName = "kavely-test");

    [[nodiscard]] const std::string& runtimeDirectory() const { return directory_; }

    // The log file of one of the programs that make up a PipeWire server, for a failing test's message.
    [[nodiscard]] std::string logOf(const std::string& program) const;

  private:
    PrivateAudioDaemon() = default;
    void setEnvironment(const std::string& name, const char* value);
    pid_t spawn(const std::vector<std::string>& arguments, const std::vector<std::string>& environment);

    std::string directory_;
    std::vector<std::pair<std::string, std::optional<std::string>>> previousEnvironment_;
    std::vector<pid_t> children_; // the PipeWire server's programs, in start order
};

} // namespace kavelo::testing
