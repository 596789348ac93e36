#include "helpers/DevServerProcess.h"

#include "core/backend/CurlHTTPClient.h"
#include "core/support/CoreJSON.h"
#include "core/support/SystemClock.h"
#include "core/transport/ChunkStore.h"
#include "core/transport/LiveSignedURLProvider.h"
#include "core/transport/LiveUploadWorker.h"

#include <gtest/gtest.h>
#include <httplib.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sys/mount.h>
#include <thread>

using namespace kavelo;

namespace {

// The real upload road: LiveUploadWorker over libcurl, against kavelo-devserver as a child process.
class UploadAgainstStandInTest : public ::testing::Test {
  protected:
    void start(std::vector<std::string> serverArgs, UploadWorker::Config config = {}) {
        server_ = std::make_unique<DevServerProcess>(std::move(serverArgs));
        admin_ = std::make_unique<httplib::Client>("127.0.0.1", server_->port());
        auto seeded =
            admin_->Post("/__admin/recordings",
                         R"({"recording_id":"rec-int","recording_secret":"int-secret"})", "application/json");
        ASSERT_TRUE(seeded && seeded->status == 200);
        std::string tmpl = (std::filesystem::temp_directory_path() / "kavelo-upload-int-XXXXXX").string();
        ASSERT_NE(::mkdtemp(tmpl.data()), nullptr);
        chunkRoot_ = tmpl;
        chunks_ = std::make_shared<ChunkStore>(chunkRoot_);
        auto clock = std::make_shared<SystemClock>();
        auto http = std::make_shared<CurlHTTPClient>();
        AppConfig appConfig;
        appConfig.supabaseUrl = server_->baseUrl();
        appConfig.anonKey = server_->anonKey();
        worker_ =
            LiveUploadWorker::create(chunks_, http, std::make_shared<LiveSignedURLProvider>(appConfig, http),
                                     clock, std::make_shared<CoreLogger>(clock, 2000), config);
        worker_->setOnEvent([this](const NativeUploadEvent& event) {
            std::lock_guard lock(mutex_);
            events_.push_back(event);
        });
    }
    void configure(std::optional<std::string> secret = std::string("int-secret")) {
        worker_->configure("rec-int", secret, server_->baseUrl(), server_->anonKey(), std::nullopt);
    }
    void TearDown() override {
        worker_.reset();
        server_.reset();
        std::error_code ec;
        std::filesystem::remove_all(chunkRoot_, ec);
    }

    static Bytes chunkBytes(int sequence) {
        Bytes data(96 * 1024);
        for (std::size_t i = 0; i < data.size(); ++i) {
            data[i] = static_cast<std::uint8_t>((i * 31 + static_cast<std::size_t>(sequence) * 7) & 0xff);
        }
        return data;
    }
    void enqueue(int from, int to) {
        for (int s = from; s <= to; ++s) {
            worker_->enqueue(chunkBytes(s), s, s == to, 48000.0, 1);
        }
    }
    // Real time passes here: uploads, back-offs and restarts happen on their own threads.
    // The worker books a chunk as uploaded, then removes its file and tells its event, each on the
    // uploading thread: a test that reads all three waits for all three.
    bool uploadSettled(std::size_t count) {
        return worker_->uploadedSequences().size() == count &&
               eventsOf(NativeUploadEventKind::uploaded).size() == count &&
               chunks_->storedSequences("rec-int").empty();
    }

    bool waitUntil(const std::function<bool()>& condition,
                   std::chrono::seconds limit = std::chrono::seconds(30)) {
        auto deadline = std::chrono::steady_clock::now() + limit;
        while (std::chrono::steady_clock::now() < deadline) {
            if (condition()) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return condition();
    }
    std::vector<NativeUploadEvent> eventsOf(NativeUploadEventKind kind) {
        std::lock_guard lock(mutex_);
        std::vector<NativeUploadEvent> list;
        for (const auto& e : events_) {
            if (e.kind == kind) {
                list.push_back(e);
            }
        }
        return list;
    }
    std::string storedObject(int sequence) {
        auto r = admin_->Get("/__admin/storage/object?bucket=recordings&path=rec-int/chunks/" +
                             ChunkStore::filename(sequence));
        return r && r->status == 200 ? r->body : "<absent>";
    }
    Json adminJson(const std::string& path) {
        auto r = admin_->Get(path);
        return r ? CoreJSON::decode(r->body) : Json();
    }
    void addFault(const std::string& json) {
        auto r = admin_->Post("/__admin/faults", json, "application/json");
        ASSERT_TRUE(r && r->status == 200);
    }
    static std::string text(const Bytes& b) { return std::string(b.begin(), b.end()); }

    std::unique_ptr<DevServerProcess> server_;
    std::unique_ptr<httplib::Client> admin_;
    std::filesystem::path chunkRoot_;
    std::shared_ptr<ChunkStore> chunks_;
    std::shared_ptr<LiveUploadWorker> worker_;
    std::mutex mutex_;
    std::vector<NativeUploadEvent> events_; // guarded by mutex_
};

TEST_F(UploadAgainstStandInTest, TenChunksGoBySignedUrlsFourAtATime) {
    start({"--fault", "signed-upload:latency-ms=250"});
    configure();
    enqueue(1, 10);
    ASSERT_TRUE(waitUntil([&] { return uploadSettled(10); }));
    std::vector<int> all{1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    EXPECT_EQ(worker_->uploadedSequences(), all);
    for (int s = 1; s <= 10; ++s) {
        EXPECT_EQ(storedObject(s), text(chunkBytes(s))) << s;
    }
    EXPECT_EQ(chunks_->storedSequences("rec-int"), std::vector<int>{});
    for (const auto& e : eventsOf(NativeUploadEventKind::uploaded)) {
        EXPECT_EQ(e.mode, "signed_url");
    }
    auto requests = adminJson("/__admin/requests");
    EXPECT_EQ(requests["peak_in_flight"]["signed-upload"], 4);
    // Uploads that find the pool empty may fetch at the same time, but one batch of 50 serves all ten.
    auto fetches = adminJson("/__admin/requests?route=generate-upload-urls")["requests"].size();
    EXPECT_GE(fetches, 1u);
    EXPECT_LE(fetches, 4u);
}

TEST_F(UploadAgainstStandInTest, AChunkTheServerHoldsAlreadyCountsAsUploaded) {
    start({});
    auto held = admin_->Post("/storage/v1/object/recordings/rec-int/chunks/00002.aac",
                             {{"apikey", "dev-anon-key"}, {"Authorization", "Bearer dev-anon-key"}},
                             "earlier", "audio/aac");
    ASSERT_TRUE(held && held->status == 200);
    configure();
    enqueue(1, 3);
    ASSERT_TRUE(waitUntil([&] { return uploadSettled(3); }));
    bool saw409 = false;
    for (const auto& e : eventsOf(NativeUploadEventKind::uploaded)) {
        saw409 |= e.sequence == 2 && e.statusCode == 409;
    }
    EXPECT_TRUE(saw409);
    EXPECT_EQ(storedObject(2), "earlier"); // the signed route never overwrites
    EXPECT_FALSE(chunks_->exists("rec-int", 2));
}

TEST_F(UploadAgainstStandInTest, AnExistingObjectReportedAs400ByHostedStorageCountsAsUploaded) {
    start({"--storage-conflict-as-400"});
    auto held = admin_->Post("/storage/v1/object/recordings/rec-int/chunks/00001.aac",
                             {{"apikey", "dev-anon-key"}, {"Authorization", "Bearer dev-anon-key"}},
                             "earlier", "audio/aac");
    ASSERT_TRUE(held && held->status == 200);
    configure();
    enqueue(1, 1);
    ASSERT_TRUE(waitUntil([&] { return uploadSettled(1); }));
    auto uploaded = eventsOf(NativeUploadEventKind::uploaded);
    ASSERT_EQ(uploaded.size(), 1u);
    EXPECT_EQ(uploaded[0].statusCode, 409) << "read as the duplicate it is";
    EXPECT_EQ(uploaded[0].attempt, 1);
    EXPECT_EQ(adminJson("/__admin/requests?route=signed-upload")["requests"][0]["status"], 400);
}

TEST_F(UploadAgainstStandInTest, ServerErrorsAreRetriedUntilTheChunkGetsThrough) {
    start({"--fault", "signed-upload:status=500,count=2"});
    configure();
    enqueue(1, 1);
    ASSERT_TRUE(waitUntil([&] { return uploadSettled(1); }));
    auto uploaded = eventsOf(NativeUploadEventKind::uploaded);
    ASSERT_EQ(uploaded.size(), 1u);
    EXPECT_EQ(uploaded[0].attempt, 3);
    EXPECT_EQ(uploaded[0].statusCode, 200);
    EXPECT_TRUE(worker_->failedChunks().empty());
    EXPECT_EQ(storedObject(1), text(chunkBytes(1)));
}

TEST_F(UploadAgainstStandInTest, RefusedUrlFetchPausesFetchingWhileChunksGoByTheFallbackRoute) {
    start({"--refuse-url-fetch", "403"});
    configure();
    enqueue(1, 6);
    ASSERT_TRUE(waitUntil([&] { return uploadSettled(6); }));
    for (const auto& e : eventsOf(NativeUploadEventKind::uploaded)) {
        EXPECT_EQ(e.mode, "jwt_fallback");
    }
    auto failures = eventsOf(NativeUploadEventKind::urlFetchFailed);
    ASSERT_FALSE(failures.empty());
    EXPECT_EQ(failures[0].statusCode, 403);
    EXPECT_EQ(failures[0].retryAfterSeconds, 120);
    // Only the fetches that were already under way when the first refusal came; none after the pause began.
    auto fetches = adminJson("/__admin/requests?route=generate-upload-urls")["requests"].size();
    EXPECT_GE(fetches, 1u);
    EXPECT_LE(fetches, 4u);
    EXPECT_EQ(adminJson("/__admin/requests?route=storage-upload")["requests"].size(), 6u);
    for (int s = 1; s <= 6; ++s) {
        EXPECT_EQ(storedObject(s), text(chunkBytes(s)));
    }
}

TEST_F(UploadAgainstStandInTest, ExhaustedAttemptsParkTheChunkAndKeepItsFileForALaterRetry) {
    UploadWorker::Config config;
    config.maxUploadAttempts = 3;
    start({"--fault", "signed-upload:status=503"}, config);
    configure();
    enqueue(1, 1);
    ASSERT_TRUE(waitUntil([&] { return !worker_->failedChunks().empty(); }));
    EXPECT_EQ(worker_->failedChunks(), (std::vector<FailedChunk>{{1, "HTTP 503 via signed_url"}}));
    EXPECT_TRUE(chunks_->exists("rec-int", 1));
    EXPECT_EQ(storedObject(1), "<absent>");
    EXPECT_EQ(adminJson("/__admin/requests?route=signed-upload")["requests"].size(), 3u);

    ASSERT_TRUE(admin_->Delete("/__admin/faults"));
    worker_->retryFailed();
    ASSERT_TRUE(waitUntil([&] { return uploadSettled(1); }));
    EXPECT_FALSE(chunks_->exists("rec-int", 1));
    EXPECT_EQ(storedObject(1), text(chunkBytes(1)));
}

TEST_F(UploadAgainstStandInTest, AServerKilledAndRestartedMidDrainLosesNothing) {
    start({"--fault", "signed-upload:latency-ms=100"});
    configure();
    enqueue(1, 24);
    ASSERT_TRUE(waitUntil([&] { return worker_->uploadedSequences().size() >= 4; }));
    server_->kill();
    auto uploadedAtKill = worker_->uploadedSequences().size();
    EXPECT_LT(uploadedAtKill, 24u);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    server_->restart();
    ASSERT_TRUE(waitUntil(
        [&] {
            return worker_->uploadedSequences().size() == 24 && chunks_->storedSequences("rec-int").empty();
        },
        std::chrono::seconds(60)));
    EXPECT_TRUE(worker_->failedChunks().empty());
    EXPECT_EQ(chunks_->storedSequences("rec-int"), std::vector<int>{});
    admin_ = std::make_unique<httplib::Client>("127.0.0.1", server_->port());
    for (int s = 1; s <= 24; ++s) {
        EXPECT_EQ(storedObject(s), text(chunkBytes(s))) << s;
    }
}

// A real full disk: the chunk store on a 1 MiB tmpfs that a filler file fills while the recording runs.
// Every chunk handed over while the disk was full reaches the server once space returns, byte for byte.
TEST_F(UploadAgainstStandInTest, AFullDiskLosesNoChunkAndWritingResumesWhenSpaceReturns) {
    start({}, {.diskRetryInterval = 0.2});
    if (::mount("tmpfs", chunkRoot_.c_str(), "tmpfs", 0, "size=1m,mode=0700") != 0) {
        GTEST_SKIP() << "no tmpfs can be mounted here (" << std::strerror(errno) << ")";
    }
    struct Unmount {
        std::filesystem::path at;
        ~Unmount() { ::umount2(at.c_str(), MNT_DETACH); }
    } unmount{chunkRoot_};
    configure();
    worker_->enqueue(chunkBytes(1), 1, false, 48000.0, 1);
    worker_->enqueue(chunkBytes(2), 2, false, 48000.0, 1);
    ASSERT_TRUE(waitUntil([&] { return uploadSettled(2); }));

    const auto filler = chunkRoot_ / "filler";
    {
        std::ofstream out(filler, std::ios::binary);
        const std::string block(64 * 1024, 'x');
        while (out.write(block.data(), static_cast<std::streamsize>(block.size())) && out.flush()) {
        }
    }
    for (int s = 3; s <= 5; ++s) {
        worker_->enqueue(chunkBytes(s), s, s == 5, 48000.0, 1);
    }
    ASSERT_EQ(eventsOf(NativeUploadEventKind::storeHeld).size(), 1u);
    EXPECT_TRUE(chunks_->storedSequences("rec-int").empty()) << "nothing fits on the full disk";
    EXPECT_EQ(worker_->pendingSequences(), (std::vector<int>{3, 4, 5}));

    std::filesystem::remove(filler);
    ASSERT_TRUE(waitUntil([&] { return uploadSettled(5); }));
    EXPECT_EQ(eventsOf(NativeUploadEventKind::storeResumed).size(), 1u);
    for (int s = 1; s <= 5; ++s) {
        EXPECT_EQ(storedObject(s), text(chunkBytes(s))) << s;
    }
}

} // namespace
