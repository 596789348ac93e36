// How much the encoder's fast quantisation search costs in fidelity and saves in processor time, on
// speech at the recording's bit rate. Encodes one 48 kHz mono float file with ADTSAACEncoder twice (the
// twoloop and the fast coder), decodes each ADTS stream with libavcodec's AAC decoder, lines the decoded
// audio up with the source (the encoder's start-up delay), and prints for each coder: processor seconds
// to encode, SNR, segmental SNR over the voiced 20 ms frames, and the log-spectral distance up to the
// source's bandwidth. run-coder.sh makes the speech with espeak-ng. Asserts nothing.

#include "app/capture/ADTSAACEncoder.h"
#include "bench/support/ResourceUsage.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <numbers>
#include <stdexcept>
#include <string>
#include <vector>

using namespace kavelo;
using namespace kavelo::bench;

namespace {

constexpr std::size_t maxInputSamples = std::size_t(48000) * 3600;

std::vector<float> readSamples(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw std::runtime_error("cannot read " + path);
    }
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (bytes.size() / sizeof(float) > maxInputSamples) {
        throw std::runtime_error(path + " holds more than an hour of audio");
    }
    std::vector<float> samples(bytes.size() / sizeof(float));
    std::copy_n(bytes.data(), samples.size() * sizeof(float), reinterpret_cast<char*>(samples.data()));
    return samples;
}

Bytes encode(const std::vector<float>& source, ADTSAACEncoder::Coder coder, ResourceUsage& usage) {
    Bytes stream;
    const auto before = ResourceUsage::ofThisProcess();
    ADTSAACEncoder encoder(coder);
    if (!encoder.isReady()) {
        throw std::runtime_error("the AAC encoder did not open");
    }
    encoder.setOnEncodedData(
        [&](const Bytes& data) { stream.insert(stream.end(), data.begin(), data.end()); });
    for (std::size_t at = 0; at < source.size(); at += 1024) {
        encoder.encode(source.data() + at, std::min<std::size_t>(1024, source.size() - at));
    }
    usage = ResourceUsage::ofThisProcess() - before;
    return stream;
}

std::vector<float> decode(const Bytes& stream) {
    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_AAC);
    AVCodecContext* context = codec ? avcodec_alloc_context3(codec) : nullptr;
    if (context == nullptr || avcodec_open2(context, codec, nullptr) < 0) {
        throw std::runtime_error("the AAC decoder did not open");
    }
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    std::vector<float> out;
    // Each packet is one whole ADTS frame, header included; the decoder reads the header itself.
    std::size_t at = 0;
    while (at + ADTSAACEncoder::headerSize <= stream.size()) {
        const std::size_t length = (std::size_t(stream[at + 3] & 0x03) << 11) |
                                   (std::size_t(stream[at + 4]) << 3) | (std::size_t(stream[at + 5]) >> 5);
        if (length < ADTSAACEncoder::headerSize || at + length > stream.size()) {
            break;
        }
        av_new_packet(packet, int(length));
        std::copy_n(stream.data() + at, length, packet->data);
        at += length;
        if (avcodec_send_packet(context, packet) == 0) {
            while (avcodec_receive_frame(context, frame) == 0) {
                const auto* samples = reinterpret_cast<const float*>(frame->data[0]);
                out.insert(out.end(), samples, samples + frame->nb_samples);
            }
        }
        av_packet_unref(packet);
    }
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&context);
    return out;
}

// The decoded stream starts with the encoder's delay; the lag with the highest correlation over the
// first seconds lines it up with the source.
std::size_t bestLag(const std::vector<float>& source, const std::vector<float>& decoded) {
    const std::size_t span = std::min<std::size_t>(48000 * 5, source.size());
    std::size_t best = 0;
    double bestScore = -1e300;
    for (std::size_t lag = 0; lag <= 4096 && lag + span <= decoded.size(); ++lag) {
        double score = 0;
        for (std::size_t i = 0; i < span; ++i) {
            score += double(source[i]) * double(decoded[i + lag]);
        }
        if (score > bestScore) {
            bestScore = score;
            best = lag;
        }
    }
    return best;
}

void fft(std::vector<std::complex<double>>& a) {
    const std::size_t n = a.size();
    for (std::size_t i = 1, j = 0; i < n; ++i) {
        std::size_t bit = n >> 1;
        for (; j & bit; bit >>= 1) {
            j ^= bit;
        }
        j ^= bit;
        if (i < j) {
            std::swap(a[i], a[j]);
        }
    }
    for (std::size_t length = 2; length <= n; length <<= 1) {
        const auto step = std::polar(1.0, -2 * std::numbers::pi / double(length));
        for (std::size_t i = 0; i < n; i += length) {
            std::complex<double> w = 1;
            for (std::size_t k = 0; k < length / 2; ++k) {
                const auto u = a[i + k], v = a[i + k + length / 2] * w;
                a[i + k] = u + v;
                a[i + k + length / 2] = u - v;
                w *= step;
            }
        }
    }
}

struct Fidelity {
    double snr = 0;
    double segmentalSnr = 0;
    double logSpectralDistance = 0;
    int voicedFrames = 0;
};

Fidelity compare(const std::vector<float>& source, const std::vector<float>& decoded, std::size_t lag,
                 double bandwidthHz) {
    const std::size_t n = std::min(source.size(), decoded.size() - lag);
    auto out = [&](std::size_t i) { return double(decoded[i + lag]); };
    Fidelity f;
    double signal = 0, noise = 0;
    for (std::size_t i = 0; i < n; ++i) {
        signal += double(source[i]) * source[i];
        noise += (source[i] - out(i)) * (source[i] - out(i));
    }
    f.snr = 10 * std::log10(signal / std::max(noise, 1e-20));

    // Segmental SNR over 20 ms frames louder than -45 dBFS, each clamped to [-10, 35] dB as is usual so
    // that neither a near-silent frame nor a perfect one dominates.
    const std::size_t frame = 960;
    double sum = 0;
    for (std::size_t at = 0; at + frame <= n; at += frame) {
        double s = 0, e = 0;
        for (std::size_t i = at; i < at + frame; ++i) {
            s += double(source[i]) * source[i];
            e += (source[i] - out(i)) * (source[i] - out(i));
        }
        if (s / double(frame) < std::pow(10.0, -4.5)) {
            continue;
        }
        sum += std::clamp(10 * std::log10(s / std::max(e, 1e-20)), -10.0, 35.0);
        ++f.voicedFrames;
    }
    f.segmentalSnr = f.voicedFrames > 0 ? sum / f.voicedFrames : 0;

    // Log-spectral distance: Hann-windowed 1024-point frames, hop 512, over the voiced frames, bins up to
    // the source's bandwidth.
    const std::size_t size = 1024;
    const auto bins = std::size_t(bandwidthHz / 48000.0 * double(size));
    std::vector<double> window(size);
    for (std::size_t i = 0; i < size; ++i) {
        window[i] = 0.5 - 0.5 * std::cos(2 * std::numbers::pi * double(i) / double(size));
    }
    std::vector<std::complex<double>> a(size), b(size);
    double distance = 0;
    int frames = 0;
    for (std::size_t at = 0; at + size <= n; at += size / 2) {
        double energy = 0;
        for (std::size_t i = 0; i < size; ++i) {
            a[i] = source[at + i] * window[i];
            b[i] = out(at + i) * window[i];
            energy += double(source[at + i]) * source[at + i];
        }
        if (energy / double(size) < std::pow(10.0, -4.5)) {
            continue;
        }
        fft(a);
        fft(b);
        double squares = 0;
        for (std::size_t k = 1; k < bins; ++k) {
            const double d =
                10 * std::log10(std::norm(a[k]) + 1e-12) - 10 * std::log10(std::norm(b[k]) + 1e-12);
            squares += d * d;
        }
        distance += std::sqrt(squares / double(bins - 1));
        ++frames;
    }
    f.logSpectralDistance = frames > 0 ? distance / frames : 0;
    return f;
}

} // namespace

int main(int argc, char** argv) {
    std::string input;
    double bandwidth = 11025;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string arg = argv[i];
        if (arg == "--input") {
            input = argv[i + 1];
        } else if (arg == "--bandwidth") {
            bandwidth = std::atof(argv[i + 1]);
        }
    }
    if (input.empty() || argc % 2 == 0 || bandwidth < 1000 || bandwidth > 24000) {
        std::cerr
            << "usage: coder --input SPEECH.f32 [--bandwidth HZ]   (48 kHz mono float, little-endian)\n";
        return 2;
    }
    try {
        const auto source = readSamples(input);
        if (source.size() < 48000 * 6) {
            throw std::runtime_error("the input is shorter than six seconds");
        }
        std::printf("== %.1f s of speech at %d bit/s, compared up to %.0f Hz\n",
                    double(source.size()) / 48000, ADTSAACEncoder::bitRate, bandwidth);
        std::printf("%-8s %9s %9s %9s %9s %11s\n", "coder", "cpu s", "SNR dB", "segSNR", "LSD dB", "kbit/s");
        double cpu[2] = {};
        for (auto coder : {ADTSAACEncoder::Coder::twoLoop, ADTSAACEncoder::Coder::fast}) {
            ResourceUsage usage;
            const auto stream = encode(source, coder, usage);
            const auto decoded = decode(stream);
            const auto f = compare(source, decoded, bestLag(source, decoded), bandwidth);
            const bool fast = coder == ADTSAACEncoder::Coder::fast;
            cpu[fast ? 1 : 0] = usage.cpuSeconds();
            std::printf("%-8s %9.3f %9.2f %9.2f %9.2f %11.1f\n", fast ? "fast" : "twoloop",
                        usage.cpuSeconds(), f.snr, f.segmentalSnr, f.logSpectralDistance,
                        double(stream.size()) * 8 / (double(source.size()) / 48000) / 1000);
        }
        std::printf("ratio cpu fast/twoloop: %.3f\n", cpu[1] / std::max(cpu[0], 1e-9));
    } catch (const std::exception& e) {
        std::cerr << "coder: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
