#include "core/recording/DiagnosticsCollector.h"
#include "core/support/ManualClock.h"

#include <gtest/gtest.h>

using namespace kavelo;

namespace {

const TimePoint kStart{std::chrono::seconds(1'700'000'000)};

} // namespace

TEST(DiagnosticsCollectorTest, KeepsTheNewestLinesAndCountsOnlyWhatIsHeld) {
    auto clock = std::make_shared<ManualClock>(kStart);
    DiagnosticsCollector diagnostics(clock, "linux", "1.2.3");
    std::vector<std::pair<LogLevel, std::string>> sunk;
    diagnostics.setSink([&](LogLevel level, const std::string& msg) { sunk.emplace_back(level, msg); });

    diagnostics.startSession("rec-1");
    EXPECT_TRUE(sunk.empty()) << "the session line goes to the array only";
    diagnostics.note(LogLevel::error, "first");
    diagnostics.note(LogLevel::warn, "second");
    for (int i = 0; i < 397; ++i) {
        diagnostics.note(LogLevel::info, "line " + std::to_string(i));
    }
    auto p = diagnostics.payload({});
    ASSERT_EQ(p.logs.size(), 400u);
    EXPECT_EQ(p.logs.front().msg, "session start platform=linux v=1.2.3");
    EXPECT_EQ(p.summary.errorCount, 1);
    EXPECT_EQ(p.summary.warnCount, 1);

    diagnostics.note(LogLevel::info, "one more"); // pushes the session line out
    diagnostics.note(LogLevel::info, "and one");  // pushes the error line out
    p = diagnostics.payload({});
    ASSERT_EQ(p.logs.size(), 400u);
    EXPECT_EQ(p.logs.front(), (DiagnosticsLogEntry{1'700'000'000'000.0, "warn", "second"}));
    EXPECT_EQ(p.logs.back().msg, "and one");
    EXPECT_EQ(p.summary.errorCount, 0);
    EXPECT_EQ(p.summary.warnCount, 1);
    EXPECT_EQ(sunk.size(), 401u);
    EXPECT_EQ(sunk.front(), std::make_pair(LogLevel::error, std::string("first")));
}

TEST(DiagnosticsCollectorTest, PayloadFoldsCountersArgumentsAndTime) {
    auto clock = std::make_shared<ManualClock>(kStart);
    DiagnosticsCollector diagnostics(clock, "linux", "1.0.0");
    diagnostics.chunkReceived();
    diagnostics.note(LogLevel::info, "before");
    clock->advance(5);
    diagnostics.startSession(std::nullopt);
    for (int i = 0; i < 3; ++i) {
        diagnostics.chunkReceived();
    }
    for (int i = 0; i < 12; ++i) {
        diagnostics.chunkUploaded();
    }
    diagnostics.setRecordingId("rec-9");
    clock->advance(2.5);

    auto p = diagnostics.payload({});
    EXPECT_EQ(p.receivedCount, 3);
    EXPECT_EQ(p.uploadedCount, 12);
    EXPECT_EQ(p.summary.chunksUploaded, 12);
    EXPECT_EQ(p.recordingId, "rec-9");
    EXPECT_EQ(p.sessionStart, 1'700'000'005'000.0);
    EXPECT_DOUBLE_EQ(p.summary.durationMs, 2500.0);
    EXPECT_EQ(p.logs.size(), 1u) << "startSession dropped the lines of the previous recording";

    DiagnosticsCollector::PayloadInput input;
    input.lastSequence = 40;
    input.failedChunks = {3, 9, 11};
    input.uploadedCount = 0;
    input.extraIsPaused = true;
    input.totalPausedMs = 1500;
    input.fatalErrorCode = "NATIVE_START_FAILED";
    input.fatalErrorMessage = "boom";
    input.recoveryMarker = "relaunch_active";
    p = diagnostics.payload(input);
    EXPECT_EQ(p.lastSequence, 40);
    EXPECT_EQ(p.uploadedCount, 0);
    EXPECT_EQ(p.summary.chunksUploaded, 0);
    EXPECT_EQ(p.summary.chunksFailed, 3);
    EXPECT_EQ(p.summary.chunksReceived, 3);
    EXPECT_EQ(p.failedChunks, (std::vector<int>{3, 9, 11}));
    EXPECT_EQ(p.isPaused, true);
    EXPECT_EQ(p.totalPausedMs, 1500.0);
    EXPECT_EQ(p.fatalErrorCode, "NATIVE_START_FAILED");
    EXPECT_EQ(p.fatalErrorMessage, "boom");
    EXPECT_EQ(p.recoveryMarker, "relaunch_active");
    EXPECT_EQ(p.platform, "linux");
}
