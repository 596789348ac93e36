#include "app/desktop/SettingsModel.h"

#include "core/support/InMemoryKeyValueStore.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

namespace kavelo {
namespace {

TEST(SettingsModelTest, DefaultsThemeMutedAppsWindowAndTheLoginEntry) {
    char pattern[] = "/tmp/kavely-settings-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    const std::filesystem::path dir = pattern;
    const auto autostart = dir / "autostart" / "nl.kavely.Kavely.desktop";
    auto prefs = std::make_shared<InMemoryKeyValueStore>();
    SettingsModel settings(prefs, autostart);

    // Unset flags read as their defaults; the first start registers the login entry.
    EXPECT_TRUE(settings.defaultIncludeTranscription());
    EXPECT_FALSE(settings.defaultAttachWord());
    EXPECT_TRUE(settings.liveIndicator());
    EXPECT_TRUE(settings.openAtLogin());
    EXPECT_TRUE(std::filesystem::exists(autostart));
    settings.setOpenAtLogin(false);
    EXPECT_FALSE(std::filesystem::exists(autostart));
    EXPECT_EQ(prefs->boolean("kavelo_open_at_login"), false);

    // "system" follows the desktop; a stored value that is no theme reads as "system".
    EXPECT_FALSE(settings.effectiveDark());
    settings.setDesktopPrefersDark(true);
    EXPECT_TRUE(settings.effectiveDark());
    settings.setTheme("light");
    EXPECT_FALSE(settings.effectiveDark());
    prefs->setString("purple", "kavelo_theme");
    EXPECT_EQ(settings.theme(), "system");

    settings.setMutedApps({"Zoom", " Teams, web ", "Zoom", ""});
    EXPECT_EQ(prefs->string("kavelo_muted_apps"), "Zoom, Teams  web");
    EXPECT_EQ(settings.mutedApps(), (QStringList{"Zoom", "Teams  web"}));

    settings.setWindowWidth(100);
    EXPECT_EQ(settings.windowWidth(), 720);
    prefs->setString("not a number", "kavelo_window_height");
    EXPECT_EQ(settings.windowHeight(), 480);
    std::filesystem::remove_all(dir);
}

} // namespace
} // namespace kavelo
