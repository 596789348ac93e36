#include "UploadTestSupport.h"

#include "core/support/AtomicFile.h"
#include "core/support/SteppingClock.h"
#include "helpers/FullDiskFileWriter.h"

#include <fstream>
#include <set>

using namespace kavelo;
using namespace kavelo::testing;
using Kind = NativeUploadEventKind;

namespace {

std::set<int> sequencesOf(const std::vector<HTTPRequest>& requests) {
    std::set<int> out;
    for (const auto& r : requests) {
        auto slash = r.url.rfind('/');
        out.insert(std::stoi(r.url.substr(slash + 1, 5)));
    }
    return out;
}

} // namespace

TEST_F(UploadWorkerTest, SignedRouteCarriesAChunkWithTheExactEventsRequestsAndCleanup) {
    serveSignedURLs();
    http->respond("PUT", "storage.test/upload/sign/", 200);
    makeWorker();
    worker->configure("org/rec:1", kSecret, kBase, kAnon, kToken);
    worker->enqueue(chunk(1), 1, false, 48000.0, 1);
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded));

    std::vector<NativeUploadEvent> expected{
        makeEvent(Kind::configured, [](auto& e) { e.mode = "signed_url"; }),
        makeEvent(Kind::stored, [](auto& e) { e.sequence = 1, e.count = static_cast<int>(chunk(1).size()); }),
        makeEvent(Kind::uploadGuardStarted),
        makeEvent(Kind::urlPoolRefilled, [](auto& e) { e.startSequence = 1, e.count = 50; }),
        makeEvent(Kind::uploaded,
                  [](auto& e) { e.sequence = 1, e.statusCode = 200, e.attempt = 1, e.mode = "signed_url"; }),
        makeEvent(Kind::drained, [](auto& e) { e.uploadedCount = 1, e.failedCount = 0; }),
        makeEvent(Kind::uploadGuardEnded),
    };
    EXPECT_EQ(events->all(), expected);

    auto fetches = http->requestsMatching("POST", "generate-upload-urls");
    ASSERT_EQ(fetches.size(), 1u);
    EXPECT_EQ(fetches[0].url, "https://backend.test/functions/v1/generate-upload-urls");
    EXPECT_EQ(fetches[0].headers, (std::map<std::string, std::string>{{"Content-Type", "application/json"},
                                                                      {"x-recording-secret", kSecret}}));
    EXPECT_EQ(stringFromBytes(*fetches[0].body),
              R"({"count":50,"recording_id":"org/rec:1","start_sequence":1})");
    EXPECT_EQ(fetches[0].timeout, 20.0);

    auto puts = http->requestsMatching("PUT", "");
    ASSERT_EQ(puts.size(), 1u);
    EXPECT_EQ(puts[0].url, signedURLFor(1));
    EXPECT_EQ(puts[0].headers,
              (std::map<std::string, std::string>{{"Content-Type", "audio/aac"}, {"x-upsert", "false"}}));
    EXPECT_EQ(puts[0].body, chunk(1));
    EXPECT_EQ(puts[0].timeout, 60.0);
    EXPECT_FALSE(store->exists("org/rec:1", 1));
    EXPECT_EQ(worker->uploadedSequences(), std::vector<int>{1});
    EXPECT_TRUE(worker->isIdle());

    // Chunks 2 and 3 find their URLs in the pool; the last one says so in its stored event.
    worker->enqueue(chunk(2), 2, false, 48000.0, 1);
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded, 2));
    worker->enqueue(chunk(3), 3, true, 48000.0, 1);
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded, 3));
    EXPECT_EQ(http->count("POST", "generate-upload-urls"), 1u);
    EXPECT_EQ(http->count("PUT", ""), 3u);
    EXPECT_EQ(events->ofKind(Kind::stored).back().mode, "final");
    EXPECT_EQ(events->ofKind(Kind::stored).front().mode, std::nullopt);
    EXPECT_EQ(events->ofKind(Kind::drained).back().uploadedCount, 3);
    EXPECT_EQ(worker->lastSequence(), 3);

    EXPECT_EQ(
        logLines(LogLevel::info),
        std::vector<std::string>{"uploader configured recording=org%2Frec%3A1 signedUrl=true jwtFallback=true"});
    // No secret in any event or log line.
    for (const auto& e : events->all()) {
        for (const auto& text : {e.mode, e.message}) {
            for (const char* secret : {kSecret, kAnon, kToken}) {
                EXPECT_EQ(text.value_or("").find(secret), std::string::npos);
            }
        }
    }
    for (const auto& entry : logger->allEntries()) {
        for (const char* secret : {kSecret, kAnon, kToken}) {
            EXPECT_EQ(entry.message.find(secret), std::string::npos);
        }
    }
}

TEST_F(UploadWorkerTest, ConflictCountsAsUploadedAndDeletesTheFile) {
    serveSignedURLs();
    http->respond("PUT", "", 409);
    makeWorker();
    worker->configure("rec-1", kSecret, kBase, kAnon, kToken);
    worker->enqueue(chunk(1), 1, false, 48000.0, 1);
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded));
    auto uploaded = events->ofKind(Kind::uploaded);
    ASSERT_EQ(uploaded.size(), 1u);
    EXPECT_EQ(uploaded[0].statusCode, 409);
    EXPECT_EQ(worker->uploadedSequences(), std::vector<int>{1});
    EXPECT_FALSE(store->exists("rec-1", 1));
    EXPECT_TRUE(events->ofKind(Kind::failed).empty());
}

TEST_F(UploadWorkerTest, ServerErrorIsRetriedAfterHalfASecondAndSucceedsOnTheSecondAttempt) {
    auto stepping = std::make_shared<SteppingClock>(TimePoint{std::chrono::seconds(1000)});
    serveSignedURLs();
    http->respondOnce("PUT", "", 500);
    http->respond("PUT", "", 200);
    makeWorker({}, stepping);
    worker->configure("rec-1", kSecret, kBase, kAnon, kToken);
    worker->enqueue(chunk(1), 1, false, 48000.0, 1);

    ASSERT_TRUE(stepping->waitForSleepers(1));
    stepping->advance(0.49);
    EXPECT_EQ(http->count("PUT", ""), 1u) << "the retry must wait for its pause";
    EXPECT_TRUE(store->exists("rec-1", 1)) << "a failed attempt keeps the file";
    stepping->advance(0.01);
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded));

    auto uploaded = events->ofKind(Kind::uploaded);
    ASSERT_EQ(uploaded.size(), 1u);
    EXPECT_EQ(uploaded[0].attempt, 2);
    EXPECT_EQ(uploaded[0].statusCode, 200);
    EXPECT_TRUE(events->ofKind(Kind::failed).empty());
    EXPECT_DOUBLE_EQ(secondsBetween(TimePoint{std::chrono::seconds(1000)}, stepping->now()), 0.5);
}

TEST_F(UploadWorkerTest, ExhaustedAttemptsParkTheChunkWithItsFileUntilRetryFailed) {
    serveSignedURLs();
    http->respond("PUT", "", 503);
    makeWorker();
    auto start = clock->now();
    worker->configure("rec-1", kSecret, kBase, kAnon, kToken);
    worker->enqueue(chunk(1), 1, false, 48000.0, 1);
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded));

    EXPECT_EQ(http->count("PUT", ""), 15u);
    EXPECT_DOUBLE_EQ(secondsBetween(start, clock->now()), 105.5);
    auto failed = events->ofKind(Kind::failed);
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0].sequence, 1);
    EXPECT_EQ(failed[0].message, "HTTP 503 via signed_url");
    EXPECT_EQ(worker->failedChunks(), (std::vector<FailedChunk>{{1, "HTTP 503 via signed_url"}}));
    EXPECT_TRUE(store->exists("rec-1", 1));
    EXPECT_TRUE(worker->isIdle());
    EXPECT_TRUE(worker->pendingSequences().empty());
    auto drained = events->ofKind(Kind::drained);
    EXPECT_EQ(drained.back().failedCount, 1);
    EXPECT_EQ(drained.back().uploadedCount, 0);
    EXPECT_EQ(logLines(LogLevel::warn),
              std::vector<std::string>{"chunk 1 failed after 15 attempts: HTTP 503 via signed_url"});

    // A retry starts the count afresh and takes the parked chunk off the list.
    http->respond("PUT", "", 201);
    worker->retryFailed();
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded, 2));
    auto uploaded = events->ofKind(Kind::uploaded);
    ASSERT_EQ(uploaded.size(), 1u);
    EXPECT_EQ(uploaded[0].attempt, 1);
    EXPECT_TRUE(worker->failedChunks().empty());
    EXPECT_FALSE(store->exists("rec-1", 1));
}

TEST_F(UploadWorkerTest, TransportErrorTextIsTheFailureTextAndAMissingFileFailsWithoutAnAttempt) {
    http->failWith("POST", "/storage/v1/object/",
                   TransportError(TransportError::Kind::other, "Connection refused"));
    makeWorker({.maxUploadAttempts = 2});
    worker->configure("rec-1", std::nullopt, kBase, kAnon, kToken);
    worker->enqueue(chunk(1), 1, false, 48000.0, 1);
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded));
    EXPECT_EQ(worker->failedChunks(), (std::vector<FailedChunk>{{1, "Connection refused"}}));
    EXPECT_EQ(logLines(LogLevel::warn),
              std::vector<std::string>{"chunk 1 failed after 2 attempts: Connection refused"});

    auto requestsBefore = http->requests().size();
    worker->requeue({7});
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded, 2));
    EXPECT_EQ(http->requests().size(), requestsBefore);
    EXPECT_EQ(events->ofKind(Kind::failed).back(), makeEvent(Kind::failed, [](auto& e) {
                  e.sequence = 7, e.message = "Chunk file missing before upload";
              }));
    EXPECT_EQ(logLines(LogLevel::warn).size(), 1u) << "a missing file logs no warning";
}

TEST_F(UploadWorkerTest, AtMostFourInFlightAndTheNextStartsWhenOneEnds) {
    http->respond("POST", "/storage/v1/object/", 200);
    http->hold(true);
    makeWorker();
    worker->configure("rec-1", std::nullopt, kBase, kAnon, kToken);
    for (int s = 1; s <= 10; ++s) {
        worker->enqueue(chunk(s), s, false, 48000.0, 1);
    }
    ASSERT_TRUE(http->waitForHeld(4));
    EXPECT_EQ(http->requests().size(), 4u);
    EXPECT_EQ(sequencesOf(http->held()), (std::set<int>{1, 2, 3, 4}));
    std::vector<int> all{1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    EXPECT_EQ(worker->pendingSequences(), all) << "waiting and in-flight chunks together";
    EXPECT_FALSE(worker->isIdle());

    ASSERT_TRUE(http->release("/00002.aac"));
    ASSERT_TRUE(events->waitFor(Kind::uploaded));
    ASSERT_TRUE(http->waitForHeld(4));
    EXPECT_EQ(sequencesOf(http->held()), (std::set<int>{1, 3, 4, 5}));

    http->hold(false);
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded));
    EXPECT_EQ(worker->uploadedSequences(), all);
    EXPECT_EQ(http->requests().size(), 10u);
    EXPECT_EQ(events->ofKind(Kind::drained).back().uploadedCount, 10);
    EXPECT_TRUE(store->storedSequences("rec-1").empty());
}

TEST_F(UploadWorkerTest, AcksRequeueAndReEnqueueKeepTheQueueHonest) {
    http->respond("POST", "/storage/v1/object/", 200);
    http->hold(true);
    makeWorker({.maxParallelUploads = 1});
    worker->configure("rec-1", std::nullopt, kBase, kAnon, kToken);
    for (int s = 1; s <= 3; ++s) {
        worker->enqueue(chunk(s), s, false, 48000.0, 1);
    }
    ASSERT_TRUE(http->waitForHeld(1));

    // 1 is in flight; 2 and 3 wait. An ack takes 2 out of the queue and its file off the disk.
    worker->acceptServerAcks({2});
    EXPECT_FALSE(store->exists("rec-1", 2));
    EXPECT_EQ(worker->pendingSequences(), (std::vector<int>{1, 3}));
    // Requeue skips what is in flight or waiting; enqueue of an in-flight chunk queues nothing either.
    worker->requeue({3, 1});
    worker->enqueue(chunk(1), 1, false, 48000.0, 1);
    EXPECT_EQ(worker->pendingSequences(), (std::vector<int>{1, 3}));

    http->hold(false);
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded));
    EXPECT_EQ(sequencesOf(http->requests()), (std::set<int>{1, 3})) << "an acknowledged chunk is never sent";
    EXPECT_EQ(http->requests().size(), 2u);
    EXPECT_EQ(worker->uploadedSequences(), (std::vector<int>{1, 2, 3}));

    // Enqueueing an uploaded chunk rewrites its file and queues nothing; requeue sends it again.
    events->clear();
    worker->enqueue(chunk(3), 3, false, 48000.0, 1);
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded));
    EXPECT_EQ(events->kinds(),
              (std::vector<std::string>{"stored", "upload_guard_started", "drained", "upload_guard_ended"}));
    EXPECT_TRUE(store->exists("rec-1", 3));
    worker->requeue({3});
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded, 2));
    EXPECT_EQ(http->requests().size(), 3u);
    EXPECT_FALSE(store->exists("rec-1", 3));

    // An ack also settles a parked chunk.
    http->respond("POST", "/storage/v1/object/", 500);
    worker->enqueue(chunk(9), 9, false, 48000.0, 1);
    ASSERT_TRUE(events->waitFor(Kind::failed));
    worker->acceptServerAcks({9});
    EXPECT_TRUE(worker->failedChunks().empty());
    EXPECT_FALSE(store->exists("rec-1", 9));
    EXPECT_EQ(worker->lastSequence(), 9);
}

TEST_F(UploadWorkerTest, EdgesOfTheQueueOutsideANormalUpload) {
    makeWorker();
    // Before configure a chunk is dropped with a warning and nothing else.
    worker->enqueue(chunk(7), 7, false, 48000.0, 1);
    EXPECT_TRUE(events->all().empty());
    EXPECT_EQ(logLines(LogLevel::warn),
              std::vector<std::string>{"enqueue before configure — chunk 7 dropped"});

    // A drain of an empty queue still reports its boundaries.
    worker->scheduleDrain();
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded));
    EXPECT_EQ(events->kinds(),
              (std::vector<std::string>{"upload_guard_started", "drained", "upload_guard_ended"}));
    EXPECT_EQ(events->all()[1].uploadedCount, 0);
}

TEST_F(UploadWorkerTest, ConfigureForgetsTheLastRecordingButKeepsItsFiles) {
    http->respond("POST", "/storage/v1/object/", 500);
    makeWorker({.maxUploadAttempts = 1});
    worker->configure("rec-1", std::nullopt, kBase, kAnon, kToken);
    worker->enqueue(chunk(1), 1, false, 48000.0, 1);
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded));
    ASSERT_EQ(worker->failedChunks().size(), 1u);

    worker->configure("rec-2", std::nullopt, kBase, kAnon, kToken);
    EXPECT_TRUE(worker->failedChunks().empty());
    EXPECT_EQ(worker->lastSequence(), 0);
    EXPECT_TRUE(store->exists("rec-1", 1));
}

TEST_F(UploadWorkerTest, AnUploadOfTheEarlierRecordingNeverLandsInTheNextOne) {
    serveSignedURLs();
    http->respond("PUT", "", 200);
    http->hold(true);
    makeWorker();
    worker->configure("rec-1", kSecret, kBase, kAnon, kToken);
    worker->enqueue(chunk(1), 1, false, 48000.0, 1);
    ASSERT_TRUE(http->waitForHeld(1)); // the URL fetch of rec-1

    worker->configure("rec-2", kSecret, kBase, kAnon, kToken);
    http->hold(false);
    worker->enqueue(chunk(1), 1, false, 48000.0, 1);
    ASSERT_TRUE(events->waitFor(Kind::uploaded));
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded));

    EXPECT_EQ(worker->uploadedSequences(), std::vector<int>{1});
    worker.reset(); // joins every task, the superseded one too

    // rec-1's upload ended quietly: its file stays for a later recovery, and rec-2 sent only its own chunk.
    EXPECT_TRUE(store->exists("rec-1", 1));
    EXPECT_FALSE(store->exists("rec-2", 1));
    auto puts = http->requestsMatching("PUT", "");
    ASSERT_EQ(puts.size(), 1u);
    EXPECT_EQ(events->ofKind(Kind::uploaded).size(), 1u);
    EXPECT_TRUE(events->ofKind(Kind::failed).empty());
}

TEST_F(UploadWorkerTest, AChunkQueuedBehindASlowUploadStartsAtOnce) {
    http->respond("POST", "/storage/v1/object/", 200);
    http->hold(true);
    makeWorker();
    worker->configure("rec-1", std::nullopt, kBase, kAnon, kToken);
    worker->enqueue(chunk(1), 1, false, 48000.0, 1);
    ASSERT_TRUE(http->waitForHeld(1));
    worker->enqueue(chunk(2), 2, false, 48000.0, 1);
    ASSERT_TRUE(http->waitForHeld(2)) << "chunk 2 waited for chunk 1 although slots were free";
    EXPECT_EQ(events->ofKind(Kind::uploadGuardStarted).size(), 1u);
}

TEST_F(UploadWorkerTest, DestroyingTheWorkerEndsAWaitingUploadWithoutAnotherAttemptOrEvent) {
    auto stepping = std::make_shared<SteppingClock>();
    http->respond("POST", "/storage/v1/object/", 500);
    makeWorker({}, stepping);
    worker->configure("rec-1", std::nullopt, kBase, kAnon, kToken);
    worker->enqueue(chunk(1), 1, false, 48000.0, 1);
    ASSERT_TRUE(stepping->waitForSleepers(1));
    auto eventsBefore = events->all().size();

    worker.reset();
    EXPECT_EQ(stepping->sleeperCount(), 0u) << "the destructor returned before its tasks ended";
    EXPECT_EQ(http->requests().size(), 1u);
    EXPECT_EQ(events->all().size(), eventsBefore);
    EXPECT_TRUE(store->exists("rec-1", 1));
}

// A full disk must not cost a chunk: each waits in memory, in order, until the disk takes it again, and the
// owner hears of the refusal and of the return. Only beyond the memory bound is audio refused, and loudly.
TEST_F(UploadWorkerTest, ChunksTheFullDiskRefusesWaitInMemoryAndAreWrittenWhenSpaceReturns) {
    auto disk = std::make_shared<FullDiskFileWriter>();
    store = std::make_shared<ChunkStore>(root, disk);
    auto stepping = std::make_shared<SteppingClock>();
    const auto size = static_cast<long long>(chunk(1).size());
    makeWorker({.maxUploadAttempts = 1, .diskRetryInterval = 5, .maxHeldBytes = 3 * size}, stepping);
    worker->configure("rec-1", std::nullopt, kBase, "", std::nullopt); // no route: uploads park at once
    worker->enqueue(chunk(1), 1, false, 48000.0, 1);

    disk->setFull(true);
    worker->enqueue(chunk(2), 2, false, 48000.0, 1);
    worker->enqueue(chunk(3), 3, true, 48000.0, 1);
    auto held = events->ofKind(Kind::storeHeld);
    ASSERT_EQ(held.size(), 1u) << "one report per episode";
    EXPECT_EQ(held[0].sequence, 2);
    EXPECT_NE(held[0].message->find("No space left on device"), std::string::npos) << *held[0].message;
    EXPECT_FALSE(store->exists("rec-1", 2));
    const auto pending = worker->pendingSequences();
    EXPECT_TRUE(std::count(pending.begin(), pending.end(), 2) &&
                std::count(pending.begin(), pending.end(), 3));
    EXPECT_FALSE(worker->isIdle());

    // Space returns: the next chunk brings the waiting ones to disk first, in order, the final mark kept.
    disk->setFull(false);
    worker->enqueue(chunk(4), 4, false, 48000.0, 1);
    for (int s = 1; s <= 4; ++s) {
        EXPECT_EQ(store->read("rec-1", s), chunk(s)) << s;
    }
    std::vector<int> storedOrder;
    for (const auto& e : events->ofKind(Kind::stored)) {
        storedOrder.push_back(*e.sequence);
    }
    EXPECT_EQ(storedOrder, (std::vector<int>{1, 2, 3, 4}));
    EXPECT_EQ(events->ofKind(Kind::stored)[2].mode, "final");
    EXPECT_EQ(events->ofKind(Kind::storeResumed).size(), 1u);

    // With no chunk coming (the recording stopped), the retry on the clock writes what waits.
    disk->setFull(true);
    worker->enqueue(chunk(5), 5, false, 48000.0, 1);
    ASSERT_TRUE(stepping->waitForSleepers(1));
    stepping->advance(5);
    EXPECT_FALSE(store->exists("rec-1", 5)) << "still full";
    disk->setFull(false);
    stepping->advance(5);
    ASSERT_TRUE(events->waitFor(Kind::storeResumed, 2));
    EXPECT_EQ(store->read("rec-1", 5), chunk(5));

    // Beyond the bound the newest chunk is refused and said to be lost; those held before it stay.
    disk->setFull(true);
    for (int s = 6; s <= 9; ++s) {
        worker->enqueue(chunk(s), s, false, 48000.0, 1);
    }
    const auto failed = events->ofKind(Kind::failed);
    const auto dropped =
        std::find_if(failed.begin(), failed.end(), [](const auto& e) { return e.sequence == 9; });
    ASSERT_NE(dropped, failed.end());
    EXPECT_EQ(dropped->message, "Disk full: chunk dropped");
    EXPECT_EQ(logLines(LogLevel::error).size(), 4u) << "three refusals and one drop";
    disk->setFull(false);
    ASSERT_TRUE(stepping->waitForSleepers(1));
    stepping->advance(5);
    ASSERT_TRUE(events->waitFor(Kind::storeResumed, 3));
    for (int s = 6; s <= 8; ++s) {
        EXPECT_EQ(store->read("rec-1", s), chunk(s)) << s;
    }
    EXPECT_FALSE(store->exists("rec-1", 9));
}

// The journal of the chunk being filled grows by appends; an append the disk refused may have left a torn
// tail, so the next one rewrites the file whole, and the chunk's own write removes it.
TEST_F(UploadWorkerTest, TheJournalHoldsTheChunkBeingFilledUntilThatChunkIsWritten) {
    auto disk = std::make_shared<FullDiskFileWriter>();
    store = std::make_shared<ChunkStore>(root, disk);
    makeWorker({.maxUploadAttempts = 1});
    worker->configure("rec-1", std::nullopt, kBase, "", std::nullopt);
    const auto journalFile = store->chunkDirectory("rec-1") / "00001.journal";
    auto fileBytes = [&] { return readWholeFile(journalFile).value_or(Bytes{}); };

    worker->journal(bytesFromString("aa"), 1);
    worker->journal(bytesFromString("bb"), 1);
    EXPECT_EQ(fileBytes(), bytesFromString("aabb"));
    std::ofstream(journalFile, std::ios::app) << "torn"; // what a refused append can leave
    disk->setFull(true);
    worker->journal(bytesFromString("cc"), 1);
    disk->setFull(false);
    worker->journal(bytesFromString("dd"), 1);
    EXPECT_EQ(fileBytes(), bytesFromString("aabbccdd"));
    EXPECT_EQ(store->journalSequences("rec-1"), std::vector<int>{1});

    worker->enqueue(bytesFromString("aabbccddee"), 1, false, 48000.0, 1);
    EXPECT_TRUE(store->journalSequences("rec-1").empty());
    worker->journal(bytesFromString("ff"), 2);
    EXPECT_EQ(store->journalSequences("rec-1"), std::vector<int>{2});
}
