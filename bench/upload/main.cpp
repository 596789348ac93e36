// Uploads N chunks of 96 KiB through LiveUploadWorker over libcurl to a running kavelo-devserver, and
// prints the throughput and the time from each enqueue to its upload. run-upload.sh starts the server,
// runs this, and uploads the same chunk files with curl for comparison.

#include "core/backend/CurlHTTPClient.h"
#include "core/support/SystemClock.h"
#include "core/transport/ChunkStore.h"
#include "core/transport/LiveSignedURLProvider.h"
#include "core/transport/LiveUploadWorker.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <iostream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace kavelo;
using Steady = std::chrono::steady_clock;

namespace {

struct Arguments {
    std::string baseUrl;
    std::string anonKey = "dev-anon-key";
    std::string recordingId;
    std::string secret;
    std::string chunkRoot;
    std::string writeChunksTo; // also leave each chunk here as <sequence>.aac, for the curl run
    int chunks = 200;
    int intervalMs = 0;
};

const char* kUsage =
    "usage: upload --base-url URL --recording-id ID --secret S --chunk-root DIR [--chunks N]\n"
    "              [--anon-key K] [--interval-ms MS] [--write-chunks-to DIR]\n";

bool parse(int argc, char** argv, Arguments& a) {
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (i + 1 >= argc) {
            return false;
        }
        std::string value = argv[++i];
        if (arg == "--base-url") {
            a.baseUrl = value;
        } else if (arg == "--anon-key") {
            a.anonKey = value;
        } else if (arg == "--recording-id") {
            a.recordingId = value;
        } else if (arg == "--secret") {
            a.secret = value;
        } else if (arg == "--chunk-root") {
            a.chunkRoot = value;
        } else if (arg == "--write-chunks-to") {
            a.writeChunksTo = value;
        } else if (arg == "--chunks") {
            a.chunks = std::stoi(value);
        } else if (arg == "--interval-ms") {
            a.intervalMs = std::stoi(value);
        } else {
            return false;
        }
    }
    return !a.baseUrl.empty() && !a.recordingId.empty() && !a.secret.empty() && !a.chunkRoot.empty() &&
           a.chunks > 0;
}

// Audio-like bytes that do not compress: a simple generator per chunk.
Bytes chunkBytes(int sequence) {
    Bytes data(96 * 1024);
    std::uint64_t x = 0x9e3779b97f4a7c15ULL * static_cast<std::uint64_t>(sequence + 1);
    for (auto& b : data) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        b = static_cast<std::uint8_t>(x);
    }
    return data;
}

double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    auto index = static_cast<std::size_t>(p * static_cast<double>(values.size() - 1) + 0.5);
    return values[std::min(index, values.size() - 1)];
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

    std::vector<Bytes> payloads;
    for (int s = 1; s <= args.chunks; ++s) {
        payloads.push_back(chunkBytes(s));
        if (!args.writeChunksTo.empty()) {
            auto path = args.writeChunksTo + "/" + ChunkStore::filename(s);
            FILE* f = std::fopen(path.c_str(), "wb");
            if (!f ||
                std::fwrite(payloads.back().data(), 1, payloads.back().size(), f) != payloads.back().size()) {
                std::cerr << "cannot write " << path << "\n";
                return 1;
            }
            std::fclose(f);
        }
    }

    auto clock = std::make_shared<SystemClock>();
    auto http = std::make_shared<CurlHTTPClient>();
    AppConfig config;
    config.supabaseUrl = args.baseUrl;
    config.anonKey = args.anonKey;
    auto worker = LiveUploadWorker::create(std::make_shared<ChunkStore>(args.chunkRoot), http,
                                           std::make_shared<LiveSignedURLProvider>(config, http), clock,
                                           std::make_shared<CoreLogger>(clock, 2000));

    std::mutex mutex;
    std::condition_variable done;
    std::map<int, Steady::time_point> enqueuedAt;
    std::vector<double> latenciesMs;
    int failed = 0;
    std::map<std::string, int> routes;
    worker->setOnEvent([&](const NativeUploadEvent& e) {
        if (e.kind != NativeUploadEventKind::uploaded && e.kind != NativeUploadEventKind::failed) {
            return;
        }
        auto now = Steady::now();
        std::lock_guard lock(mutex);
        if (e.kind == NativeUploadEventKind::failed) {
            ++failed;
        } else if (e.sequence && enqueuedAt.count(*e.sequence)) {
            latenciesMs.push_back(
                std::chrono::duration<double, std::milli>(now - enqueuedAt[*e.sequence]).count());
            ++routes[e.mode.value_or("?")];
        }
        done.notify_all();
    });
    worker->configure(args.recordingId, args.secret, args.baseUrl, args.anonKey, std::nullopt);

    auto started = Steady::now();
    for (int s = 1; s <= args.chunks; ++s) {
        {
            std::lock_guard lock(mutex);
            enqueuedAt[s] = Steady::now();
        }
        worker->enqueue(payloads[static_cast<std::size_t>(s - 1)], s, s == args.chunks, 48000.0, 1);
        if (args.intervalMs > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(args.intervalMs));
        }
    }
    {
        std::unique_lock lock(mutex);
        bool finished = done.wait_for(lock, std::chrono::minutes(10), [&] {
            return static_cast<int>(latenciesMs.size()) + failed >= args.chunks;
        });
        if (!finished) {
            std::cerr << "timed out with " << latenciesMs.size() << " of " << args.chunks << " uploaded\n";
            return 1;
        }
    }
    double seconds = std::chrono::duration<double>(Steady::now() - started).count();
    worker.reset();

    std::printf("worker: %d chunks of 96 KiB in %.3f s: %.1f chunks/s (%.1f MiB/s), failed %d\n", args.chunks,
                seconds, args.chunks / seconds, args.chunks * 96.0 / 1024.0 / seconds, failed);
    std::printf("worker: enqueue->uploaded p50 %.1f ms, p99 %.1f ms", percentile(latenciesMs, 0.5),
                percentile(latenciesMs, 0.99));
    for (const auto& [route, count] : routes) {
        std::printf(", %s %d", route.c_str(), count);
    }
    std::printf("\nworker_chunks_per_second=%.3f\n", args.chunks / seconds);
    return failed == 0 ? 0 : 1;
}
