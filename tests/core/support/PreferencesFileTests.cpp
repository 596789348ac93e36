#include "core/support/PreferencesFile.h"

#include "core/support/AtomicFile.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace kavelo {
namespace {

class PreferencesFileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/kavely-prefs-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        dir_ = pattern;
        path_ = dir_ / "Kavely" / "preferences.json";
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }
    void writeRaw(const std::string& text) {
        std::filesystem::create_directories(path_.parent_path());
        std::ofstream(path_) << text;
    }
    PreferencesFile open() {
        return PreferencesFile(path_, [this](const std::string& message) { warnings_.push_back(message); });
    }

    std::filesystem::path dir_;
    std::filesystem::path path_;
    std::vector<std::string> warnings_;
};

TEST_F(PreferencesFileTest, EveryKindOfValueSurvivesARestartAndRemovalsToo) {
    const Bytes binary{0, 1, 2, 0xff, 'x'};
    {
        auto prefs = open();
        prefs.setString("nl", "kavelo_app_language");
        prefs.setBool(false, "kavelo_live_indicator");
        prefs.setData(binary, "kavely_tips_cache");
        prefs.setData(Bytes{}, "empty");
        prefs.setString("gone", "kavelo_last_user_id");
        prefs.setString(std::nullopt, "kavelo_last_user_id");
    }
    auto prefs = open();
    EXPECT_EQ(prefs.string("kavelo_app_language"), "nl");
    EXPECT_EQ(prefs.boolean("kavelo_live_indicator"), false);
    EXPECT_EQ(prefs.data("kavely_tips_cache"), binary);
    EXPECT_EQ(prefs.data("empty"), Bytes{});
    EXPECT_FALSE(prefs.string("kavelo_last_user_id"));
    // A value read as another kind is absent, so a true-by-default flag is never read as false.
    EXPECT_FALSE(prefs.boolean("kavelo_app_language"));
    EXPECT_EQ(std::filesystem::status(path_).permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    EXPECT_TRUE(warnings_.empty());
}

TEST_F(PreferencesFileTest, ABrokenOrOversizedFileIsMovedAsideOnceAndTheDefaultsApply) {
    for (const std::string& content :
         {std::string("{\"kavelo_theme\": \"dark\""), std::string("[1, 2]"),
          "{\"a\": \"" + std::string(PreferencesFile::kMaxFileBytes, 'x') + "\"}"}) {
        warnings_.clear();
        writeRaw(content);
        auto prefs = open();
        EXPECT_FALSE(prefs.string("kavelo_theme"));
        ASSERT_EQ(warnings_.size(), 1u);
        EXPECT_NE(warnings_[0].find(".broken"), std::string::npos);
        EXPECT_TRUE(std::filesystem::exists(path_.string() + ".broken"));
        EXPECT_FALSE(std::filesystem::exists(path_));
        // The program goes on and writes a good file again.
        prefs.setString("light", "kavelo_theme");
        EXPECT_EQ(open().string("kavelo_theme"), "light");
    }
}

TEST_F(PreferencesFileTest, AValueOfAKindNeverWrittenIsDroppedAndTheOthersStay) {
    writeRaw(R"({"kavelo_theme": "dark", "kavelo_tip_cursor": 3, "odd": {"base64": 1}, "x": [true]})");
    auto prefs = open();
    EXPECT_EQ(prefs.string("kavelo_theme"), "dark");
    EXPECT_FALSE(prefs.string("kavelo_tip_cursor"));
    EXPECT_FALSE(prefs.data("odd"));
    EXPECT_TRUE(warnings_.empty());
}

TEST_F(PreferencesFileTest, AFolderThatCannotBeWrittenKeepsValuesForTheRunAndSaysSoOnce) {
    std::ofstream(dir_ / "Kavely") << "a file where the folder should be";
    auto prefs = open();
    prefs.setString("en", "kavelo_app_language");
    prefs.setBool(true, "kavelo_notify_started");
    EXPECT_EQ(prefs.string("kavelo_app_language"), "en");
    EXPECT_EQ(prefs.boolean("kavelo_notify_started"), true);
    EXPECT_EQ(warnings_.size(), 1u);
}

} // namespace
} // namespace kavelo
