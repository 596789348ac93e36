#include "ScriptedHTTPClient.h"

#include "core/backend/SupabaseFunctionClient.h"
#include "core/backend/SupabaseRestClient.h"
#include "core/support/ManualClock.h"

#include <gtest/gtest.h>

using namespace kavelo;
using kavelo::testing::FixedTokenProvider;
using kavelo::testing::ScriptedHTTPClient;
using Mode = SupabaseFunctionClient::AuthMode;

namespace {

AppConfig config() {
    AppConfig c;
    c.supabaseUrl = "https://proj.example.test";
    c.anonKey = "anon-key";
    return c;
}

struct Greeting {
    std::string text;
    static Greeting fromJson(const Json& json) {
        if (!json.is_object() || !json.contains("text") || !json["text"].is_string()) {
            throw DecodingError("keyNotFound: text");
        }
        return {json["text"].get<std::string>()};
    }
};

template <class F> APIError apiErrorOf(F&& f) {
    try {
        f();
    } catch (const APIError& e) {
        return e;
    }
    ADD_FAILURE() << "no APIError thrown";
    return APIError::cancelled();
}

struct FunctionClientTest : ::testing::Test {
    std::shared_ptr<ScriptedHTTPClient> http = std::make_shared<ScriptedHTTPClient>();
    std::shared_ptr<CoreLogger> logger = std::make_shared<CoreLogger>(std::make_shared<ManualClock>(), 100);

    SupabaseFunctionClient client(std::shared_ptr<AccessTokenProvider> provider) {
        return SupabaseFunctionClient(config(), http, std::move(provider), logger);
    }
    std::vector<std::string> warnLines() const {
        std::vector<std::string> out;
        for (const auto& e : logger->allEntries()) {
            if (e.level == LogLevel::warn) {
                out.push_back(e.message);
            }
        }
        return out;
    }
};

} // namespace

TEST_F(FunctionClientTest, AuthModesChooseTheBearerAndRequiredFailsBeforeSending) {
    auto signedOut = std::make_shared<FixedTokenProvider>(std::nullopt, std::nullopt);
    EXPECT_EQ(apiErrorOf([&] { client(signedOut).postRaw("f", Json::object(), true); }),
              APIError::unauthenticated());
    EXPECT_EQ(apiErrorOf([&] { client(nullptr).postRaw("f", Json::object(), false, Mode::required); }),
              APIError::unauthenticated());
    EXPECT_TRUE(http->requests().empty());

    auto signedIn = std::make_shared<FixedTokenProvider>("user-token", std::nullopt);
    http->answer(200, "one");
    http->answer(200, "two");
    http->answer(200, "three");
    EXPECT_EQ(stringFromBytes(client(signedIn).postRaw("init-recording", Json{{"b", 1}, {"a", "x"}}, true,
                                                       std::nullopt, {}, 25)),
              "one");
    client(signedOut).postRaw("f", Json::object(), true, Mode::optional);
    client(signedIn).postRaw("f", Json::object(), true, Mode::anonymous);

    auto requests = http->requests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].url, "https://proj.example.test/functions/v1/init-recording");
    EXPECT_EQ(requests[0].method, "POST");
    EXPECT_EQ(requests[0].timeout, 25);
    EXPECT_EQ(stringFromBytes(*requests[0].body), R"({"a":"x","b":1})");
    EXPECT_EQ(requests[0].headers, (std::map<std::string, std::string>{{"Authorization", "Bearer user-token"},
                                                                       {"Content-Type", "application/json"},
                                                                       {"apikey", "anon-key"}}));
    EXPECT_EQ(requests[1].headers.at("Authorization"), "Bearer anon-key");
    EXPECT_EQ(requests[2].headers.at("Authorization"), "Bearer anon-key");
    EXPECT_EQ(signedIn->currentCalls, 1); // the anonymous call did not ask
}

TEST_F(FunctionClientTest, OneRetryAfter401WithARefreshedToken) {
    auto provider = std::make_shared<FixedTokenProvider>("stale", "fresh");
    http->answer(401, R"({"message":"expired"})");
    http->answer(200, "ok");
    EXPECT_EQ(stringFromBytes(client(provider).postRaw("f", Json{{"k", "v"}}, true, std::nullopt,
                                                       {{"Authorization", "Bearer extra"}})),
              "ok");
    auto requests = http->requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].headers.at("Authorization"), "Bearer extra"); // an extra header wins the first send
    EXPECT_EQ(requests[1].headers.at("Authorization"), "Bearer fresh");
    EXPECT_EQ(requests[0].body, requests[1].body);
    EXPECT_EQ(warnLines(), (std::vector<std::string>{"f: 401 — token ververst, één herkansing"}));

    // The gateway's 403 with a JWT message means the same.
    http->answer(403, R"({"message":"Invalid JWT"})");
    http->answer(200, "ok");
    EXPECT_EQ(stringFromBytes(client(provider).postRaw("f", Json::object())), "ok");
    EXPECT_EQ(warnLines().back(), "f: 403 — token ververst, één herkansing");

    // A second 401 is final.
    http->answer(401, R"({"message":"first"})");
    http->answer(401, R"({"message":"second"})");
    EXPECT_EQ(apiErrorOf([&] { client(provider).postRaw("f", Json::object()); }),
              APIError::http(401, std::nullopt, "second"));
    EXPECT_EQ(http->requests().size(), 6u);

    // An optional call that went out with the anon key is retried as well.
    auto anonThenToken = std::make_shared<FixedTokenProvider>(std::nullopt, "fresh");
    http->answer(401);
    http->answer(200, "ok");
    client(anonThenToken).postRaw("f", Json::object(), true, Mode::optional);
    EXPECT_EQ(http->requests().back().headers.at("Authorization"), "Bearer fresh");
}

TEST_F(FunctionClientTest, No401RetryOnTheAnonymousRoadOrWithoutANewToken) {
    auto provider = std::make_shared<FixedTokenProvider>("t", "fresh");
    http->answer(401, R"({"message":"no"})");
    EXPECT_EQ(apiErrorOf([&] { client(provider).postRaw("f", Json::object(), false); }),
              APIError::http(401, std::nullopt, "no"));
    EXPECT_EQ(provider->refreshCalls, 0);

    auto noRefresh = std::make_shared<FixedTokenProvider>("t", std::nullopt);
    http->answer(401, R"({"message":"first"})");
    http->answer(200, "never");
    EXPECT_EQ(apiErrorOf([&] { client(noRefresh).postRaw("f", Json::object()); }),
              APIError::http(401, std::nullopt, "first"));
    EXPECT_EQ(noRefresh->refreshCalls, 1);
    EXPECT_EQ(http->requests().size(), 2u);
}

TEST_F(FunctionClientTest, ErrorBodiesReduceToCodeAndMessage) {
    auto c = client(nullptr);
    http->answer(409, R"({"error":"a","message":"b","code":"c"})");
    EXPECT_EQ(apiErrorOf([&] { c.postRaw("f", Json::object(), false); }), APIError::http(409, "c", "b"));

    http->answer(400, R"({"error_code":"e","code":"c"})");
    EXPECT_EQ(apiErrorOf([&] { c.postRaw("f", Json::object(), false); }),
              APIError::http(400, "e", R"({"error_code":"e","code":"c"})"));

    http->answer(400, R"({"error":"only error","reason":"ignored"})");
    EXPECT_EQ(apiErrorOf([&] { c.postRaw("f", Json::object(), false); }),
              APIError::http(400, std::nullopt, "only error"));

    // A field of the wrong type spoils the whole body, as a typed decoder would have it.
    http->answer(422, R"({"error_code":7,"message":"m"})");
    EXPECT_EQ(apiErrorOf([&] { c.postRaw("f", Json::object(), false); }),
              APIError::http(422, std::nullopt, R"({"error_code":7,"message":"m"})"));

    std::string html = "<html>" + std::string(994, 'x');
    http->answer(502, html);
    EXPECT_EQ(apiErrorOf([&] { c.postRaw("g", Json::object(), false); }),
              APIError::http(502, std::nullopt, html.substr(0, 300)));

    // Cut inside a two-byte character: no text rather than broken text.
    http->answer(500, std::string(299, 'a') + "\xC3\xA9");
    EXPECT_EQ(apiErrorOf([&] { c.postRaw("f", Json::object(), false); }), APIError::http(500));

    auto warns = warnLines();
    ASSERT_EQ(warns.size(), 6u);
    EXPECT_EQ(warns[0], "f failed: HTTP 409 code=c");
    EXPECT_EQ(warns[4], "g failed: HTTP 502 code=-");
}

TEST_F(FunctionClientTest, TransportFailuresAndUndecodableBodiesBecomeAPIErrors) {
    auto c = client(nullptr);
    http->fail(TransportError(TransportError::Kind::timeout, "Timeout was reached"));
    http->fail(TransportError(TransportError::Kind::cancelled, "aborted"));
    http->fail(TransportError(TransportError::Kind::other, "Couldn't connect to server"));
    EXPECT_EQ(apiErrorOf([&] { c.postRaw("f", Json::object(), false); }), APIError::timeout());
    EXPECT_EQ(apiErrorOf([&] { c.postRaw("f", Json::object(), false); }), APIError::cancelled());
    EXPECT_EQ(apiErrorOf([&] { c.postRaw("f", Json::object(), false); }),
              APIError::network("Couldn't connect to server"));

    http->answer(200, R"({"text":"hoi"})");
    EXPECT_EQ(c.post<Greeting>("hello", Json::object(), false).text, "hoi");
    http->answer(200, R"({"other":1})");
    EXPECT_EQ(apiErrorOf([&] { c.post<Greeting>("hello", Json::object(), false); }),
              APIError::decoding("hello: keyNotFound: text"));
}

TEST(RestClientTest, EveryCallNeedsAUserToken) {
    auto http = std::make_shared<ScriptedHTTPClient>();
    SupabaseRestClient noProvider(config(), http, nullptr);
    SupabaseRestClient signedOut(config(), http, std::make_shared<FixedTokenProvider>(std::nullopt, "x"));
    EXPECT_EQ(apiErrorOf([&] { noProvider.select("t", "*"); }), APIError::unauthenticated());
    EXPECT_EQ(apiErrorOf([&] { signedOut.deleteRows("t", {}); }), APIError::unauthenticated());
    EXPECT_TRUE(http->requests().empty());
}

TEST(RestClientTest, RequestsCarryTheirMethodURLHeadersAndBody) {
    auto http = std::make_shared<ScriptedHTTPClient>();
    SupabaseRestClient rest(config(), http, std::make_shared<FixedTokenProvider>("tok", std::nullopt));
    for (int i = 0; i < 7; ++i) {
        http->answer(i == 0 ? 200 : 201, "[]");
    }
    rest.select("meetings", "id,name", {{"id", "eq.a b"}, {"org", "in.(1,2)"}}, 5);
    rest.select("meetings", "id");
    rest.insert("contacts", Json::array({Json{{"email", "x@y.nl"}}}));
    rest.patch("profiles", {{"id", "eq.u1"}}, Json{{"full_name", "N"}});
    rest.deleteRows("invites", {{"id", "eq.9"}});
    rest.rpc("touch", bytesFromString("{\"raw\": true}"));
    EXPECT_EQ(rest.uploadStorageObject("logos", "org 1/logo.png", bytesFromString("PNG"), "image/png"),
              "https://proj.example.test/storage/v1/object/public/logos/org%201/logo.png");

    auto r = http->requests();
    ASSERT_EQ(r.size(), 7u);
    EXPECT_EQ(r[0].method, "GET");
    EXPECT_EQ(
        r[0].url,
        "https://proj.example.test/rest/v1/meetings?select=id%2cname&id=eq.a+b&org=in.%281%2c2%29&limit=5");
    EXPECT_EQ(r[0].headers, (std::map<std::string, std::string>{{"Authorization", "Bearer tok"},
                                                                {"Content-Type", "application/json"},
                                                                {"apikey", "anon-key"}}));
    EXPECT_FALSE(r[0].body.has_value());
    EXPECT_EQ(r[0].timeout, 15);
    EXPECT_EQ(r[1].url, "https://proj.example.test/rest/v1/meetings?select=id");
    EXPECT_EQ(r[2].method, "POST");
    EXPECT_EQ(r[2].headers.at("Prefer"), "return=representation");
    EXPECT_EQ(stringFromBytes(*r[2].body), R"([{"email":"x@y.nl"}])");
    EXPECT_EQ(r[3].method, "PATCH");
    EXPECT_EQ(r[3].url, "https://proj.example.test/rest/v1/profiles?id=eq.u1");
    EXPECT_EQ(r[3].headers.at("Prefer"), "return=representation");
    EXPECT_EQ(r[4].method, "DELETE");
    EXPECT_EQ(r[4].headers.count("Prefer"), 0u);
    EXPECT_EQ(r[5].url, "https://proj.example.test/rest/v1/rpc/touch");
    EXPECT_EQ(stringFromBytes(*r[5].body), "{\"raw\": true}");
    EXPECT_EQ(r[6].url, "https://proj.example.test/storage/v1/object/logos/org%201/logo.png");
    EXPECT_EQ(r[6].headers.at("Content-Type"), "image/png");
    EXPECT_EQ(r[6].headers.at("x-upsert"), "true");
    EXPECT_EQ(r[6].timeout, 30);
}

TEST(RestClientTest, RefusalsRetryOnceAfter401AndTransportErrorsPassUnchanged) {
    auto http = std::make_shared<ScriptedHTTPClient>();
    auto provider = std::make_shared<FixedTokenProvider>("stale", "fresh");
    SupabaseRestClient rest(config(), http, provider);
    http->answer(401, "jwt expired");
    http->answer(200, "[1]");
    EXPECT_EQ(stringFromBytes(rest.select("t", "*")), "[1]");
    EXPECT_EQ(http->requests().back().headers.at("Authorization"), "Bearer fresh");

    SupabaseRestClient noRefresh(config(), http, std::make_shared<FixedTokenProvider>("stale", std::nullopt));
    http->answer(401, R"({"code":"PGRST301","message":"JWT expired"})");
    EXPECT_EQ(apiErrorOf([&] { noRefresh.select("t", "*"); }),
              APIError::http(401, std::nullopt, R"({"code":"PGRST301","message":"JWT expired"})"));

    // Storage and the gateway refuse a stale token as 400 or 403 with a JWT message: the same one retry.
    for (const auto& [status, body] : std::vector<std::pair<int, std::string>>{
             {400, R"({"statusCode":"403","error":"Unauthorized","message":"jwt expired"})"},
             {403, R"({"code":403,"error_code":"bad_jwt","msg":"invalid JWT: token is expired"})"},
             {400, R"({"statusCode":"400","error":"InvalidJWT","message":"Invalid Compact JWS"})"},
             {403, "JWSError JWSInvalidSignature"}}) {
        http->answer(status, body);
        http->answer(200, "[2]");
        EXPECT_EQ(stringFromBytes(rest.select("t", "*")), "[2]") << body;
    }
    // Other refusals are the server's answer, not a token's.
    const auto before = http->requests().size();
    http->answer(
        403,
        R"({"statusCode":"403","error":"Unauthorized","message":"new row violates row-level security"})");
    EXPECT_EQ(apiErrorOf([&] { rest.select("t", "*"); }).httpStatus(), 403);
    http->answer(400, R"({"statusCode":"409","error":"Duplicate"})");
    EXPECT_EQ(apiErrorOf([&] { rest.select("t", "*"); }).httpStatus(), 400);
    EXPECT_EQ(http->requests().size(), before + 2);

    http->fail(TransportError(TransportError::Kind::timeout, "Timeout was reached"));
    try {
        rest.rpc("f", {});
        FAIL() << "expected TransportError";
    } catch (const TransportError& e) {
        EXPECT_EQ(e.kind(), TransportError::Kind::timeout);
    }
}
