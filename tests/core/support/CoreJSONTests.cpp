#include "core/support/CoreJSON.h"

#include <gtest/gtest.h>

using namespace kavelo;

TEST(CoreJSONTest, DatesOutsideTheClocksRangeAreNoDates) {
    // "Never expires" as some servers write it; converting it to the clock's nanoseconds overflowed.
    EXPECT_FALSE(CoreJSON::parseISO8601Plain("9999-12-31T23:59:59Z"));
    EXPECT_FALSE(CoreJSON::parseISO8601Fractional("2263-01-01T00:00:00.000Z"));
    EXPECT_FALSE(CoreJSON::parseISO8601Plain("0001-01-01T00:00:00Z"));
    EXPECT_THROW(CoreJSON::parseDate("9999-12-31T23:59:59.999Z"), DecodingError);
    // The edges of the range still read and write back.
    for (const char* text : {"1678-01-01T00:00:00Z", "2261-12-31T23:59:59Z"}) {
        auto date = CoreJSON::parseISO8601Plain(text);
        ASSERT_TRUE(date) << text;
        EXPECT_EQ(CoreJSON::formatDate(*date), text);
    }
}
