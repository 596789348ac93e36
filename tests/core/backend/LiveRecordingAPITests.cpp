#include "core/backend/CurlHTTPClient.h"
#include "core/backend/InitRecordingError.h"
#include "core/backend/LiveRecordingAPI.h"
#include "core/backend/RecordingAPIBodies.h"
#include "core/support/ManualClock.h"
#include "core/support/RecordingLimits.h"
#include "helpers/LoopbackServer.h"

#include <gtest/gtest.h>

#include <mutex>

namespace kavelo {
namespace {

using test::LoopbackServer;
using Response = LoopbackServer::Response;

class SettableTokenProvider final : public AccessTokenProvider {
  public:
    void set(std::optional<std::string> token) {
        std::lock_guard lock(mutex_);
        token_ = std::move(token);
    }
    std::optional<std::string> currentAccessToken() override {
        std::lock_guard lock(mutex_);
        return token_;
    }

  private:
    std::mutex mutex_;
    std::optional<std::string> token_;
};

// The live road over real HTTP: CurlHTTPClient and the Supabase clients against a loopback server.
class LiveRecordingAPITest : public ::testing::Test {
  protected:
    LiveRecordingAPITest() {
        AppConfig config;
        config.supabaseUrl = server.baseURL();
        config.anonKey = "anon-key";
        auto http = std::make_shared<CurlHTTPClient>();
        auto logger = std::make_shared<CoreLogger>(std::make_shared<ManualClock>(), 100);
        api = std::make_unique<LiveRecordingAPI>(
            std::make_shared<SupabaseFunctionClient>(config, http, tokens, logger),
            std::make_shared<SupabaseRestClient>(config, http, tokens));
        tokens->set("user-token");
    }

    void answer(int status, std::string body) {
        server.setHandler(
            [status, body](const LoopbackServer::Request&) { return Response::answer(status, body); });
    }
    LoopbackServer::Request lastRequest() const {
        auto all = server.requests();
        return all.empty() ? LoopbackServer::Request{} : all.back();
    }

    LoopbackServer server;
    std::shared_ptr<SettableTokenProvider> tokens = std::make_shared<SettableTokenProvider>();
    std::unique_ptr<LiveRecordingAPI> api;
};

template <class E, class F> std::optional<E> caught(F&& f) {
    try {
        f();
    } catch (const E& e) {
        return e;
    }
    return std::nullopt;
}

TEST_F(LiveRecordingAPITest, InitSendsTheRequestAndReadsTheAnswer) {
    answer(200, R"({"recording_id":"rec-9","recording_secret":"s3cr3t","deduplicated":false})");
    InitRecordingRequest request{"u-1",   "a@b.nl", "An",         "Weekstart", "linux",
                                 "1.0.0", "nl",     std::nullopt, "system"};
    EXPECT_EQ(api->initRecording(request), (InitRecordingResponse{"rec-9", "s3cr3t", false}));
    auto sent = lastRequest();
    EXPECT_EQ(sent.method, "POST");
    EXPECT_EQ(sent.path, "/functions/v1/init-recording");
    EXPECT_EQ(sent.header("authorization"), "Bearer user-token");
    EXPECT_EQ(sent.header("apikey"), "anon-key");
    EXPECT_EQ(InitRecordingRequest::fromJson(Json::parse(sent.body)), request);

    // Without a user the call still goes out, under the anon key.
    tokens->set(std::nullopt);
    answer(200, R"({"recording_id":"rec-10"})");
    EXPECT_EQ(api->initRecording(request).recordingId, "rec-10");
    EXPECT_EQ(lastRequest().header("authorization"), "Bearer anon-key");
}

TEST_F(LiveRecordingAPITest, InitTurnsRefusalsAndSilenceIntoItsOwnErrors) {
    answer(503, R"({"error_code":"busy","message":"Even geduld"})");
    EXPECT_EQ(caught<InitRecordingError>([&] { api->initRecording({}); }),
              InitRecordingError::backend(503, "busy", "Even geduld"));

    answer(200, R"({"recordingId":"camel"})");
    auto decoding = caught<APIError>([&] { api->initRecording({}); });
    ASSERT_TRUE(decoding);
    EXPECT_EQ(decoding->kind(), APIError::Kind::decoding);
    EXPECT_EQ(decoding->text().rfind("init-recording: ", 0), 0u) << decoding->text();

    int closedPort = 0;
    {
        LoopbackServer gone;
        closedPort = gone.port();
    }
    AppConfig config;
    config.supabaseUrl = "http://127.0.0.1:" + std::to_string(closedPort);
    auto http = std::make_shared<CurlHTTPClient>();
    auto logger = std::make_shared<CoreLogger>(std::make_shared<ManualClock>(), 10);
    LiveRecordingAPI offline(std::make_shared<SupabaseFunctionClient>(config, http, tokens, logger),
                             std::make_shared<SupabaseRestClient>(config, http, tokens));
    EXPECT_EQ(caught<InitRecordingError>([&] { offline.initRecording({}); }), InitRecordingError::network());
    EXPECT_EQ(offline.listRecordingChunks("rec-1"), ChunkReconciliation::unchecked());
}

TEST_F(LiveRecordingAPITest, ChunkListIsReadLenientlyAndEveryFailureIsUnchecked) {
    answer(200, R"({"uploaded_sequences":["1"," 2 ",3.9,null,true,"abc","+5",3],"missing":[6,"7x",{}]})");
    EXPECT_EQ(api->listRecordingChunks("rec-1"), (ChunkReconciliation{{1, 2, 3, 5}, {6}, true}));
    auto sent = lastRequest();
    EXPECT_EQ(sent.path, "/functions/v1/list-recording-chunks");
    EXPECT_EQ(sent.body, R"({"recording_id":"rec-1"})");

    const std::vector<std::pair<std::string, ChunkReconciliation>> bodies{
        {"{}", {{}, {}, true}},
        {R"({"uploaded_sequences":"1,2","missing":null})", {{}, {}, true}},
        {"[]", ChunkReconciliation::unchecked()},
        {"not json", ChunkReconciliation::unchecked()},
        {"", ChunkReconciliation::unchecked()},
    };
    for (const auto& [body, expected] : bodies) {
        answer(200, body);
        EXPECT_EQ(api->listRecordingChunks("rec-1"), expected) << body;
    }
    answer(500, R"({"uploaded_sequences":[1]})");
    EXPECT_EQ(api->listRecordingChunks("rec-1"), ChunkReconciliation::unchecked());

    std::size_t before = server.requestCount();
    tokens->set(std::nullopt);
    EXPECT_EQ(api->listRecordingChunks("rec-1"), ChunkReconciliation::unchecked());
    EXPECT_EQ(server.requestCount(), before); // nothing went out without a user
}

TEST(ChunkListReader, AListNoRecordingCanHaveIsRefusedAndDuplicatesFold) {
    auto read = [](const std::string& body) {
        return LiveRecordingAPI::parseChunkList(bytesFromString(body));
    };
    // Numbers that no chunk of a recording carries: recovery and the finalize wait would count up to them.
    for (const char* body : {R"({"uploaded_sequences":[1,2147483647]})", R"({"uploaded_sequences":[0]})",
                             R"({"missing":[-4]})", R"({"uploaded_sequences":["-1"]})",
                             R"({"uploaded_sequences":[32769]})", R"({"missing":[1e300]})"}) {
        EXPECT_EQ(read(body), ChunkReconciliation::unchecked()) << body;
        EXPECT_THROW(LiveRecordingAPI::readChunkList(bytesFromString(body)), DecodingError) << body;
    }
    EXPECT_EQ(read(R"({"uploaded_sequences":[3,1,3,3,1,32768],"missing":[2,2]})"),
              (ChunkReconciliation{{1, 3, 32768}, {2}, true}));

    // Longer than a recording can be, even of valid numbers, or a body too large to be such a list.
    std::string flood = R"({"uploaded_sequences":[)";
    for (int i = 0; i <= RecordingLimits::maxChunks; ++i) {
        flood += (i ? ",1" : "1");
    }
    flood += "]}";
    EXPECT_EQ(read(flood), ChunkReconciliation::unchecked());
    EXPECT_EQ(read(R"({"pad":")" + std::string(LiveRecordingAPI::maxChunkListBytes, ' ') + "\"}"),
              ChunkReconciliation::unchecked());
}

TEST_F(LiveRecordingAPITest, FinalizeAndDiagnosticsGoToTheSameFunction) {
    FinalizePayload payload;
    payload.recordingId = "rec-1";
    payload.userId = "u-1";
    payload.recipients = {{"a@b.nl", "An"}};
    payload.outputLanguage = "nl";
    tokens->set(std::nullopt);
    answer(200, "ignored, not even JSON");
    api->finalizeRecording(payload);
    EXPECT_EQ(lastRequest().path, "/functions/v1/finalize-recording");
    EXPECT_EQ(lastRequest().header("authorization"), "Bearer anon-key");
    // Every try for one recording carries the same key, so a repeat asks for no second report.
    EXPECT_EQ(lastRequest().header("idempotency-key"), "finalize-rec-1");
    EXPECT_EQ(FinalizePayload::fromJson(Json::parse(lastRequest().body)), payload);

    DiagnosticsPayload diagnostics;
    diagnostics.recoveryMarker = "relaunch_stopped";
    api->diagnosticSync("rec-1", "u-1", diagnostics);
    EXPECT_EQ(lastRequest().path, "/functions/v1/finalize-recording");
    EXPECT_EQ(DiagnosticSyncBody::fromJson(Json::parse(lastRequest().body)),
              (DiagnosticSyncBody{"rec-1", "u-1", true, diagnostics}));

    answer(500, R"({"error":"kapot"})");
    EXPECT_EQ(caught<APIError>([&] { api->finalizeRecording(payload); }),
              APIError::http(500, std::nullopt, "kapot"));
}

TEST_F(LiveRecordingAPITest, MeetingReadsSelectOneRowAndTreatAMissingRowAsEmpty) {
    answer(200, R"([{"id":"m-1"}])");
    EXPECT_EQ(api->resolveMeetingId("rec-1"), "m-1");
    auto sent = lastRequest();
    EXPECT_EQ(sent.method, "GET");
    EXPECT_EQ(sent.path, "/rest/v1/meetings");
    EXPECT_EQ(sent.query, (std::multimap<std::string, std::string>{
                              {"limit", "1"}, {"recording_id", "eq.rec-1"}, {"select", "id"}}));

    for (const char* body : {"[]", R"([{"id":5}])", R"({"id":"m-1"})", "<html>", R"(["m-1"])"}) {
        answer(200, body);
        EXPECT_FALSE(api->resolveMeetingId("rec-1")) << body;
    }

    answer(200,
           R"([{"participants":["  Eva Jansen ","",3,"   ",null,"Ties"],"early_mapping_status":"done"}])");
    EXPECT_EQ(api->fetchMeetingMapping("m-1"), (MeetingMappingRow{{"Eva Jansen", "Ties"}, "done"}));
    EXPECT_EQ(lastRequest().query,
              (std::multimap<std::string, std::string>{
                  {"id", "eq.m-1"}, {"limit", "1"}, {"select", "participants,early_mapping_status"}}));
    answer(200, R"([{"participants":"Eva","early_mapping_status":1}])");
    EXPECT_EQ(api->fetchMeetingMapping("m-1"), MeetingMappingRow{});
    answer(200, "[]");
    EXPECT_EQ(api->fetchMeetingMapping("m-1"), MeetingMappingRow{});

    answer(403, "nope");
    EXPECT_EQ(caught<APIError>([&] { api->fetchMeetingMapping("m-1"); }),
              APIError::http(403, std::nullopt, "nope"));
    tokens->set(std::nullopt);
    EXPECT_EQ(caught<APIError>([&] { api->resolveMeetingId("rec-1"); }), APIError::unauthenticated());
}

TEST_F(LiveRecordingAPITest, MappingTriggerDecodesTheDispatch) {
    answer(200, R"({"status":"skipped","reason":"already_done"})");
    auto dispatch = api->triggerEarlySpeakerMapping("m-1");
    EXPECT_EQ(dispatch, (EarlyMappingDispatch{"skipped", "already_done"}));
    EXPECT_TRUE(dispatch.shouldPoll());
    EXPECT_EQ(lastRequest().path, "/functions/v1/early-speaker-mapping");
    EXPECT_EQ(lastRequest().body, R"({"meeting_id":"m-1","on_demand":true})");

    answer(200, R"({"status":["dispatched"]})");
    auto decoding = caught<APIError>([&] { api->triggerEarlySpeakerMapping("m-1"); });
    ASSERT_TRUE(decoding);
    EXPECT_EQ(decoding->text().rfind("early-speaker-mapping: ", 0), 0u) << decoding->text();

    std::size_t before = server.requestCount();
    tokens->set(std::nullopt);
    EXPECT_EQ(caught<APIError>([&] { api->triggerEarlySpeakerMapping("m-1"); }), APIError::unauthenticated());
    EXPECT_EQ(server.requestCount(), before);
}

} // namespace
} // namespace kavelo
