#include "app/shell/EnvironmentSettings.h"

#include <gtest/gtest.h>

#include <fstream>
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

TEST(EnvironmentSettings, BundleWithoutBackendRunsTheMockWorldInItsOwnPlaces) {
    const auto env = fakeEnvironment({{"HOME", "/home/ann"}});
    const auto mode = EnvironmentSettings::detectMode(info(Json::object()), env);
    EXPECT_EQ(mode, AppEnvironmentMode::mock);
    const auto dir = EnvironmentSettings::dataDirectory(mode, env);
    EXPECT_EQ(dir, std::filesystem::path("/home/ann/.local/share/Kavely/Mock"));
    EXPECT_EQ(EnvironmentSettings::sessionServiceName(mode), "com.kavely.linux.session.mock");
    const auto config = EnvironmentSettings::makeConfig(mode, info(Json::object()), dir);
    EXPECT_NE(config.supabaseUrl.find("mock"), std::string::npos);
    EXPECT_EQ(config.anonKey.size(), 13u);
    EXPECT_EQ(config.platform, "linux");
    EXPECT_TRUE(EnvironmentSettings::usesMockServices(mode, config));
}

TEST(EnvironmentSettings, ForcedLiveWithoutBackendValuesKeepsLivePlacesButMockServices) {
    const auto env = fakeEnvironment({{"KAVELO_BACKEND", "live"}, {"XDG_DATA_HOME", "/data"}});
    const auto mode = EnvironmentSettings::detectMode(info(Json::object()), env);
    EXPECT_EQ(mode, AppEnvironmentMode::live);
    EXPECT_EQ(EnvironmentSettings::dataDirectory(mode, env), std::filesystem::path("/data/Kavely"));
    EXPECT_EQ(EnvironmentSettings::sessionServiceName(mode), "com.kavely.linux.session");
    const auto config = EnvironmentSettings::makeConfig(mode, info(Json::object()), "/data/Kavely");
    EXPECT_TRUE(EnvironmentSettings::usesMockServices(mode, config));
}

TEST(EnvironmentSettings, BackendValuesDecideTheModeWhenNothingIsForced) {
    const auto env = fakeEnvironment({});
    const Json full = {{"SUPABASE_URL", "api.example.org/"}, {"SUPABASE_ANON_KEY", "anon"}};
    EXPECT_EQ(EnvironmentSettings::detectMode(info(full), env), AppEnvironmentMode::live);
    const auto config = EnvironmentSettings::makeConfig(AppEnvironmentMode::live, info(full), "/d");
    EXPECT_EQ(config.supabaseUrl, "https://api.example.org");
    EXPECT_EQ(config.anonKey, "anon");
    EXPECT_FALSE(EnvironmentSettings::usesMockServices(AppEnvironmentMode::live, config));

    const Json unexpanded = {{"SUPABASE_URL", "$(SUPABASE_URL)"}, {"SUPABASE_ANON_KEY", "anon"}};
    EXPECT_EQ(EnvironmentSettings::detectMode(info(unexpanded), env), AppEnvironmentMode::mock);
    const Json noKey = {{"SUPABASE_URL", "https://api.example.org"}, {"SUPABASE_ANON_KEY", ""}};
    EXPECT_EQ(EnvironmentSettings::detectMode(info(noKey), env), AppEnvironmentMode::mock);
    const Json notText = {{"SUPABASE_URL", 42}, {"SUPABASE_ANON_KEY", "anon"}};
    EXPECT_EQ(EnvironmentSettings::detectMode(info(notText), env), AppEnvironmentMode::mock);
    // An unknown forced value is ignored rather than trusted.
    EXPECT_EQ(EnvironmentSettings::detectMode(info(full), fakeEnvironment({{"KAVELO_BACKEND", "Mock"}})),
              AppEnvironmentMode::live);
    EXPECT_EQ(EnvironmentSettings::detectMode(info(full), fakeEnvironment({{"KAVELO_BACKEND", "mock"}})),
              AppEnvironmentMode::mock);

    const Json mockHost = {{"SUPABASE_URL", "https://mock.example.org"}, {"SUPABASE_ANON_KEY", "anon"}};
    const auto mockConfig = EnvironmentSettings::makeConfig(AppEnvironmentMode::live, info(mockHost), "/d");
    EXPECT_TRUE(EnvironmentSettings::usesMockServices(AppEnvironmentMode::live, mockConfig));
}

TEST(EnvironmentSettings, InfoFileSwitchReplacesTheEmbeddedDictionary) {
    const auto dir = std::filesystem::temp_directory_path() / ("kavely-info-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    const auto path = dir / "info.json";
    {
        std::ofstream out(path);
        out << R"({"SUPABASE_URL":"http://127.0.0.1:5999","SUPABASE_ANON_KEY":"k","CFBundleShortVersionString":"2.1.0"})";
    }
    const auto loaded = InfoDictionary::load(fakeEnvironment({{"KAVELO_INFO_FILE", path.string()}}));
    EXPECT_EQ(loaded.value("SUPABASE_URL"), "http://127.0.0.1:5999");
    EXPECT_EQ(EnvironmentSettings::makeConfig(AppEnvironmentMode::live, loaded, dir).appVersion, "2.1.0");

    {
        std::ofstream out(path);
        out << "[not an object";
    }
    const auto broken = InfoDictionary::load(fakeEnvironment({{"KAVELO_INFO_FILE", path.string()}}));
    EXPECT_FALSE(broken.value("SUPABASE_URL"));
    EXPECT_FALSE(InfoDictionary::fromFile(dir / "absent.json").value("SUPABASE_URL"));
    std::filesystem::remove_all(dir);
}

} // namespace
} // namespace kavelo
