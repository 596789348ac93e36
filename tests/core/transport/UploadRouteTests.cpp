#include "UploadTestSupport.h"

#include "core/backend/APIError.h"

using namespace kavelo;
using namespace kavelo::testing;
using Kind = NativeUploadEventKind;

namespace {

const std::string kStorage = "https://backend.test/storage/v1/object/recordings/";

} // namespace

TEST_F(UploadWorkerTest, RefusedURLFetchPausesFetchingWhileChunksGoByTheFallbackRoute) {
    http->respondOnce("POST", "generate-upload-urls", 403);
    http->respond("POST", "/storage/v1/object/", 200);
    makeWorker();
    worker->configure("org/rec:1", kSecret, kBase, kAnon, kToken);
    worker->enqueue(chunk(1), 1, false, 48000.0, 1);
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded));

    std::vector<NativeUploadEvent> expected{
        makeEvent(Kind::configured, [](auto& e) { e.mode = "signed_url"; }),
        makeEvent(Kind::stored, [](auto& e) { e.sequence = 1, e.count = static_cast<int>(chunk(1).size()); }),
        makeEvent(Kind::uploadGuardStarted),
        makeEvent(Kind::urlFetchFailed,
                  [](auto& e) {
                      e.statusCode = 403, e.startSequence = 1, e.count = 50, e.retryAfterSeconds = 120.0;
                  }),
        makeEvent(Kind::jwtFallbackUpload, [](auto& e) { e.sequence = 1; }),
        makeEvent(
            Kind::uploaded,
            [](auto& e) { e.sequence = 1, e.statusCode = 200, e.attempt = 1, e.mode = "jwt_fallback"; }),
        makeEvent(Kind::drained, [](auto& e) { e.uploadedCount = 1, e.failedCount = 0; }),
        makeEvent(Kind::uploadGuardEnded),
    };
    EXPECT_EQ(events->all(), expected);
    EXPECT_EQ(logLines(LogLevel::warn),
              std::vector<std::string>{"signed url fetch failed (status=403); backoff 120s"});

    auto posts = http->requestsMatching("POST", "/storage/v1/object/");
    ASSERT_EQ(posts.size(), 1u);
    EXPECT_EQ(posts[0].url, kStorage + "org/rec:1/chunks/00001.aac") << "the identifier as it came";
    EXPECT_EQ(posts[0].headers,
              (std::map<std::string, std::string>{{"Content-Type", "audio/aac"},
                                                  {"x-upsert", "true"},
                                                  {"apikey", kAnon},
                                                  {"Authorization", std::string("Bearer ") + kToken}}));
    EXPECT_EQ(posts[0].body, chunk(1));
    EXPECT_EQ(posts[0].timeout, 60.0);

    // Still inside the pause: no fetch.
    clock->advance(119);
    worker->enqueue(chunk(2), 2, false, 48000.0, 1);
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded, 2));
    EXPECT_EQ(http->count("POST", "generate-upload-urls"), 1u);
    EXPECT_EQ(events->ofKind(Kind::uploaded).back().mode, "jwt_fallback");

    // After it, the next chunk without a URL asks again, starting at itself.
    serveSignedURLs();
    http->respond("PUT", "", 200);
    clock->advance(1);
    worker->enqueue(chunk(3), 3, false, 48000.0, 1);
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded, 3));
    auto fetches = http->requestsMatching("POST", "generate-upload-urls");
    ASSERT_EQ(fetches.size(), 2u);
    EXPECT_EQ(CoreJSON::decode(*fetches[1].body)["start_sequence"], 3);
    EXPECT_EQ(events->ofKind(Kind::uploaded).back().mode, "signed_url");
}

TEST_F(UploadWorkerTest, OtherFetchFailuresPauseThirtySecondsAndConfigureLiftsThePause) {
    http->failOnce("POST", "generate-upload-urls",
                   TransportError(TransportError::Kind::timeout, "timed out"));
    http->respond("POST", "/storage/v1/object/", 200);
    makeWorker();
    worker->configure("rec-1", kSecret, kBase, kAnon, kToken);
    worker->enqueue(chunk(1), 1, false, 48000.0, 1);
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded));
    auto failure = events->ofKind(Kind::urlFetchFailed);
    ASSERT_EQ(failure.size(), 1u);
    EXPECT_EQ(failure[0].statusCode, std::nullopt);
    EXPECT_EQ(failure[0].retryAfterSeconds, 30.0);
    EXPECT_EQ(logLines(LogLevel::warn),
              std::vector<std::string>{"signed url fetch failed (status=-); backoff 30s"});

    serveSignedURLs();
    http->respond("PUT", "", 200);
    worker->configure("rec-1", kSecret, kBase, kAnon, kToken);
    worker->enqueue(chunk(2), 2, false, 48000.0, 1);
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded, 2));
    EXPECT_EQ(http->count("POST", "generate-upload-urls"), 2u);
    EXPECT_EQ(events->ofKind(Kind::uploaded).back().mode, "signed_url");
}

TEST_F(UploadWorkerTest, FallbackWithoutSecretUsesTheAnonKeyUntilATokenComes) {
    http->respond("POST", "/storage/v1/object/", 200);
    makeWorker();
    worker->configure("rec-1", "", kBase, kAnon, std::nullopt);
    worker->enqueue(chunk(1), 1, false, 48000.0, 1);
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded));
    EXPECT_EQ(events->all().front().mode, "jwt_fallback");
    EXPECT_EQ(http->count("POST", "generate-upload-urls"), 0u);
    EXPECT_TRUE(events->ofKind(Kind::urlFetchFailed).empty());
    EXPECT_TRUE(events->ofKind(Kind::urlPoolRefilled).empty());
    auto first = http->requests().at(0);
    EXPECT_EQ(first.headers.at("apikey"), kAnon);
    EXPECT_EQ(first.headers.at("Authorization"), std::string("Bearer ") + kAnon);

    worker->updateAuthToken("fresh-token");
    worker->enqueue(chunk(2), 2, false, 48000.0, 1);
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded, 2));
    EXPECT_EQ(http->requests().at(1).headers.at("Authorization"), "Bearer fresh-token");
}

TEST_F(UploadWorkerTest, WithNoRouteAtAllTheChunkIsParkedWithTheReason) {
    makeWorker({.maxUploadAttempts = 3});
    worker->configure("rec-1", std::nullopt, kBase, "", kToken);
    EXPECT_FALSE(worker->signedUrlEnabled());
    EXPECT_FALSE(worker->jwtFallbackEnabled());
    worker->enqueue(chunk(1), 1, false, 48000.0, 1);
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded));
    EXPECT_EQ(events->all().front().mode, "none");
    EXPECT_EQ(worker->failedChunks(),
              (std::vector<FailedChunk>{{1, "No signed URL available and JWT fallback not configured"}}));
    EXPECT_TRUE(http->requests().empty());
    EXPECT_TRUE(store->exists("rec-1", 1));
}

TEST_F(UploadWorkerTest, RefusedSignedUploadAsksForAFreshURLOnTheNextAttempt) {
    serveSignedURLs();
    http->respondOnce("PUT", "", 403);
    http->respond("PUT", "", 200);
    makeWorker();
    worker->configure("rec-1", kSecret, kBase, kAnon, kToken);
    worker->enqueue(chunk(4), 4, false, 48000.0, 1);
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded));
    auto fetches = http->requestsMatching("POST", "generate-upload-urls");
    ASSERT_EQ(fetches.size(), 2u);
    EXPECT_EQ(CoreJSON::decode(*fetches[1].body)["start_sequence"], 4);
    EXPECT_EQ(events->ofKind(Kind::uploaded).at(0).attempt, 2);
    EXPECT_EQ(events->ofKind(Kind::uploaded).at(0).mode, "signed_url");
}

TEST_F(UploadWorkerTest, ASequenceTheServerLeftOutGoesByTheFallbackRoute) {
    // The batch has a usable URL for 2 only: 1 is a file: URL and 3 is no URL at all.
    http->respond("POST", "generate-upload-urls", 200, bytesFromString(R"({"urls":[
        {"sequence":1,"url":"file:///etc/passwd"},
        {"sequence":2,"url":"https://storage.test/upload/sign/2"},
        {"sequence":3,"url":"not a url"}]})"));
    http->respond("PUT", "", 200);
    http->respond("POST", "/storage/v1/object/", 200);
    makeWorker();
    worker->configure("rec-1", kSecret, kBase, kAnon, kToken);
    worker->enqueue(chunk(1), 1, false, 48000.0, 1);
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded));
    EXPECT_EQ(events->ofKind(Kind::urlPoolRefilled).at(0).count, 1);
    EXPECT_EQ(events->ofKind(Kind::uploaded).at(0).mode, "jwt_fallback");
    worker->enqueue(chunk(2), 2, false, 48000.0, 1);
    ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded, 2));
    EXPECT_EQ(events->ofKind(Kind::uploaded).at(1).mode, "signed_url");
    EXPECT_EQ(http->count("PUT", "https://storage.test/upload/sign/2"), 1u);
}

TEST(LiveSignedURLProviderTest, StatusAndBodyFailuresSurfaceAsTheirOwnErrors) {
    auto http = std::make_shared<FakeHTTPClient>();
    AppConfig config;
    config.supabaseUrl = "https://backend.test";
    LiveSignedURLProvider provider(config, http);

    http->respondOnce("POST", "", 401);
    try {
        provider.fetchSignedURLs("rec-1", "s", 1, 50);
        FAIL() << "a 401 must throw";
    } catch (const APIError& e) {
        EXPECT_EQ(e, APIError::http(401));
    }
    http->respondOnce("POST", "", 200, bytesFromString("<html>"));
    EXPECT_THROW(provider.fetchSignedURLs("rec-1", "s", 1, 50), DecodingError);
    http->respondOnce("POST", "", 200, bytesFromString(R"({"urls":[{"url":"https://x.test/1"}]})"));
    EXPECT_THROW(provider.fetchSignedURLs("rec-1", "s", 1, 50), DecodingError);
    http->respondOnce("POST", "", 200, bytesFromString(R"({"urls":[]})"));
    EXPECT_TRUE(provider.fetchSignedURLs("rec-1", "s", 1, 0).empty());

    // The worker pools what comes back: more than was asked for, or numbers no chunk has, must not land.
    http->respondOnce("POST", "", 200, bytesFromString(R"({"urls":[{"sequence":1,"url":"https://x.test/1"},
                                                  {"sequence":2,"url":"https://x.test/2"}]})"));
    EXPECT_THROW(provider.fetchSignedURLs("rec-1", "s", 1, 1), DecodingError);
    http->respondOnce("POST", "", 200, bytesFromString(R"({"urls":[{"sequence":-3,"url":"https://x.test/a"},
                                                  {"sequence":2147483647,"url":"https://x.test/b"},
                                                  {"sequence":2,"url":"https://x.test/2"}]})"));
    EXPECT_EQ(provider.fetchSignedURLs("rec-1", "s", 2, 3),
              (std::vector<SignedURL>{{2, "https://x.test/2"}}));
    EXPECT_EQ(http->requests().back().headers.count("apikey"), 0u);
    EXPECT_EQ(http->requests().back().headers.count("Authorization"), 0u);
}
