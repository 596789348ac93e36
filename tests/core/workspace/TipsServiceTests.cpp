#include "core/backend/APIError.h"
#include "core/backend/SupabaseFunctionClient.h"
#include "core/mock/MockTipsBackend.h"
#include "core/support/InMemoryKeyValueStore.h"
#include "core/support/ManualClock.h"
#include "core/support/PreferencesFile.h"
#include "core/workspace/LiveTipsBackend.h"
#include "core/workspace/TipsService.h"
#include "helpers/FakeHTTPClient.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

namespace kavelo {
namespace {

class FixedTokens final : public AccessTokenProvider {
  public:
    std::optional<std::string> currentAccessToken() override { return "user-token"; }
};

std::vector<DashboardTip> tips(int count) {
    std::vector<DashboardTip> list;
    // Given in reverse, so the service's sorting is what puts them in order.
    for (int i = count; i >= 1; --i) {
        list.push_back({"t" + std::to_string(i), "tip " + std::to_string(i), i});
    }
    return list;
}

std::vector<std::string> ids(const std::vector<DashboardTip>& list) {
    std::vector<std::string> result;
    for (const auto& t : list) {
        result.push_back(t.id);
    }
    return result;
}

class TipsServiceTest : public ::testing::Test {
  protected:
    TipsServiceTest() {
        AppConfig config;
        config.supabaseUrl = "https://backend.example.test";
        config.anonKey = "anon";
        functions = std::make_shared<SupabaseFunctionClient>(
            config, http, std::make_shared<FixedTokens>(),
            std::make_shared<CoreLogger>(std::make_shared<ManualClock>(), 10));
    }
    std::unique_ptr<TipsService> make(std::shared_ptr<KeyValueStore> kv,
                                      TipsService::RandomBelow random = {}) {
        auto service =
            std::make_unique<TipsService>(std::make_shared<LiveTipsBackend>(functions), kv, random);
        service->setOnEvent([this](const std::string& text) { events.push_back(text); });
        return service;
    }
    void answer(const std::string& body, int status = 200) {
        http->respond("POST", "get-tips", status, bytesFromString(body));
    }

    std::shared_ptr<FakeHTTPClient> http = std::make_shared<FakeHTTPClient>();
    std::shared_ptr<SupabaseFunctionClient> functions;
    std::shared_ptr<InMemoryKeyValueStore> store = std::make_shared<InMemoryKeyValueStore>();
    std::vector<std::string> events;
};

TEST_F(TipsServiceTest, WindowsOfFourWrapAroundTheSortedTipsAndStayTheSameWithinAProcess) {
    std::size_t draws = 0;
    auto service = make(store, [&draws](std::size_t bound) {
        ++draws;
        return bound - 1;
    });
    EXPECT_EQ(ids(service->visibleTips(tips(6), 5)), (std::vector<std::string>{"t6", "t1", "t2", "t3"}));
    EXPECT_EQ(ids(service->visibleTips(tips(6), 13)), (std::vector<std::string>{"t2", "t3", "t4", "t5"}));
    for (std::size_t start : {0u, 3u, 99u}) {
        EXPECT_EQ(ids(service->visibleTips(tips(4), start)),
                  (std::vector<std::string>{"t1", "t2", "t3", "t4"}));
    }
    EXPECT_TRUE(service->visibleTips({}, 2).empty());
    EXPECT_EQ(draws, 0u) << "a given start draws nothing";

    const auto first = ids(service->visibleTips(tips(6)));
    EXPECT_EQ(first, (std::vector<std::string>{"t6", "t1", "t2", "t3"}));
    EXPECT_EQ(ids(service->visibleTips(tips(6))), first);
    // A shorter list later still wraps from the start drawn once.
    EXPECT_EQ(ids(service->visibleTips(tips(5))), (std::vector<std::string>{"t1", "t2", "t3", "t4"}));
    EXPECT_EQ(draws, 1u);

    // Equal sort orders keep the order they came in.
    std::vector<DashboardTip> ties{{"b", "x", 1}, {"a", "x", 1}, {"c", "x", 0}};
    EXPECT_EQ(ids(service->visibleTips(ties)), (std::vector<std::string>{"c", "b", "a"}));
}

TEST_F(TipsServiceTest, AFreshAnswerIsCachedAndAFailureFallsBackToTheCacheWithItsEventText) {
    auto service = make(store);
    http->failOnce("POST", "get-tips", TransportError(TransportError::Kind::other, "offline"));
    EXPECT_EQ(service->loadTips(), std::nullopt);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].rfind("get-tips faalde (", 0), 0u) << events[0];
    EXPECT_NE(events[0].find(") — cache: leeg"), std::string::npos) << events[0];

    answer(R"({"segment":"starter","meeting_count":3,"tips":[{"id":"a","body":"Eén","sort_order":2},)"
           R"({"id":"b","body":"Twee","sort_order":1}]})");
    const auto fresh = service->loadTips();
    ASSERT_TRUE(fresh.has_value());
    EXPECT_EQ(events.back(), "get-tips ok: segment=starter tips=2 meetingCount=3");
    const auto request = http->requests().back();
    EXPECT_EQ(request.url, "https://backend.example.test/functions/v1/get-tips");
    EXPECT_EQ(request.headers.at("Authorization"), "Bearer user-token");
    EXPECT_EQ(stringFromBytes(request.body.value()), "{}");
    EXPECT_EQ(request.timeout, 10.0);
    EXPECT_EQ(request.maxResponseBytes, TipsResponse::kMaxBytes);

    answer("{}", 500);
    EXPECT_EQ(service->loadTips(), fresh);
    EXPECT_NE(events.back().find(") — cache: 2 tips"), std::string::npos) << events.back();

    answer(R"({"tips":[]})");
    ASSERT_TRUE(service->loadTips().has_value());
    EXPECT_EQ(events.back(), "get-tips ok: segment=- tips=0 meetingCount=-");
}

TEST_F(TipsServiceTest, HostileAnswersAreRefusedAndLeaveTheCacheAsItWas) {
    auto service = make(store);
    answer(R"({"tips":[{"id":"a","body":"ok","sort_order":1}]})");
    const auto good = service->loadTips();
    ASSERT_TRUE(good.has_value());

    std::string many = R"({"tips":[)";
    for (std::size_t i = 0; i <= TipsResponse::kMaxTips; ++i) {
        many +=
            std::string(i ? "," : "") + R"({"id":"t)" + std::to_string(i) + R"(","body":"b","sort_order":1})";
    }
    many += "]}";
    const std::vector<std::string> hostile = {
        many,
        R"({"tips":[{"id":"a","body":")" + std::string(TipsResponse::kMaxTipBodyBytes + 1, 'x') +
            R"(","sort_order":1}]})",
        R"({"tips":[{"id":"a","body":"b","sort_order":1e40}]})",
        R"({"tips":[{"id":"a","body":"b","sort_order":"1"}]})",
        R"({"tips":[{"id":"","body":"b","sort_order":1}]})",
        R"({"tips":[],"meeting_count":-1})",
        R"({"tips":{}})",
        R"({"segment":")" + std::string(TipsResponse::kMaxSegmentBytes + 1, 's') + R"(","tips":[]})",
        R"({"tips":[],"pad":")" + std::string(TipsResponse::kMaxBytes, ' ') + "\"}",
        "[1,2,3]",
    };
    for (const auto& body : hostile) {
        SCOPED_TRACE(body.substr(0, 100));
        answer(body);
        EXPECT_EQ(service->loadTips(), good);
        EXPECT_NE(events.back().find("decoding"), std::string::npos) << events.back();
    }
    EXPECT_EQ(service->cachedResponse(), good);
}

TEST_F(TipsServiceTest, TheCacheSurvivesARestartAndACorruptOrOversizedCacheReadsAsNothing) {
    char pattern[] = "/tmp/kavelo-tips-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    const std::filesystem::path dir(pattern);
    const auto file = dir / "preferences.json";
    answer(R"({"segment":"pro","tips":[{"id":"a","body":"Één tip","sort_order":1}],"meeting_count":12})");
    {
        auto service = make(std::make_shared<PreferencesFile>(file, [](const std::string&) {}));
        ASSERT_TRUE(service->loadTips().has_value());
        service->setTipsEnabled(false);
    }
    auto prefs = std::make_shared<PreferencesFile>(file, [](const std::string&) {});
    auto reopened = make(prefs);
    const auto cached = reopened->cachedResponse();
    ASSERT_TRUE(cached.has_value());
    EXPECT_EQ(cached->segment, "pro");
    EXPECT_EQ(cached->meetingCount, 12);
    ASSERT_EQ(cached->tips.size(), 1u);
    EXPECT_EQ(cached->tips[0].body, "Één tip");
    EXPECT_FALSE(reopened->tipsEnabled());

    EXPECT_TRUE(make(store)->tipsEnabled()) << "tips are on until switched off";
    for (const std::string& corrupt :
         {std::string("{not json"), std::string(R"({"tips":[{"id":"a"}]})"),
          R"({"tips":[{"id":"a","body":")" + std::string(TipsResponse::kMaxTipBodyBytes + 1, 'x') +
              R"(","sort_order":1}]})"}) {
        prefs->setData(bytesFromString(corrupt), TipsService::kCacheKey);
        EXPECT_EQ(reopened->cachedResponse(), std::nullopt);
    }
    std::filesystem::remove_all(dir);
}

TEST(MockTipsBackendTest, MockTipsSpeakTheUsersLanguageAndCanFailLikeAnOfflineBackend) {
    std::string language = "nl";
    auto backend = std::make_shared<MockTipsBackend>([&language] { return language; });
    auto store = std::make_shared<InMemoryKeyValueStore>();
    TipsService service(backend, store);
    const auto dutch = service.loadTips();
    ASSERT_TRUE(dutch.has_value());
    EXPECT_GE(dutch->tips.size(), 3u);
    EXPECT_LE(dutch->tips.size(), TipsService::kWindowSize);
    language = "en";
    const auto english = service.loadTips();
    ASSERT_TRUE(english.has_value());
    ASSERT_EQ(english->tips.size(), dutch->tips.size());
    EXPECT_NE(english->tips[0].body, dutch->tips[0].body);
    // What the mock hands out passes the same reader as a real answer.
    EXPECT_EQ(TipsResponse::fromJson(english->toJson()), *english);

    backend->setFailuresBeforeSuccess(1);
    EXPECT_EQ(service.loadTips(), english) << "the cache answers while the backend is away";
}

} // namespace
} // namespace kavelo
