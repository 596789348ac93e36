// Processor time to turn N seconds of 48 kHz mono pink noise into stored chunk files through the
// recorder's own road: LinuxNativeRecorder mixing a microphone and a system stream fed as the fallback
// path's captures feed them, ADTSAACEncoder, the recorder's chunk cutting, and ChunkStore's durable
// writes. Beside it, on the same mixed samples at the same bit rate and coder: the bare libavcodec "aac"
// encoder (no mixing, no ADTS, no files) and the ffmpeg program. Prints processor seconds (user +
// system, from getrusage and wait4) and their ratios; asserts nothing.

#include "app/capture/ADTSAACEncoder.h"
#include "app/capture/AudioDeviceDirectory.h"
#include "app/capture/CaptureBackend.h"
#include "app/capture/LinuxNativeRecorder.h"
#include "bench/support/ResourceUsage.h"
#include "core/support/CoreLogger.h"
#include "core/support/SystemClock.h"
#include "core/transport/ChunkStore.h"
#include "core/transport/UploadWorker.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <string>
#include <vector>

using namespace kavelo;
using namespace kavelo::bench;

namespace {

struct Arguments {
    double seconds = 600;
    std::size_t framesPerBuffer = 1024;
    int rounds = 3;
    std::string workDirectory;
    std::string ffmpeg = "ffmpeg";
    // The recorder always encodes with its own coder; the references use the same.
    ADTSAACEncoder::Coder coder = ADTSAACEncoder::defaultCoder;
};

const char* kUsage =
    "usage: encode --work-dir DIR [--seconds S] [--frames N] [--rounds R] [--ffmpeg PROGRAM|none]\n";

bool parse(int argc, char** argv, Arguments& a) {
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string arg = argv[i], value = argv[i + 1];
        if (arg == "--seconds") {
            a.seconds = std::stod(value);
        } else if (arg == "--frames") {
            a.framesPerBuffer = std::stoul(value);
        } else if (arg == "--rounds") {
            a.rounds = std::stoi(value);
        } else if (arg == "--work-dir") {
            a.workDirectory = value;
        } else if (arg == "--ffmpeg") {
            a.ffmpeg = value;
        } else {
            return false;
        }
    }
    return argc % 2 == 1 && !a.workDirectory.empty() && a.seconds > 0 && a.seconds <= 24 * 3600 &&
           a.framesPerBuffer > 0 && a.framesPerBuffer <= 48000 && a.rounds > 0;
}

const char* coderName(ADTSAACEncoder::Coder coder) {
    return coder == ADTSAACEncoder::Coder::fast ? "fast" : "twoloop";
}

// Pink noise (Paul Kellet's filter over a xorshift white noise), about -18 dBFS RMS: speech-like in its
// spectrum's slope, and hard enough on the encoder that it cannot coast on silence.
std::vector<float> pinkNoise(std::size_t count, std::uint64_t seed) {
    std::vector<float> out(count);
    std::uint64_t x = seed * 0x9e3779b97f4a7c15ULL + 1;
    double b0 = 0, b1 = 0, b2 = 0, b3 = 0, b4 = 0, b5 = 0, b6 = 0;
    for (auto& sample : out) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        const double white = double(x >> 11) / double(1ULL << 53) * 2.0 - 1.0;
        b0 = 0.99886 * b0 + white * 0.0555179;
        b1 = 0.99332 * b1 + white * 0.0750759;
        b2 = 0.96900 * b2 + white * 0.1538520;
        b3 = 0.86650 * b3 + white * 0.3104856;
        b4 = 0.55000 * b4 + white * 0.5329522;
        b5 = -0.7616 * b5 - white * 0.0168980;
        const double pink = b0 + b1 + b2 + b3 + b4 + b5 + b6 + white * 0.5362;
        b6 = white * 0.115926;
        sample = float(pink * 0.05);
    }
    return out;
}

// The fallback path's two captures, driven by this program instead of an audio server.
struct DrivenCaptures final : CaptureBackend {
    struct Stream final : MicrophoneCapture, SystemAudioCapture {};
    MonoBufferHandler microphone, system;

    std::unique_ptr<MicrophoneCapture> startMicrophone(const std::string&,
                                                       MonoBufferHandler onBuffer) override {
        microphone = std::move(onBuffer);
        return std::make_unique<Stream>();
    }
    SystemAudioStartResult startSystemAudio(SystemAudioMode, const std::optional<std::string>&,
                                            MonoBufferHandler onSamples) override {
        system = std::move(onSamples);
        SystemAudioStartResult result;
        result.outcome = SystemAudioStartResult::Outcome::started;
        result.capture = std::make_unique<Stream>();
        return result;
    }
    bool aggregatePathSupported() override { return false; }
    std::shared_ptr<AggregateCapture> makeAggregateCapture(std::optional<std::string>, LogFunction) override {
        return nullptr;
    }
    bool probeAudioCapture() override { return true; }
};

struct GrantingDevices final : AudioDeviceDirectory {
    std::vector<AudioDevice> listMicrophones() override { return {}; }
    std::vector<AudioDevice> listOutputDevices() override { return {}; }
    std::vector<AudioDevice> listSystemAudioSources() override { return {}; }
    std::optional<std::string> deviceName(const std::string&) override { return std::nullopt; }
    bool setDefaultOutputDevice(const std::string&) override { return false; }
    PermissionState microphoneAccess() override { return PermissionState::granted; }
    bool systemAudioAccess() override { return true; }
};

// The disk half of the upload worker: each chunk made durable by ChunkStore, as LiveUploadWorker does
// before it queues the upload. The network half is measured by bench/upload.
struct StoringWorker final : UploadWorker {
    explicit StoringWorker(std::filesystem::path root) : store(std::move(root)) {}
    void configure(const std::string&, const std::optional<std::string>&, const std::string&,
                   const std::string&, const std::optional<std::string>&) override {}
    void enqueue(const Bytes& data, int sequence, bool, double, int) override {
        bytes += store.store("bench-encode", sequence, data);
        ++chunks;
    }
    // The journal of the chunk being filled is part of storing: about one synced append a second.
    void journal(const Bytes& appended, int sequence) override {
        store.appendJournal("bench-encode", sequence, appended);
    }
    void scheduleDrain() override {}
    void acceptServerAcks(const std::vector<int>&) override {}
    void requeue(const std::vector<int>&) override {}
    void retryFailed() override {}
    void updateAuthToken(const std::optional<std::string>&) override {}
    std::vector<int> uploadedSequences() const override { return {}; }
    std::vector<int> pendingSequences() const override { return {}; }
    std::vector<FailedChunk> failedChunks() const override { return {}; }
    void setOnEvent(EventHandler) override {}

    ChunkStore store;
    long long bytes = 0;
    int chunks = 0;
};

struct Outcome {
    ResourceUsage usage;
    long long bytes = 0;
    int chunks = 0;
};

Outcome runOurs(const Arguments& args, const std::vector<float>& microphone,
                const std::vector<float>& system) {
    const auto root = std::filesystem::path(args.workDirectory) / "ours";
    std::filesystem::remove_all(root);
    auto worker = std::make_shared<StoringWorker>(root);
    // A real clock: its health check, 30 s away, finds chunks coming if it ticks at all during the run.
    auto clock = std::make_shared<SystemClock>();
    auto captures = std::make_shared<DrivenCaptures>();
    auto recorder = LinuxNativeRecorder::make({worker, std::make_shared<CoreLogger>(clock, 100), clock,
                                               captures, std::make_shared<GrantingDevices>(),
                                               [](const std::string&) { return std::nullopt; }});
    StartRecordingInput input;
    input.recordingId = "bench-encode";
    input.systemAudioMode = SystemAudioMode::system;

    const auto before = ResourceUsage::ofThisProcess();
    recorder->start(input);
    if (!captures->microphone || !captures->system) {
        throw std::runtime_error("the recorder opened no fallback captures");
    }
    // System first, as the two capture workers usually interleave; the recorder mixes the system ring
    // into each microphone buffer.
    for (std::size_t at = 0; at < microphone.size(); at += args.framesPerBuffer) {
        const auto n = std::min(args.framesPerBuffer, microphone.size() - at);
        captures->system(system.data() + at, n);
        captures->microphone(microphone.data() + at, n);
    }
    recorder->stop();
    Outcome outcome{ResourceUsage::ofThisProcess() - before, worker->bytes, worker->chunks};
    std::filesystem::remove_all(root);
    return outcome;
}

Outcome runBare(const Arguments& args, const std::vector<float>& mixed) {
    const auto before = ResourceUsage::ofThisProcess();
    const AVCodec* codec = avcodec_find_encoder_by_name("aac");
    AVCodecContext* context = codec ? avcodec_alloc_context3(codec) : nullptr;
    if (context == nullptr) {
        throw std::runtime_error("no aac encoder");
    }
    context->sample_rate = ADTSAACEncoder::sampleRate;
    context->sample_fmt = AV_SAMPLE_FMT_FLTP;
    context->bit_rate = ADTSAACEncoder::bitRate;
    context->profile = FF_PROFILE_AAC_LOW;
    context->time_base = AVRational{1, ADTSAACEncoder::sampleRate};
    av_channel_layout_default(&context->ch_layout, 1);
    av_opt_set(context->priv_data, "aac_coder", coderName(args.coder), 0);
    if (avcodec_open2(context, codec, nullptr) < 0) {
        throw std::runtime_error("aac encoder did not open");
    }
    AVFrame* frame = av_frame_alloc();
    AVPacket* packet = av_packet_alloc();
    frame->nb_samples = context->frame_size;
    frame->format = AV_SAMPLE_FMT_FLTP;
    frame->sample_rate = context->sample_rate;
    av_channel_layout_copy(&frame->ch_layout, &context->ch_layout);
    av_frame_get_buffer(frame, 0);
    Outcome outcome;
    const auto size = std::size_t(context->frame_size);
    for (std::size_t at = 0; at + size <= mixed.size(); at += size) {
        av_frame_make_writable(frame);
        std::copy_n(mixed.data() + at, size, reinterpret_cast<float*>(frame->data[0]));
        frame->pts = std::int64_t(at);
        if (avcodec_send_frame(context, frame) < 0) {
            break;
        }
        while (avcodec_receive_packet(context, packet) == 0) {
            outcome.bytes += packet->size;
            av_packet_unref(packet);
        }
    }
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&context);
    outcome.usage = ResourceUsage::ofThisProcess() - before;
    return outcome;
}

Outcome runProgram(const Arguments& args, const std::string& input) {
    const auto output = args.workDirectory + "/ffmpeg.aac";
    const double started = monotonicSeconds();
    const pid_t pid = spawnProgram({args.ffmpeg,    "-nostdin",
                                    "-hide_banner", "-loglevel",
                                    "error",        "-y",
                                    "-f",           "f32le",
                                    "-ar",          "48000",
                                    "-ac",          "1",
                                    "-i",           input,
                                    "-c:a",         "aac",
                                    "-b:a",         std::to_string(ADTSAACEncoder::bitRate),
                                    "-aac_coder",   coderName(args.coder),
                                    "-f",           "adts",
                                    output},
                                   {}, args.workDirectory + "/ffmpeg.log");
    Outcome outcome{waitForProgram(pid, started), 0, 0};
    if (outcome.usage.exitStatus != 0) {
        throw std::runtime_error("ffmpeg failed; see " + args.workDirectory + "/ffmpeg.log");
    }
    outcome.bytes = static_cast<long long>(std::filesystem::file_size(output));
    std::filesystem::remove(output);
    return outcome;
}

void print(const char* name, const Outcome& o, double audioSeconds) {
    std::printf("%-8s cpu %7.3f s (user %7.3f, system %6.3f)  %6.0fx real time  %9lld bytes", name,
                o.usage.cpuSeconds(), o.usage.userSeconds, o.usage.systemSeconds,
                audioSeconds / std::max(o.usage.cpuSeconds(), 1e-9), o.bytes);
    if (o.chunks > 0) {
        std::printf(" in %d chunks", o.chunks);
    }
    std::printf("\n");
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
        std::filesystem::create_directories(args.workDirectory);
        const auto count = std::size_t(args.seconds * 48000);
        const auto microphone = pinkNoise(count, 1);
        const auto system = pinkNoise(count, 2);
        // What reaches the encoder in our road: the microphone plus the system ring, clipped at ±1.
        std::vector<float> mixed(count);
        for (std::size_t i = 0; i < count; ++i) {
            mixed[i] = std::clamp(microphone[i] + system[i], -1.0f, 1.0f);
        }
        const auto input = args.workDirectory + "/mixed.f32";
        if (args.ffmpeg != "none") {
            FILE* f = std::fopen(input.c_str(), "wb");
            if (f == nullptr || std::fwrite(mixed.data(), sizeof(float), count, f) != count) {
                throw std::runtime_error("cannot write " + input);
            }
            std::fclose(f);
        }

        std::printf("== %.0f s of 48 kHz mono pink noise, AAC-LC %d bit/s, coder %s, buffers of %zu frames, "
                    "best of %d rounds\n",
                    args.seconds, ADTSAACEncoder::bitRate, coderName(args.coder), args.framesPerBuffer,
                    args.rounds);
        // FFmpeg fills its static tables at the first encoder a process opens; that is paid here, once,
        // rather than by whichever run comes first.
        { ADTSAACEncoder warmUp(args.coder); }
        Outcome ours, bare, program;
        auto keepBest = [](Outcome& best, const Outcome& next) {
            if (best.usage.cpuSeconds() == 0 || next.usage.cpuSeconds() < best.usage.cpuSeconds()) {
                best = next;
            }
        };
        // Interleaved, so that a change in the machine's load falls on all three alike.
        for (int round = 0; round < args.rounds; ++round) {
            keepBest(ours, runOurs(args, microphone, system));
            keepBest(bare, runBare(args, mixed));
            if (args.ffmpeg != "none") {
                keepBest(program, runProgram(args, input));
            }
        }
        print("ours", ours, args.seconds);
        print("bare", bare, args.seconds);
        if (args.ffmpeg != "none") {
            print("ffmpeg", program, args.seconds);
        }
        std::printf("ratio ours/bare:   %.3f (target at most 1.05)\n",
                    ours.usage.cpuSeconds() / bare.usage.cpuSeconds());
        if (args.ffmpeg != "none") {
            std::printf("ratio ffmpeg/bare: %.3f\n", program.usage.cpuSeconds() / bare.usage.cpuSeconds());
            std::printf("ratio ours/ffmpeg: %.3f\n", ours.usage.cpuSeconds() / program.usage.cpuSeconds());
            std::filesystem::remove(input);
        }
        std::printf("ours_cpu_seconds=%.3f\nbare_cpu_seconds=%.3f\n", ours.usage.cpuSeconds(),
                    bare.usage.cpuSeconds());
    } catch (const std::exception& e) {
        std::cerr << "encode: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
