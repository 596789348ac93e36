#include "app/shell/KavelyUrlRoute.h"

#include <gtest/gtest.h>

#include <vector>

namespace kavelo {
namespace {

TEST(KavelyUrlRouteTest, OpensTheKnownSectionsAndRefusesEverythingElse) {
    EXPECT_EQ(KavelyUrlRoute::parse("kavely://open/settings")->section, "settings");
    EXPECT_EQ(KavelyUrlRoute::parse("KAVELY://open/home/?from=mail#top")->section, "home");
    for (const std::string& bad : std::vector<std::string>{
             "", "kavely://", "kavely://open/team", "kavely://open/settings/../../etc", "https://open/home",
             "kavely:/open/home", "kavely://open/homex", "kavely://open/home" + std::string(3000, '/')}) {
        EXPECT_FALSE(KavelyUrlRoute::parse(bad)) << bad;
    }
}

} // namespace
} // namespace kavelo
