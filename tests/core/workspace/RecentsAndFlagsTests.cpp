#include "core/support/InMemoryKeyValueStore.h"
#include "core/workspace/FeatureFlagService.h"
#include "core/workspace/RecentsStore.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace kavelo {
namespace {

using Names = std::vector<std::string>;

TEST(RecentsStoreTest, NamesKeepTheirWritingAddressesAreLowerCasedAndACaseTwinIsReplacedInFront) {
    auto store = std::make_shared<InMemoryKeyValueStore>();
    RecentsStore recents(store);
    recents.saveSpeakers({"  Anna de Vries ", "", "   ", "Bram"});
    EXPECT_EQ(recents.recentSpeakers(), (Names{"Bram", "Anna de Vries"})) << "the last of a batch ends first";
    recents.saveSpeakers({"ANNA DE VRIES"});
    EXPECT_EQ(recents.recentSpeakers(), (Names{"ANNA DE VRIES", "Bram"}));
    recents.saveSpeakers({"Émile", "émile"});
    EXPECT_EQ(recents.recentSpeakers(), (Names{"émile", "ANNA DE VRIES", "Bram"}))
        << "case folding past ASCII";

    recents.saveRecipients({"Piet@Example.NL\n", "\tjan@example.nl "});
    recents.saveRecipients({"PIET@example.nl"});
    EXPECT_EQ(recents.recentRecipients(), (Names{"piet@example.nl", "jan@example.nl"}));

    recents.clear();
    EXPECT_TRUE(recents.recentSpeakers().empty());
    EXPECT_TRUE(recents.recentRecipients().empty());
    EXPECT_FALSE(store->data(RecentsStore::kSpeakersKey).has_value());
}

TEST(RecentsStoreTest, TheTwentyFirstEntryPushesOutTheOldestAndBadStoredListsReadAsEmpty) {
    auto store = std::make_shared<InMemoryKeyValueStore>();
    RecentsStore recents(store);
    for (int i = 1; i <= 21; ++i) {
        recents.saveSpeakers({"Spreker " + std::to_string(i)});
    }
    const auto names = recents.recentSpeakers();
    ASSERT_EQ(names.size(), RecentsStore::kMaxEntries);
    EXPECT_EQ(names.front(), "Spreker 21");
    EXPECT_EQ(names.back(), "Spreker 2");

    for (const char* bad : {"{", R"({"a":1})", R"(["ok", 3])", "null"}) {
        store->setData(bytesFromString(bad), RecentsStore::kRecipientsKey);
        EXPECT_TRUE(recents.recentRecipients().empty()) << bad;
    }
    // A stored list grown by hand is read only up to the limit, and an absurd entry is dropped.
    std::string many = "[\"" + std::string(RecentsStore::kMaxEntryBytes + 1, 'x') + "\"";
    for (int i = 0; i < 500; ++i) {
        many += ",\"n" + std::to_string(i) + "@example.nl\"";
    }
    store->setData(bytesFromString(many + "]"), RecentsStore::kRecipientsKey);
    const auto read = recents.recentRecipients();
    ASSERT_EQ(read.size(), RecentsStore::kMaxEntries);
    EXPECT_EQ(read.front(), "n0@example.nl");
}

class ScriptedFlags final : public FeatureFlagBackend {
  public:
    std::map<std::string, bool> answer;
    bool fail = false;
    std::map<std::string, bool> fetchFlags() override {
        if (fail) {
            throw std::runtime_error("offline");
        }
        return answer;
    }
};

TEST(FeatureFlagServiceTest, RefreshMapsKnownFlagsKeepsTheRestAndSurvivesARestart) {
    auto store = std::make_shared<InMemoryKeyValueStore>();
    auto backend = std::make_shared<ScriptedFlags>();
    FeatureFlagService service(backend, store);
    EXPECT_EQ(service.flags(), FeatureFlags::defaults());
    EXPECT_TRUE(service.isEnabled("anything", true));

    backend->answer = {{"connectors", true}, {"template_chooser", false}, {"beta_x", true}};
    const auto fresh = service.refresh();
    EXPECT_TRUE(fresh.connectors);
    EXPECT_FALSE(fresh.templateChooser);
    EXPECT_TRUE(fresh.meetingDetection) << "an absent flag keeps its default";
    EXPECT_FALSE(fresh.calendarIntegration);
    EXPECT_TRUE(service.isEnabled("beta_x", false));

    backend->fail = true;
    EXPECT_EQ(service.refresh(), fresh);
    backend->fail = false;
    backend->answer.clear();
    for (int i = 0; i <= static_cast<int>(FeatureFlags::kMaxRawFlags); ++i) {
        backend->answer["flag_" + std::to_string(i)] = true;
    }
    EXPECT_EQ(service.refresh(), fresh) << "an absurd set is refused";

    EXPECT_EQ(FeatureFlagService(nullptr, store).flags(), fresh) << "read back from the cache";
    EXPECT_EQ(FeatureFlagService(nullptr, store).refresh(), fresh) << "without a backend nothing changes";
}

TEST(FeatureFlagServiceTest, ACacheWithAMissingOrMistypedKeyReadsAsTheDefaults) {
    auto store = std::make_shared<InMemoryKeyValueStore>();
    Json cache = FeatureFlags{false, false, true, true, false, {{"x", true}}}.toJson();
    store->setData(CoreJSON::encodeBytes(cache), FeatureFlagService::kCacheKey);
    EXPECT_FALSE(FeatureFlagService(nullptr, store).flags().templateChooser);

    Json missing = cache;
    missing.erase("wordAttachment");
    Json mistypedRaw = cache;
    mistypedRaw["raw"]["x"] = "yes";
    Json mistyped = cache;
    mistyped["connectors"] = 1;
    for (const Json& broken : {missing, mistypedRaw, mistyped, Json::array()}) {
        store->setData(CoreJSON::encodeBytes(broken), FeatureFlagService::kCacheKey);
        EXPECT_EQ(FeatureFlagService(nullptr, store).flags(), FeatureFlags::defaults()) << broken.dump();
    }
}

} // namespace
} // namespace kavelo
