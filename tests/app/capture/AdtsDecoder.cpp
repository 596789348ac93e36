#include "AdtsDecoder.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace kavelo::testing {

namespace {
std::string run(const std::string& command) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return out;
    }
    char buffer[4096];
    std::size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) {
        out.append(buffer, n);
    }
    pclose(pipe);
    return out;
}
} // namespace

double DecodedAudio::rms(std::size_t from, std::size_t to) const {
    to = std::min(to, samples.size());
    if (from >= to) {
        return 0;
    }
    double sum = 0;
    for (auto i = from; i < to; ++i) {
        sum += double(samples[i]) * samples[i];
    }
    return std::sqrt(sum / double(to - from));
}

DecodedAudio DecodedAudio::ofSamples(std::vector<float> samples) {
    DecodedAudio audio;
    audio.ok = true;
    audio.sampleRate = 48000;
    audio.channels = 1;
    audio.samples = std::move(samples);
    return audio;
}

DecodedAudio DecodedAudio::tail(double seconds) const {
    const auto n = std::min(samples.size(), std::size_t(seconds * sampleRate));
    auto part = *this;
    part.samples.assign(samples.end() - long(n), samples.end());
    return part;
}

DecodedAudio DecodedAudio::encodedBetween(long long from, long long to, long long total) const {
    const double perByte = total > 0 ? double(samples.size()) / double(total) : 0;
    const auto size = long(samples.size());
    const auto margin = long(sampleRate / 2);
    const auto begin = std::min(size, long(double(from) * perByte) + margin);
    const auto end = std::clamp(long(double(to) * perByte) - margin, begin, size);
    auto part = *this;
    part.samples.assign(samples.begin() + begin, samples.begin() + end);
    return part;
}

double DecodedAudio::estimatedFrequency() const {
    auto from = samples.size() / 4;
    auto to = samples.size() * 3 / 4;
    int crossings = 0;
    for (auto i = from + 1; i < to; ++i) {
        if ((samples[i - 1] < 0) != (samples[i] < 0)) {
            ++crossings;
        }
    }
    return to > from ? crossings / 2.0 / (double(to - from) / sampleRate) : 0;
}

double DecodedAudio::toneLevel(double frequency) const {
    auto from = samples.size() / 4;
    auto to = samples.size() * 3 / 4;
    if (to <= from || sampleRate <= 0) {
        return 0;
    }
    const double w = 2 * 3.141592653589793 * frequency / sampleRate;
    const double coefficient = 2 * std::cos(w);
    double s1 = 0, s2 = 0;
    for (auto i = from; i < to; ++i) {
        double s0 = samples[i] + coefficient * s1 - s2;
        s2 = s1;
        s1 = s0;
    }
    double power = s1 * s1 + s2 * s2 - coefficient * s1 * s2;
    return 2 * std::sqrt(std::max(power, 0.0)) / double(to - from);
}

DecodedAudio decodeAdts(const Bytes& stream) {
    DecodedAudio result;
    auto dir =
        std::filesystem::temp_directory_path() / ("kavelo-adts-" + std::to_string(getpid()) + "-" +
                                                  std::to_string(reinterpret_cast<std::uintptr_t>(&stream)));
    std::filesystem::create_directories(dir);
    auto input = dir / "in.aac";
    auto raw = dir / "out.f32";
    {
        std::ofstream out(input, std::ios::binary);
        out.write(reinterpret_cast<const char*>(stream.data()), static_cast<std::streamsize>(stream.size()));
    }
    auto probe = run("ffprobe -v error -show_entries stream=codec_name,sample_rate,channels -of json '" +
                     input.string() + "'");
    try {
        auto json = nlohmann::json::parse(probe);
        const auto& s = json.at("streams").at(0);
        result.codec = s.at("codec_name").get<std::string>();
        result.sampleRate = std::stoi(s.at("sample_rate").get<std::string>());
        result.channels = s.at("channels").get<int>();
    } catch (const std::exception&) {
        std::filesystem::remove_all(dir);
        return result;
    }
    run("ffmpeg -v error -y -f aac -i '" + input.string() + "' -f f32le -ac 1 '" + raw.string() + "'");
    std::ifstream in(raw, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    result.samples.resize(bytes.size() / sizeof(float));
    std::memcpy(result.samples.data(), bytes.data(), result.samples.size() * sizeof(float));
    result.ok = !result.samples.empty();
    std::filesystem::remove_all(dir);
    return result;
}

std::vector<Bytes> splitAdtsFrames(const Bytes& stream) {
    std::vector<Bytes> frames;
    std::size_t at = 0;
    while (at < stream.size()) {
        if (stream.size() - at < 7 || stream[at] != 0xFF || (stream[at + 1] & 0xF0) != 0xF0) {
            return {};
        }
        std::size_t length =
            ((stream[at + 3] & 0x03u) << 11) | (std::size_t(stream[at + 4]) << 3) | (stream[at + 5] >> 5);
        if (length < 7 || at + length > stream.size()) {
            return {};
        }
        frames.emplace_back(stream.begin() + long(at), stream.begin() + long(at + length));
        at += length;
    }
    return frames;
}

} // namespace kavelo::testing
