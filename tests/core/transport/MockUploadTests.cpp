#include "core/backend/APIError.h"
#include "core/mock/MockSignedURLProvider.h"

#include <gtest/gtest.h>

using namespace kavelo;

TEST(MockSignedURLProviderTest, FailsAsToldThenHandsOutOneStorageURLPerSequence) {
    MockSignedURLProvider provider;
    provider.setFailuresBeforeSuccess(2);
    provider.setFailStatus(403);
    for (int i = 0; i < 2; ++i) {
        try {
            (void)provider.fetchSignedURLs("rec/a:b", "secret", 1, 3);
            FAIL() << "call " << i << " should fail";
        } catch (const APIError& e) {
            EXPECT_EQ(e, APIError::http(403, std::nullopt, "mock url fetch failure"));
        }
    }
    auto urls = provider.fetchSignedURLs("rec/a:b", "secret", 7, 3);
    ASSERT_EQ(urls.size(), 3u);
    EXPECT_EQ(urls[0], (SignedURL{7, "https://mock-storage.kavely.test/upload/rec_a_b/7"}));
    EXPECT_EQ(urls[2].sequence, 9);
    EXPECT_TRUE(provider.fetchSignedURLs("rec", "secret", 1, 0).empty());
}
