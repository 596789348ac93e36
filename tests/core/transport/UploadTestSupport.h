#pragma once

#include "helpers/FakeHTTPClient.h"
#include "core/support/CoreJSON.h"
#include "core/support/CoreLogger.h"
#include "core/support/ManualClock.h"
#include "core/transport/LiveSignedURLProvider.h"
#include "core/transport/LiveUploadWorker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <unistd.h>
#include <vector>

namespace kavelo::testing {

// Collects a worker's events from any thread and lets the test wait for a point in the stream.
class EventLog {
  public:
    void add(const NativeUploadEvent& event) {
        {
            std::lock_guard lock(mutex_);
            events_.push_back(event);
        }
        changed_.notify_all();
    }
    std::vector<NativeUploadEvent> all() const {
        std::lock_guard lock(mutex_);
        return events_;
    }
    std::vector<NativeUploadEvent> ofKind(NativeUploadEventKind kind) const {
        auto events = all();
        std::erase_if(events, [&](const NativeUploadEvent& e) { return e.kind != kind; });
        return events;
    }
    std::vector<std::string> kinds() const {
        std::vector<std::string> out;
        for (const auto& e : all()) {
            out.emplace_back(toRaw(e.kind));
        }
        return out;
    }
    // Rendezvous with the worker's threads: waits until n events of the kind have come.
    bool waitFor(NativeUploadEventKind kind, std::size_t n = 1) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10), [&] {
            return static_cast<std::size_t>(std::count_if(
                       events_.begin(), events_.end(), [&](const auto& e) { return e.kind == kind; })) >= n;
        });
    }
    void clear() {
        std::lock_guard lock(mutex_);
        events_.clear();
    }

  private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<NativeUploadEvent> events_;
};

inline NativeUploadEvent makeEvent(NativeUploadEventKind kind,
                                   std::function<void(NativeUploadEvent&)> fill = {}) {
    NativeUploadEvent e;
    e.kind = kind;
    if (fill) {
        fill(e);
    }
    return e;
}

// A worker on a fake HTTP client, a real chunk store in a private temporary directory and a manual clock.
class UploadWorkerTest : public ::testing::Test {
  protected:
    static constexpr const char* kBase = "https://backend.test";
    static constexpr const char* kSecret = "rs-SECRET-123";
    static constexpr const char* kAnon = "anon-KEY-456";
    static constexpr const char* kToken = "user-TOKEN-789";

    void SetUp() override {
        auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        root = std::filesystem::temp_directory_path() / ("kavelo-upload-" + std::to_string(::getpid()) + "-" +
                                                         info->test_suite_name() + "-" + info->name());
        std::filesystem::remove_all(root);
        store = std::make_shared<ChunkStore>(root);
        logger = std::make_shared<CoreLogger>(clock, 2000);
    }

    void TearDown() override {
        http->hold(false); // parked requests first, or the worker's teardown would wait for them
        worker.reset();
        std::filesystem::remove_all(root);
    }

    std::shared_ptr<LiveUploadWorker> makeWorker(UploadWorker::Config config = {},
                                                 std::shared_ptr<Clock> workerClock = nullptr) {
        AppConfig app;
        app.supabaseUrl = kBase;
        app.anonKey = kAnon;
        auto provider = std::make_shared<LiveSignedURLProvider>(app, http);
        worker = LiveUploadWorker::create(store, http, provider, workerClock ? workerClock : clock, logger,
                                          config);
        worker->setOnEvent([log = events](const NativeUploadEvent& e) { log->add(e); });
        return worker;
    }

    // generate-upload-urls answers every batch in full, with URLs that look like storage's.
    void serveSignedURLs() {
        http->respondWith("POST", "/functions/v1/generate-upload-urls", [](const HTTPRequest& request) {
            auto body = CoreJSON::decode(*request.body);
            Json urls = Json::array();
            int start = body["start_sequence"].get<int>();
            for (int s = start; s < start + body["count"].get<int>(); ++s) {
                urls.push_back({{"sequence", s}, {"url", signedURLFor(s)}});
            }
            return HTTPResponse{200, CoreJSON::encodeBytes(Json{{"urls", urls}})};
        });
    }
    static std::string signedURLFor(int sequence) {
        return "https://storage.test/upload/sign/" + std::to_string(sequence) + "?token=t" +
               std::to_string(sequence);
    }
    static Bytes chunk(int sequence) { return bytesFromString("chunk-" + std::to_string(sequence) + "-aac"); }

    std::vector<std::string> logLines(LogLevel level) const {
        std::vector<std::string> out;
        for (const auto& entry : logger->allEntries()) {
            if (entry.level == level) {
                out.push_back(entry.message);
            }
        }
        return out;
    }

    std::filesystem::path root;
    std::shared_ptr<ChunkStore> store;
    std::shared_ptr<FakeHTTPClient> http = std::make_shared<FakeHTTPClient>();
    std::shared_ptr<ManualClock> clock =
        std::make_shared<ManualClock>(TimePoint{std::chrono::seconds(1'700'000'000)});
    std::shared_ptr<CoreLogger> logger;
    std::shared_ptr<EventLog> events = std::make_shared<EventLog>();
    std::shared_ptr<LiveUploadWorker> worker;
};

} // namespace kavelo::testing
