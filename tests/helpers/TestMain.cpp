#include <gtest/gtest.h>

#include <csignal>

int main(int argc, char** argv) {
    // A peer that hangs up mid-transfer must not kill the test binary.
    std::signal(SIGPIPE, SIG_IGN);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
