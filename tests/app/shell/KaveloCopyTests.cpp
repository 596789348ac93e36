#include "app/shell/KaveloCopy.h"

#include "core/support/InMemoryKeyValueStore.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>

namespace kavelo {
namespace {

KaveloCopy::ResourceReader tables(std::map<std::string, std::string> files) {
    return [files = std::move(files)](const std::string& name) -> std::optional<std::string> {
        const auto it = files.find(name);
        return it == files.end() ? std::nullopt : std::optional<std::string>(it->second);
    };
}

TEST(KaveloCopyTest, LooksUpTheActiveLanguageThenDutchThenTheKeyItself) {
    auto prefs = std::make_shared<InMemoryKeyValueStore>();
    prefs->setString("en", "kavelo_app_language");
    const KaveloCopy copy(prefs, tables({
                                     {"nl.dashboard.json", R"({"start": "Opnemen", "only_nl": "Alleen NL",
                                         "card": {"tips": {"title": "Tips"}}, "count": 3})"},
                                     {"en.dashboard.json", R"({"start": "Record"})"},
                                     {"en.common.json", "not json"},
                                     {"nl.common.json", R"(["a list"])"},
                                 }));
    EXPECT_EQ(copy.language(), "en");
    EXPECT_EQ(copy.text("dashboard.start"), "Record");
    EXPECT_EQ(copy.text("dashboard.only_nl"), "Alleen NL");
    EXPECT_EQ(copy.text("dashboard.card.tips.title"), "Tips");
    // Not texts, broken and missing files: the key shows, never an empty line.
    EXPECT_EQ(copy.text("dashboard.count"), "dashboard.count");
    EXPECT_EQ(copy.text("common.anything"), "common.anything");
    EXPECT_EQ(copy.text("nowhere"), "nowhere");
}

TEST(KaveloCopyTest, PlaceholdersAndAnUnknownLanguage) {
    auto prefs = std::make_shared<InMemoryKeyValueStore>();
    prefs->setString("fr", "kavelo_app_language");
    KaveloCopy copy(prefs,
                    tables({{"nl.desktop.json", R"({"detected": "{{app}} is open. {{app}}: {{what}}"})"},
                            {"en.desktop.json", R"({"detected": "{{app}} is running"})"}}));
    EXPECT_EQ(copy.text("desktop.detected", {{"app", "Jitsi {{app}}"}}),
              "Jitsi {{app}} is open. Jitsi {{app}}: {{what}}");
    copy.setLanguage("en");
    EXPECT_EQ(prefs->string("kavelo_app_language"), "en");
    EXPECT_EQ(copy.text("desktop.detected", {{"app", "Zoom"}}), "Zoom is running");
}

// Every text key the program's sources name must exist in Dutch and in English: a key missing from a table
// shows on screen as the key itself.
TEST(KaveloCopyTest, EveryKeyInTheSourcesExistsInBothLanguages) {
    const std::filesystem::path root = KAVELO_SOURCE_DIR;
    const KaveloCopy copy(nullptr, KaveloCopy::folderReader(root / "app" / "shell" / "copy"));
    const std::regex keyPattern(
        R"re("((account|auth|common|dashboard|onboarding|record|settings|success|desktop)\.[a-z0-9_]+(\.[a-z0-9_]+)*)")re");
    std::set<std::string> missing;
    int seen = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root / "app")) {
        const auto ext = entry.path().extension();
        if (!entry.is_regular_file() || (ext != ".cpp" && ext != ".h" && ext != ".qml")) {
            continue;
        }
        std::ifstream in(entry.path());
        std::string line;
        for (int number = 1; std::getline(in, line); ++number) {
            for (std::sregex_iterator it(line.begin(), line.end(), keyPattern), end; it != end; ++it) {
                const auto key = (*it)[1].str();
                if (key.ends_with(".json")) {
                    continue; // a file name, not a key
                }
                ++seen;
                for (const auto language : KaveloCopy::languages) {
                    if (!copy.hasKey(language, key)) {
                        missing.insert(std::filesystem::relative(entry.path(), root).string() + ":" +
                                       std::to_string(number) + ": " + key + " missing in " +
                                       std::string(language));
                    }
                }
            }
        }
    }
    EXPECT_GT(seen, 20) << "the scan found almost no keys: has the way screens read texts changed?";
    for (const auto& problem : missing) {
        ADD_FAILURE() << problem;
    }
}

} // namespace
} // namespace kavelo
