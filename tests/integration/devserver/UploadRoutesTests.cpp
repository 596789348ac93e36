#include "StandInClient.h"
#include "helpers/DevServerProcess.h"

#include <gtest/gtest.h>

#include <chrono>

using namespace kavelo;

namespace {

class UploadRoutesTest : public ::testing::Test {
  protected:
    // A recording made through the admin API, with a known secret.
    std::string seedRecording(StandInClient& client, const std::string& id = "rec-1") {
        auto r = client.post("/__admin/recordings",
                             Json{{"recording_id", id}, {"recording_secret", "s3cret-" + id}});
        EXPECT_EQ(r.status, 200) << r.body;
        return id;
    }
    StandInClient::Reply fetchUrls(StandInClient& client, const std::string& id, int start, int count,
                                   const std::string& secret) {
        return client.post("/functions/v1/generate-upload-urls",
                           Json{{"recording_id", id}, {"start_sequence", start}, {"count", count}},
                           {{"x-recording-secret", secret}});
    }
    std::vector<std::string> signedPaths(StandInClient& client, const std::string& id, int start, int count) {
        auto r = fetchUrls(client, id, start, count, "s3cret-" + id);
        EXPECT_EQ(r.status, 200) << r.body;
        std::vector<std::string> paths;
        auto body = r.json();
        for (const auto& entry : body["urls"]) {
            paths.push_back(StandInClient::pathOf(entry["url"].get<std::string>()));
        }
        return paths;
    }
    static std::string stored(StandInClient& client, const std::string& path) {
        auto r = client.get("/__admin/storage/object?bucket=recordings&path=" + path);
        return r.status == 200 ? r.body : "<absent>";
    }
};

TEST_F(UploadRoutesTest, SignedUrlsComeOnePerSequenceAndUploadWithoutOverwriting) {
    DevServerProcess server;
    StandInClient client(server.port());
    auto id = seedRecording(client);

    auto r = fetchUrls(client, id, 3, 4, "s3cret-rec-1");
    ASSERT_EQ(r.status, 200) << r.body;
    auto urls = r.json()["urls"];
    ASSERT_EQ(urls.size(), 4u);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(urls[i]["sequence"], 3 + i);
        EXPECT_EQ(
            urls[i]["url"].get<std::string>().rfind(server.baseUrl() + "/storage/v1/object/upload/sign/", 0),
            0u);
    }
    auto path3 = StandInClient::pathOf(urls[0]["url"]);
    EXPECT_EQ(client.put(path3, "first", {{"x-upsert", "false"}}).status, 200);
    EXPECT_EQ(client.put(path3, "second", {{"x-upsert", "false"}}).status, 409);
    EXPECT_EQ(stored(client, "rec-1/chunks/00003.aac"), "first");

    // A token is bound to its object: the URL of chunk 4 cannot write chunk 5.
    auto path4 = StandInClient::pathOf(urls[1]["url"]);
    auto forged = path4;
    forged.replace(forged.find("00004.aac"), 9, "00005.aac");
    EXPECT_EQ(client.put(forged, "x").status, 403);
    EXPECT_EQ(stored(client, "rec-1/chunks/00005.aac"), "<absent>");

    // Rotating the signing key voids every URL handed out before.
    ASSERT_EQ(client.post("/__admin/signed-urls/revoke", Json::object()).status, 200);
    EXPECT_EQ(client.put(path4, "x").status, 403);
}

TEST_F(UploadRoutesTest, UrlFetchIsRefusedWithoutTheRightSecretOrWithBadCounts) {
    DevServerProcess server;
    StandInClient client(server.port());
    auto id = seedRecording(client);
    EXPECT_EQ(fetchUrls(client, id, 1, 5, "wrong").status, 401);
    EXPECT_EQ(client
                  .post("/functions/v1/generate-upload-urls",
                        Json{{"recording_id", id}, {"start_sequence", 1}, {"count", 5}})
                  .status,
              401);
    EXPECT_EQ(fetchUrls(client, "no-such-recording", 1, 5, "s3cret-rec-1").status, 404);
    EXPECT_EQ(fetchUrls(client, id, 0, 5, "s3cret-rec-1").status, 400);
    EXPECT_EQ(fetchUrls(client, id, 1, 1001, "s3cret-rec-1").status, 400);
    EXPECT_EQ(fetchUrls(client, id, 1, 0, "s3cret-rec-1").json()["urls"], Json::array());
}

TEST_F(UploadRoutesTest, FallbackRouteNeedsTheAnonKeyAndALiveBearerAndUpserts) {
    DevServerProcess server({"--user", "anna@example.test:geheim123"});
    StandInClient client(server.port());
    const std::string path = "/storage/v1/object/recordings/rec-9/chunks/00001.aac";

    EXPECT_EQ(client.postRaw(path, "a", {{"Authorization", "Bearer dev-anon-key"}}).status, 401);
    EXPECT_EQ(
        client.postRaw(path, "a", {{"apikey", "dev-anon-key"}, {"Authorization", "Bearer nonsense"}}).status,
        401);
    auto headers = client.gateway();
    headers.emplace("x-upsert", "true");
    EXPECT_EQ(client.postRaw(path, "anon", headers).status, 200);

    auto token = client.signIn("anna@example.test", "geheim123")["access_token"].get<std::string>();
    auto userHeaders = client.gateway(token);
    userHeaders.emplace("x-upsert", "true");
    EXPECT_EQ(client.postRaw(path, "user", userHeaders).status, 200);
    EXPECT_EQ(stored(client, "rec-9/chunks/00001.aac"), "user");
    // Without x-upsert the storage API does not overwrite either.
    EXPECT_EQ(client.postRaw(path, "again", client.gateway(token)).status, 409);

    ASSERT_EQ(client.post("/__admin/tokens/expire", Json::object()).status, 200);
    auto expired =
        client.postRaw("/storage/v1/object/recordings/rec-9/chunks/00002.aac", "late", userHeaders);
    EXPECT_EQ(expired.status, 401);
    EXPECT_EQ(expired.json()["error_code"], "jwt_expired");

    // Names from the network never leave the storage directory, and unknown buckets do not exist.
    EXPECT_EQ(client.postRaw("/storage/v1/object/recordings/rec-9/..%2F..%2Fescape", "x", headers).status,
              400);
    EXPECT_EQ(client.postRaw("/storage/v1/object/recordings/.hidden/x", "x", headers).status, 400);
    EXPECT_EQ(client.postRaw("/storage/v1/object/secrets/x.aac", "x", headers).status, 404);
    EXPECT_FALSE(std::filesystem::exists(server.dataDirectory() / "objects" / "escape"));
}

TEST_F(UploadRoutesTest, FaultsByCountRateAndDropApplyPerRouteAndAreCounted) {
    DevServerProcess server(
        {"--fault", "signed-upload:status=500,count=2", "--refuse-url-fetch", "403", "--seed", "7"});
    StandInClient client(server.port());
    auto id = seedRecording(client);

    EXPECT_EQ(fetchUrls(client, id, 1, 2, "s3cret-rec-1").status, 403);
    ASSERT_EQ(client.del("/__admin/faults/2").status, 200);
    auto paths = signedPaths(client, id, 1, 2);
    ASSERT_EQ(paths.size(), 2u);
    EXPECT_EQ(client.put(paths[0], "a").status, 500);
    EXPECT_EQ(client.put(paths[0], "a").status, 500);
    EXPECT_EQ(client.put(paths[0], "a").status, 200);
    auto rules = client.get("/__admin/faults").json();
    ASSERT_EQ(rules.size(), 1u);
    EXPECT_EQ(rules[0]["fired"], 2);
    EXPECT_EQ(rules[0]["remaining"], 0);

    // A dropped connection gets no answer at all, and nothing is stored.
    ASSERT_EQ(
        client.post("/__admin/faults", Json{{"route", "signed-upload"}, {"drop", true}, {"count", 1}}).status,
        200);
    EXPECT_EQ(client.put(paths[1], "b").status, 0);
    EXPECT_EQ(stored(client, "rec-1/chunks/00002.aac"), "<absent>");
    EXPECT_EQ(client.put(paths[1], "b").status, 200);

    // A rate fires on some requests and not on others; the injected answers are exactly those counted.
    ASSERT_EQ(client.del("/__admin/faults").status, 200);
    ASSERT_EQ(client.post("/__admin/faults", Json{{"route", "*"}, {"status", 503}, {"rate", 0.5}}).status,
              200);
    int failures = 0;
    for (int i = 0; i < 40; ++i) {
        failures += fetchUrls(client, id, 1, 1, "s3cret-rec-1").status == 503;
    }
    EXPECT_GT(failures, 0);
    EXPECT_LT(failures, 40);
    EXPECT_EQ(client.get("/__admin/faults").json()[0]["fired"], failures);

    // The request log names the route and outcome, never the query with its token.
    auto log = client.get("/__admin/requests?route=signed-upload").json()["requests"];
    ASSERT_GE(log.size(), 5u);
    EXPECT_EQ(log[0]["status"], 500);
    EXPECT_TRUE(log[0]["injected"].get<bool>());
    for (const auto& entry : log) {
        EXPECT_EQ(entry["path"].get<std::string>().find("token"), std::string::npos);
    }
}

TEST_F(UploadRoutesTest, InjectedLatencyDelaysTheAnswer) {
    DevServerProcess server({"--fault", "generate-upload-urls:latency-ms=300,count=1"});
    StandInClient client(server.port());
    auto id = seedRecording(client);
    auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(fetchUrls(client, id, 1, 1, "s3cret-rec-1").status, 200);
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(300));
}

TEST_F(UploadRoutesTest, ARestartedOrKilledServerKeepsSecretsUrlsObjectsAndSessions) {
    DevServerProcess server({"--user", "anna@example.test:geheim123"});
    int port = server.port();
    StandInClient client(port);
    auto id = seedRecording(client);
    auto paths = signedPaths(client, id, 1, 3);
    ASSERT_EQ(client.put(paths[0], "one").status, 200);
    auto session = client.signIn("anna@example.test", "geheim123");
    auto token = session["access_token"].get<std::string>();

    server.kill();
    server.restart();
    EXPECT_EQ(server.port(), port);
    StandInClient after(server.port());
    EXPECT_EQ(after.put(paths[0], "one").status, 409);
    EXPECT_EQ(after.put(paths[1], "two").status, 200);
    EXPECT_EQ(fetchUrls(after, id, 4, 1, "s3cret-rec-1").status, 200);
    EXPECT_EQ(after.get("/auth/v1/user", after.gateway(token)).status, 200);
    auto refreshed =
        after.post("/auth/v1/token?grant_type=refresh_token",
                   Json{{"refresh_token", session["refresh_token"]}}, {{"apikey", "dev-anon-key"}});
    EXPECT_EQ(refreshed.status, 200);
    auto objects = after.get("/__admin/storage?bucket=recordings&prefix=rec-1/").json()["objects"];
    ASSERT_EQ(objects.size(), 2u);
    EXPECT_EQ(objects[0]["path"], "rec-1/chunks/00001.aac");
}

} // namespace
