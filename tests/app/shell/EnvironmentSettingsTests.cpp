#include "app/shell/EnvironmentSettings.h"

#include "app/shell/EnvironmentError.h"

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <map>

#include <unistd.h>

namespace kavelo {
namespace {

EnvironmentReader fakeEnvironment(std::map<std::string, std::string> values) {
    return [values = std::move(values)](const std::string& name) -> std::optional<std::string> {
        const auto it = values.find(name);
        if (it == values.end()) {
            return std::nullopt;
        }
        return it->second;
    };
}

InfoDictionary info(Json object) {
    return InfoDictionary(std::move(object));
}

EnvironmentError::Kind failureOf(const std::function<void()>& body) {
    try {
        body();
    } catch (const EnvironmentError& error) {
        return error.kind();
    }
    ADD_FAILURE() << "no EnvironmentError";
    return EnvironmentError::Kind::unknownBackendChoice;
}

TEST(EnvironmentSettings, TheMockWorldIsChosenOnlyByNameAndKeepsToItsOwnPlaces) {
    const auto env = fakeEnvironment({{"HOME", "/home/ann"}, {"KAVELO_BACKEND", "mock"}});
    const Json full = {{"SUPABASE_URL", "api.example.org/"}, {"SUPABASE_ANON_KEY", "anon"}};
    const auto mode = EnvironmentSettings::detectMode(info(full), env);
    EXPECT_EQ(mode, AppEnvironmentMode::mock);
    const auto dir = EnvironmentSettings::dataDirectory(mode, env);
    EXPECT_EQ(dir, std::filesystem::path("/home/ann/.local/share/Kavely/Mock"));
    EXPECT_EQ(EnvironmentSettings::sessionServiceName(mode), "com.kavely.linux.session.mock");
    const auto config = EnvironmentSettings::makeConfig(mode, info(Json::object()), dir);
    EXPECT_NE(config.supabaseUrl.find("mock"), std::string::npos);
    EXPECT_EQ(config.anonKey.size(), 13u);
    EXPECT_EQ(config.platform, "linux");
}

TEST(EnvironmentSettings, ALiveWorldWithoutAUsableBackendRefusesToRunInsteadOfFallingBackToMock) {
    using Kind = EnvironmentError::Kind;
    const auto none = fakeEnvironment({});
    const auto forcedLive = fakeEnvironment({{"KAVELO_BACKEND", "live"}});
    for (const auto& env : {none, forcedLive}) {
        EXPECT_EQ(failureOf([&] { (void)EnvironmentSettings::detectMode(info(Json::object()), env); }),
                  Kind::noBackendAddress);
        for (const Json& half : {Json{{"SUPABASE_URL", "$(SUPABASE_URL)"}, {"SUPABASE_ANON_KEY", "anon"}},
                                 Json{{"SUPABASE_URL", "https://api.example.org"}, {"SUPABASE_ANON_KEY", ""}},
                                 Json{{"SUPABASE_URL", 42}, {"SUPABASE_ANON_KEY", "anon"}}}) {
            EXPECT_EQ(failureOf([&] { (void)EnvironmentSettings::detectMode(info(half), env); }),
                      Kind::noBackendAddress)
                << half.dump();
        }
        EXPECT_EQ(failureOf([&] {
                      (void)EnvironmentSettings::detectMode(
                          info({{"SUPABASE_URL", "http://"}, {"SUPABASE_ANON_KEY", "anon"}}), env);
                  }),
                  Kind::badBackendAddress);
    }
    EXPECT_EQ(failureOf([] {
                  (void)EnvironmentSettings::makeConfig(AppEnvironmentMode::live, info(Json::object()), "/d");
              }),
              Kind::noBackendAddress);
    // A misspelt choice is refused rather than guessed: "Mock" is not "mock".
    const Json full = {{"SUPABASE_URL", "api.example.org/"}, {"SUPABASE_ANON_KEY", "anon"}};
    EXPECT_EQ(
        failureOf([&] {
            (void)EnvironmentSettings::detectMode(info(full), fakeEnvironment({{"KAVELO_BACKEND", "Mock"}}));
        }),
        Kind::unknownBackendChoice);

    EXPECT_EQ(EnvironmentSettings::detectMode(info(full), none), AppEnvironmentMode::live);
    const auto config = EnvironmentSettings::makeConfig(AppEnvironmentMode::live, info(full), "/d");
    EXPECT_EQ(config.supabaseUrl, "https://api.example.org");
    EXPECT_EQ(config.anonKey, "anon");
    EXPECT_EQ(EnvironmentSettings::dataDirectory(AppEnvironmentMode::live,
                                                 fakeEnvironment({{"XDG_DATA_HOME", "/data"}})),
              std::filesystem::path("/data/Kavely"));
}

TEST(EnvironmentSettings, TheUpdatePolicyLivesBesideTheFeedOrElseAtTheBackendsHost) {
    const std::string backend = "https://api.example.org";
    const auto policyFor = [&](const Json& object) {
        return EnvironmentSettings::updatePolicyUrl(info(object), backend);
    };
    EXPECT_EQ(policyFor({{"SUFeedURL", "https://dl.example.org/linux/feed.xml?channel=beta"}}),
              "https://dl.example.org/linux/update-policy.json");
    EXPECT_EQ(policyFor({{"SUFeedURL", "https://dl.example.org/feed/"}}),
              "https://dl.example.org/update-policy.json");
    EXPECT_EQ(policyFor({{"SUFeedURL", "http://127.0.0.1:8080"}}),
              "http://127.0.0.1:8080/update-policy.json");
    // No feed, an unexpanded build variable, or a value without a scheme: the backend's host answers.
    for (const Json& object :
         {Json::object(), Json{{"SUFeedURL", "$(SU_FEED_URL)"}},
          Json{{"SUFeedURL", "dl.example.org/feed.xml"}}, Json{{"SUFeedURL", "https://"}}}) {
        EXPECT_EQ(policyFor(object), "https://api.example.org/update-policy.json") << object.dump();
    }
}

TEST(EnvironmentSettings, InfoFileSwitchReplacesTheEmbeddedDictionaryAndABrokenOneIsNamedWithItsReason) {
    using Kind = EnvironmentError::Kind;
    const auto dir = std::filesystem::temp_directory_path() / ("kavely-info-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    const auto path = dir / "info.json";
    auto write = [&](const std::string& text) {
        std::ofstream out(path);
        out << text;
    };
    auto loadFrom = [](const std::filesystem::path& file) {
        return InfoDictionary::load(fakeEnvironment({{"KAVELO_INFO_FILE", file.string()}}));
    };
    write(
        R"({"SUPABASE_URL":"http://127.0.0.1:5999","SUPABASE_ANON_KEY":"k","CFBundleShortVersionString":"2.1.0"})");
    const auto loaded = loadFrom(path);
    EXPECT_EQ(loaded.value("SUPABASE_URL"), "http://127.0.0.1:5999");
    EXPECT_EQ(EnvironmentSettings::makeConfig(AppEnvironmentMode::live, loaded, dir).appVersion, "2.1.0");

    // The broken file's path reaches the message, so the user knows which switch to fix.
    write(R"({"CFBundleShortVersionString":"2.1.0"})");
    try {
        (void)EnvironmentSettings::detectMode(loadFrom(path), fakeEnvironment({}));
        ADD_FAILURE() << "a file without backend values chose a world";
    } catch (const EnvironmentError& error) {
        EXPECT_EQ(error.kind(), Kind::noBackendAddress);
        EXPECT_NE(std::string(error.what()).find(path.string()), std::string::npos) << error.what();
    }
    write("[not an object");
    EXPECT_EQ(failureOf([&] { (void)loadFrom(path); }), Kind::infoFileNotAnObject);
    write("[1, 2]");
    EXPECT_EQ(failureOf([&] { (void)loadFrom(path); }), Kind::infoFileNotAnObject);
    write(std::string(InfoDictionary::kMaxFileBytes + 1, ' '));
    EXPECT_EQ(failureOf([&] { (void)loadFrom(path); }), Kind::infoFileNotAnObject);
    EXPECT_EQ(failureOf([&] { (void)loadFrom(dir / "absent.json"); }), Kind::infoFileUnreadable);
    EXPECT_EQ(failureOf([&] { (void)loadFrom(dir); }), Kind::infoFileUnreadable);
    std::filesystem::remove_all(dir);
}

} // namespace
} // namespace kavelo
