#pragma once

#include <string>
#include <vector>

namespace kavelo {

// The test tone: a 440 Hz sine at a quarter of full scale, 0.8 s long, mono at 48 kHz, played through a
// playback stream of its own on the chosen output.
class TestTone {
  public:
    static constexpr double frequency = 440.0;
    static constexpr double amplitude = 0.25;
    static constexpr double seconds = 0.8;
    static constexpr unsigned sampleRate = 48000;

    // The samples of the tone at a sample rate.
    static std::vector<float> render(unsigned rate = sampleRate, double length = seconds);
    // Plays it on the output of that id (empty: the default output) and returns once it has been heard;
    // throws std::runtime_error when the server or the output refuses the stream. Blocks for about the
    // length of the tone, so never on the GUI thread.
    static void play(const std::string& outputId);
};

} // namespace kavelo
