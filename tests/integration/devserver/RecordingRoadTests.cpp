#include "StandInClient.h"
#include "helpers/DevServerProcess.h"

#include <gtest/gtest.h>

#include <openssl/evp.h>
#include <openssl/sha.h>

using namespace kavelo;

namespace {

const std::vector<std::string> kFastPipeline = {"--meeting-row-delay",
                                                "0",
                                                "--mapping-delay",
                                                "0",
                                                "--user",
                                                "anna@example.test:geheim123",
                                                "--user",
                                                "bram@example.test:geheim456"};

struct SignedIn {
    std::string token;
    std::string userId;
};

SignedIn signIn(StandInClient& client, const std::string& email, const std::string& password) {
    auto session = client.signIn(email, password);
    return {session.value("access_token", ""), session["user"].value("id", "")};
}

Json initBody(const std::string& userId) {
    return Json{{"user_id", userId},          {"user_email", "anna@example.test"},
                {"user_name", "Anna"},        {"source", "linux"},
                {"app_version", "1.0.0"},     {"language", "nl"},
                {"meeting_name", "Weekstart"}};
}

void upload(StandInClient& client, const std::string& token, const std::string& id, const std::string& file) {
    auto headers = client.gateway(token);
    headers.emplace("x-upsert", "true");
    ASSERT_EQ(
        client.postRaw("/storage/v1/object/recordings/" + id + "/chunks/" + file, "aac", headers).status,
        200);
}

TEST(RecordingRoadTest, InitChunksMappingAndFinalizeAsTheClientsCallThem) {
    DevServerProcess server(kFastPipeline);
    StandInClient client(server.port());
    auto anna = signIn(client, "anna@example.test", "geheim123");
    ASSERT_FALSE(anna.token.empty());

    auto init =
        client.post("/functions/v1/init-recording", initBody(anna.userId), client.gateway(anna.token));
    ASSERT_EQ(init.status, 200) << init.body;
    auto id = init.json()["recording_id"].get<std::string>();
    EXPECT_FALSE(init.json()["recording_secret"].get<std::string>().empty());

    auto list = [&](const std::string& token) {
        return client.post("/functions/v1/list-recording-chunks", Json{{"recording_id", id}},
                           client.gateway(token));
    };
    EXPECT_EQ(list(anna.token).json()["uploaded_sequences"], Json::array());
    upload(client, anna.token, id, "00001.aac");
    upload(client, anna.token, id, "00003.aac");
    upload(client, anna.token, id, "notes.txt");
    auto chunks = list(anna.token).json();
    EXPECT_EQ(chunks["uploaded_sequences"], Json({1, 3}));
    EXPECT_EQ(chunks["missing"], Json({2}));
    EXPECT_EQ(list("").status, 401); // the function wants a signed-in user

    auto rows = client.get("/rest/v1/meetings?select=id&recording_id=eq." + id + "&limit=1",
                           client.gateway(anna.token));
    ASSERT_EQ(rows.status, 200);
    ASSERT_EQ(rows.json().size(), 1u);
    auto meetingId = rows.json()[0]["id"].get<std::string>();
    EXPECT_EQ(rows.json()[0].size(), 1u); // only the selected column

    auto trigger = [&] {
        return client.post("/functions/v1/early-speaker-mapping",
                           Json{{"meeting_id", meetingId}, {"on_demand", true}}, client.gateway(anna.token));
    };
    EXPECT_EQ(trigger().json(), Json({{"status", "dispatched"}}));
    auto mapping = client.get("/rest/v1/meetings?select=participants,early_mapping_status&id=eq." + meetingId,
                              client.gateway(anna.token));
    EXPECT_EQ(mapping.json()[0]["early_mapping_status"], "done");
    EXPECT_EQ(mapping.json()[0]["participants"], Json({"Anna de Vries", "Bram Jansen"}));
    EXPECT_EQ(trigger().json()["reason"], "participants_present");

    Json diagnostics{{"platform", "linux"}, {"sessionStart", 1.0}, {"failedChunks", Json::array()}};
    auto sync = client.post("/functions/v1/finalize-recording",
                            Json{{"recording_id", id},
                                 {"user_id", anna.userId},
                                 {"diagnostic_sync", true},
                                 {"diagnostics", diagnostics}},
                            client.gateway());
    EXPECT_EQ(sync.status, 200) << sync.body;
    auto finalize = client.post("/functions/v1/finalize-recording",
                                Json{{"recording_id", id},
                                     {"user_id", anna.userId},
                                     {"user_email", "anna@example.test"},
                                     {"user_name", "Anna"},
                                     {"recipients", Json::array()},
                                     {"upload_mode", "mac_audio_chunks"},
                                     {"include_transcription", false},
                                     {"output_language", "nl"},
                                     {"diagnostics", diagnostics}},
                                client.gateway(anna.token));
    EXPECT_EQ(finalize.status, 200) << finalize.body;
    auto seen = client.get("/__admin/recordings/" + id).json();
    EXPECT_EQ(seen["finalize_requests"].size(), 1u);
    EXPECT_EQ(seen["diagnostic_syncs"].size(), 1u);
    EXPECT_EQ(seen["meeting_row"]["status"], "queued");
}

TEST(RecordingRoadTest, OneUserNeitherSeesNorTouchesAnothersRecording) {
    DevServerProcess server(kFastPipeline);
    StandInClient client(server.port());
    auto anna = signIn(client, "anna@example.test", "geheim123");
    auto bram = signIn(client, "bram@example.test", "geheim456");
    EXPECT_EQ(
        client.post("/functions/v1/init-recording", initBody(anna.userId), client.gateway(bram.token)).status,
        403);
    auto id = client.post("/functions/v1/init-recording", initBody(anna.userId), client.gateway(anna.token))
                  .json()["recording_id"]
                  .get<std::string>();
    EXPECT_EQ(client
                  .post("/functions/v1/list-recording-chunks", Json{{"recording_id", id}},
                        client.gateway(bram.token))
                  .status,
              404);
    EXPECT_EQ(
        client.get("/rest/v1/meetings?select=id&recording_id=eq." + id, client.gateway(bram.token)).json(),
        Json::array());
    EXPECT_EQ(client.get("/rest/v1/meetings?select=id", client.gateway()).json(), Json::array());
    // Nothing uploaded yet: no report can be asked for, and mapping has no audio to work on.
    auto finalize =
        client.post("/functions/v1/finalize-recording",
                    Json{{"recording_id", id}, {"user_email", "a"}, {"recipients", Json::array()}},
                    client.gateway(anna.token));
    EXPECT_EQ(finalize.status, 409);
    auto meetingId = client.get("/rest/v1/meetings?select=id", client.gateway(anna.token)).json()[0]["id"];
    auto refused = client.post("/functions/v1/early-speaker-mapping", Json{{"meeting_id", meetingId}},
                               client.gateway(anna.token));
    EXPECT_EQ(refused.json(), Json({{"status", "skipped"}, {"reason", "no_audio"}}));
}

TEST(RecordingRoadTest, TablesAnswerPostgrestSelectsAndRefuseUnknownColumns) {
    DevServerProcess server(kFastPipeline);
    StandInClient client(server.port());
    auto anna = signIn(client, "anna@example.test", "geheim123");
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(
            client.post("/functions/v1/init-recording", initBody(anna.userId), client.gateway(anna.token))
                .status,
            200);
    }
    auto h = client.gateway(anna.token);
    EXPECT_EQ(client.get("/rest/v1/meetings?select=id&limit=2", h).json().size(), 2u);
    EXPECT_EQ(client.get("/rest/v1/meetings?select=id&early_mapping_status=is.null", h).json().size(), 3u);
    EXPECT_EQ(client.get("/rest/v1/meetings?select=id&meeting_name=neq.Weekstart", h).json().size(), 0u);
    auto bad = client.get("/rest/v1/meetings?select=id,nope", h);
    EXPECT_EQ(bad.status, 400);
    EXPECT_EQ(bad.json()["code"], "42703");

    auto profile = client.get(
        "/rest/v1/profiles?select=user_id,email,full_name,job_title,company,organization_id&user_id=eq." +
            anna.userId + "&limit=1",
        h);
    ASSERT_EQ(profile.status, 200);
    EXPECT_EQ(profile.json()[0]["email"], "anna@example.test");
    auto h2 = h;
    h2.emplace("Prefer", "return=representation");
    auto patched = client.patch("/rest/v1/profiles?user_id=eq." + anna.userId,
                                Json{{"full_name", "Anna V"}, {"job_title", "PM"}}, h2);
    ASSERT_EQ(patched.status, 200) << patched.body;
    EXPECT_EQ(patched.json()[0]["job_title"], "PM");
    h.emplace("Prefer", "return=minimal");
    EXPECT_EQ(
        client.patch("/rest/v1/profiles?user_id=eq." + anna.userId, Json{{"company", "Kavely"}}, h).status,
        204);

    // The older schema lacks job_title and company: selecting them is a 400, the short select works.
    server.restart({"--profiles-without-job-title"});
    StandInClient legacy(server.port());
    auto token = legacy.signIn("anna@example.test", "geheim123")["access_token"].get<std::string>();
    EXPECT_EQ(legacy.get("/rest/v1/profiles?select=user_id,job_title", legacy.gateway(token)).status, 400);
    auto short_ =
        legacy.get("/rest/v1/profiles?select=user_id,email,full_name,organization_id", legacy.gateway(token));
    EXPECT_EQ(short_.json()[0]["full_name"], "Anna V");
    EXPECT_EQ(legacy
                  .patch("/rest/v1/profiles?user_id=eq." + anna.userId, Json{{"job_title", "x"}},
                         legacy.gateway(token))
                  .status,
              400);
}

TEST(AuthApiTest, PasswordGrantRefreshRotationSignUpAndSignOut) {
    DevServerProcess server(kFastPipeline);
    StandInClient client(server.port());
    httplib::Headers key{{"apikey", "dev-anon-key"}};
    auto wrong = client.post("/auth/v1/token?grant_type=password",
                             Json{{"email", "anna@example.test"}, {"password", "nope"}}, key);
    EXPECT_EQ(wrong.status, 400);
    EXPECT_EQ(client
                  .post("/auth/v1/token?grant_type=password",
                        Json{{"email", "anna@example.test"}, {"password", "geheim123"}})
                  .status,
              401); // no apikey

    auto first = client.signIn("ANNA@example.test", "geheim123");
    ASSERT_TRUE(first.contains("refresh_token"));
    EXPECT_EQ(first["expires_in"], 3600);
    auto second = client.post("/auth/v1/token?grant_type=refresh_token",
                              Json{{"refresh_token", first["refresh_token"]}}, key);
    ASSERT_EQ(second.status, 200);
    EXPECT_NE(second.json()["refresh_token"], first["refresh_token"]);
    EXPECT_EQ(client
                  .post("/auth/v1/token?grant_type=refresh_token",
                        Json{{"refresh_token", first["refresh_token"]}}, key)
                  .status,
              400);

    auto token = second.json()["access_token"].get<std::string>();
    auto updated =
        client.putJson("/auth/v1/user", Json{{"data", {{"work_profile", "sales"}}}}, client.gateway(token));
    EXPECT_EQ(updated.json()["user_metadata"]["work_profile"], "sales");
    EXPECT_EQ(client.get("/auth/v1/user", client.gateway(token)).json()["email"], "anna@example.test");
    auto logoutHeaders = client.gateway(token);
    EXPECT_EQ(client.postRaw("/auth/v1/logout?scope=local", "", logoutHeaders, "application/json").status,
              204);
    EXPECT_EQ(client.get("/auth/v1/user", client.gateway(token)).status, 401);
    EXPECT_EQ(client
                  .post("/auth/v1/token?grant_type=refresh_token",
                        Json{{"refresh_token", second.json()["refresh_token"]}}, key)
                  .status,
              400); // sign-out ended the whole session

    EXPECT_EQ(client.post("/auth/v1/signup", Json{{"email", "new@example.test"}, {"password", "123"}}, key)
                  .json()["error_code"],
              "weak_password");
    auto made = client.post("/auth/v1/signup",
                            Json{{"email", "new@example.test"},
                                 {"password", "123456"},
                                 {"data", {{"full_name", "Nieuw"}, {"signup_source", "macos_email"}}}},
                            key);
    ASSERT_EQ(made.status, 200);
    EXPECT_EQ(made.json()["user"]["user_metadata"]["signup_source"], "macos_email");
    auto again =
        client.post("/auth/v1/signup", Json{{"email", "new@example.test"}, {"password", "123456"}}, key);
    EXPECT_EQ(again.status, 422);
    EXPECT_NE(again.body.find("already"), std::string::npos);
}

TEST(AuthApiTest, WithConfirmationMailsASignUpGivesNoSessionAndHidesTakenAddresses) {
    DevServerProcess server({"--require-email-confirmation", "--user", "anna@example.test:geheim123"});
    StandInClient client(server.port());
    httplib::Headers key{{"apikey", "dev-anon-key"}};
    auto fresh =
        client.post("/auth/v1/signup", Json{{"email", "new@example.test"}, {"password", "123456"}}, key)
            .json();
    EXPECT_FALSE(fresh.contains("access_token"));
    EXPECT_EQ(fresh["identities"].size(), 1u);
    auto taken =
        client.post("/auth/v1/signup", Json{{"email", "anna@example.test"}, {"password", "123456"}}, key)
            .json();
    EXPECT_EQ(taken["identities"], Json::array());
    auto unconfirmed = client.post("/auth/v1/token?grant_type=password",
                                   Json{{"email", "new@example.test"}, {"password", "123456"}}, key);
    EXPECT_EQ(unconfirmed.json()["error_code"], "email_not_confirmed");
}

std::string challengeOf(const std::string& verifier) {
    unsigned char digest[SHA256_DIGEST_LENGTH];
    SHA256(reinterpret_cast<const unsigned char*>(verifier.data()), verifier.size(), digest);
    unsigned char out[64] = {};
    int n = EVP_EncodeBlock(out, digest, SHA256_DIGEST_LENGTH);
    std::string text(reinterpret_cast<char*>(out), static_cast<std::size_t>(n));
    for (auto& c : text) {
        c = c == '+' ? '-' : (c == '/' ? '_' : c);
    }
    return text.substr(0, text.find('='));
}

TEST(OAuthTest, PkceRoundTripAccountLinkingAndOneTimeCodes) {
    DevServerProcess server(kFastPipeline);
    StandInClient client(server.port());
    const std::string verifier = "dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk";
    auto codeFor = [&](const std::string& provider) {
        auto prepared = client.post(
            "/functions/v1/oauth-prepare",
            Json{{"provider", provider}, {"client_type", "ios"}, {"code_challenge", challengeOf(verifier)}},
            client.gateway());
        EXPECT_EQ(prepared.status, 200) << prepared.body;
        auto consent = client.get(StandInClient::pathOf(prepared.json()["authorize_url"]));
        EXPECT_EQ(consent.status, 302);
        auto location = consent.headers.find("Location")->second;
        EXPECT_EQ(location.rfind("kavely://auth-callback?code=", 0), 0u);
        return location.substr(location.find("code=") + 5);
    };
    auto exchange = [&](const std::string& code, const std::string& v) {
        return client.post("/functions/v1/oauth-mobile-exchange", Json{{"code", code}, {"code_verifier", v}},
                           client.gateway());
    };

    auto wrongVerifier = exchange(codeFor("google"), verifier + "x");
    EXPECT_EQ(wrongVerifier.status, 400);
    EXPECT_EQ(wrongVerifier.json()["error_code"], "invalid_state");

    auto code = codeFor("google");
    auto session = exchange(code, verifier);
    ASSERT_EQ(session.status, 200);
    EXPECT_EQ(session.json()["outcome"], "session");
    EXPECT_EQ(session.json()["user"]["email"], "google-user@example.test");
    EXPECT_EQ(exchange(code, verifier).json()["error_code"], "code_invalid_or_consumed");

    // Microsoft answers with Anna's address, which has a password account: linking is required, and only
    // Anna, signed in, can confirm it, once.
    ASSERT_EQ(
        client
            .post("/__admin/oauth/identity", Json{{"provider", "microsoft"}, {"email", "anna@example.test"}})
            .status,
        200);
    auto link = exchange(codeFor("microsoft"), verifier).json();
    ASSERT_EQ(link["outcome"], "account_link_required");
    EXPECT_EQ(link["existing_provider"], "email");
    EXPECT_EQ(link["new_provider"], "microsoft");
    auto confirm = [&](const std::string& token) {
        return client.post("/functions/v1/confirm-account-link", Json{{"link_token", link["link_token"]}},
                           client.gateway(token));
    };
    EXPECT_EQ(confirm("").status, 403);
    EXPECT_EQ(confirm(signIn(client, "bram@example.test", "geheim456").token).status, 401);
    auto annaToken = signIn(client, "anna@example.test", "geheim123").token;
    auto linked = confirm(annaToken);
    EXPECT_EQ(linked.json(), Json({{"linked_provider", "microsoft"}, {"success", true}}));
    EXPECT_EQ(confirm(annaToken).status, 404);
    EXPECT_EQ(exchange(codeFor("microsoft"), verifier).json()["outcome"], "session");
}

} // namespace
