#include "UploadTestSupport.h"

#include "core/backend/APIError.h"
#include "core/mock/MockBackend.h"
#include "core/mock/MockRecordingAPI.h"
#include "core/mock/MockSignedURLProvider.h"
#include "core/mock/MockUploadHTTPClient.h"

#include <gtest/gtest.h>

using namespace kavelo;
using namespace kavelo::testing;
using Kind = NativeUploadEventKind;

namespace {

HTTPRequest put(const std::string& url) {
    HTTPRequest request;
    request.url = url;
    request.method = "PUT";
    request.body = bytesFromString("aac");
    return request;
}

} // namespace

TEST(MockSignedURLProviderTest, FailsAsToldThenHandsOutOneStorageURLPerSequence) {
    MockSignedURLProvider provider;
    provider.setFailuresBeforeSuccess(2);
    provider.setFailStatus(403);
    for (int i = 0; i < 2; ++i) {
        try {
            (void)provider.fetchSignedURLs("rec/a:b", "secret", 1, 3);
            FAIL() << "call " << i << " should fail";
        } catch (const APIError& e) {
            EXPECT_EQ(e, APIError::http(403, std::nullopt, "mock url fetch failure"));
        }
    }
    auto urls = provider.fetchSignedURLs("rec/a:b", "secret", 7, 3);
    ASSERT_EQ(urls.size(), 3u);
    EXPECT_EQ(urls[0], (SignedURL{7, "https://mock-storage.kavely.test/upload/rec%2Fa%3Ab/7"}));
    EXPECT_EQ(urls[2].sequence, 9);
    EXPECT_TRUE(provider.fetchSignedURLs("rec", "secret", 1, 0).empty());
}

TEST(MockUploadHTTPClientTest, AnswersAsStorageWouldAndRecordsWhatItAccepted) {
    auto backend = std::make_shared<MockBackend>(std::make_shared<ManualClock>());
    auto id = backend->createRecording().recordingId;
    MockUploadHTTPClient client(backend);
    std::string signedBase = std::string(MockSignedURLProvider::storageBase) + id + "/";

    client.setConflictSequences({3});
    EXPECT_EQ(client.send(put(signedBase + "3")).statusCode, 409);
    client.setFailuresPerSequence(4, 2);
    EXPECT_EQ(client.send(put(signedBase + "4")).statusCode, 500);
    EXPECT_EQ(client.send(put(signedBase + "4")).statusCode, 500);
    EXPECT_EQ(backend->uploadedChunks(id), (std::set<int>{3})) << "a failed upload stores nothing";
    EXPECT_EQ(client.send(put(signedBase + "4")).statusCode, 200);

    // The fallback route names the recording two components before the file.
    auto fallback = "https://backend.test/storage/v1/object/recordings/" + id + "/chunks/00005.aac";
    EXPECT_EQ(client.send(put(fallback)).statusCode, 200);
    EXPECT_EQ(backend->uploadedChunks(id), (std::set<int>{3, 4, 5}));

    EXPECT_EQ(client.send(put(signedBase + "notes.txt")).statusCode, 400);
    EXPECT_EQ(client.send(put("https://backend.test/functions/v1/generate-upload-urls")).statusCode, 404);
    EXPECT_EQ(client.send(put("https://backend.test/rest/v1/meetings")).statusCode, 404);
    client.setAlwaysFail(true);
    EXPECT_EQ(client.send(put(signedBase + "6")).statusCode, 500);
    EXPECT_EQ(backend->uploadedChunks(id), (std::set<int>{3, 4, 5}));
}

// Mock mode end to end: the real worker uploads into the mock backend with no server, through both routes,
// and the mock recording API then lists every chunk.
TEST_F(UploadWorkerTest, MockModeUploadsEveryChunkIntoTheMockBackend) {
    auto backend = std::make_shared<MockBackend>(clock);
    auto id = backend->createRecording().recordingId;
    auto client = std::make_shared<MockUploadHTTPClient>(backend);
    auto provider = std::make_shared<MockSignedURLProvider>();
    provider->setFailuresBeforeSuccess(1);
    client->setFailuresPerSequence(2, 2);
    client->setConflictSequences({3});
    worker = LiveUploadWorker::create(store, client, provider, clock, logger);
    worker->setOnEvent([log = events](const NativeUploadEvent& e) { log->add(e); });
    worker->configure(id, "secret_mock", "https://mock.kavely.test", "anon", std::nullopt);

    for (int s = 1; s <= 3; ++s) {
        worker->enqueue(chunk(s), s, s == 3, 48000.0, 1);
        ASSERT_TRUE(events->waitFor(Kind::uploadGuardEnded, static_cast<std::size_t>(s)));
        clock->advance(30); // past the pause in URL fetching that the failed fetch set
    }
    auto uploaded = events->ofKind(Kind::uploaded);
    ASSERT_EQ(uploaded.size(), 3u);
    EXPECT_EQ(uploaded[0].mode, "jwt_fallback") << "the first URL fetch fails, so chunk 1 takes the fallback";
    EXPECT_EQ(uploaded[1].mode, "signed_url");
    EXPECT_EQ(uploaded[1].attempt, 3);
    EXPECT_EQ(uploaded[2].statusCode, 409);
    EXPECT_EQ(events->ofKind(Kind::urlFetchFailed).at(0).statusCode, 500);

    MockRecordingAPI api(backend);
    auto listed = api.listRecordingChunks(id);
    EXPECT_EQ(listed.uploadedSequences, (std::vector<int>{1, 2, 3}));
    EXPECT_TRUE(listed.missing.empty());
    EXPECT_TRUE(store->storedSequences(id).empty());
}
