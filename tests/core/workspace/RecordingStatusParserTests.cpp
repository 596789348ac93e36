#include "core/workspace/RecordingStatusParser.h"

#include <gtest/gtest.h>

#include <string>

using namespace kavelo;

namespace {

std::optional<RecordingStatus> parseText(const std::string& text) {
    return RecordingStatusParser::parse(bytesFromString(text));
}

std::optional<RecordingStatusPhase> phaseOf(const std::string& text) {
    auto status = parseText(text);
    return status ? std::optional(status->phase) : std::nullopt;
}

// A row wrapped in "data" `levels` times.
std::string wrapped(int levels, const std::string& row) {
    std::string text = row;
    for (int i = 0; i < levels; ++i) {
        text = "{\"data\":" + text + "}";
    }
    return text;
}

} // namespace

TEST(RecordingStatusParserTest, FindsTheRowWhateverTheShapeOfTheAnswer) {
    // A delivery date outweighs a phase word nobody knows.
    auto delivered = parseText(R"({"phase":"archived-v2","delivered_at":"2026-03-01T10:15:30.250Z"})");
    ASSERT_TRUE(delivered);
    EXPECT_EQ(delivered->phase, RecordingStatusPhase::delivered);
    EXPECT_EQ(delivered->deliveredAt, CoreJSON::parseDate("2026-03-01T10:15:30.250Z"));

    // Nested wrappers and JSON text inside a string.
    EXPECT_EQ(phaseOf(R"({"data": {"status": "[{\"phase\":\"sent\"}]"}})"), RecordingStatusPhase::delivered);
    EXPECT_EQ(phaseOf(R"({"result": [{"phase": " Processing "}]})"), RecordingStatusPhase::transcribing);
    EXPECT_EQ(phaseOf(R"("{\"phase\":\"EMAILING\"}")"), RecordingStatusPhase::generating);

    // "status" that holds nothing usable gives way to "data".
    EXPECT_EQ(phaseOf(R"({"status": "queued", "data": {"phase": "completed"}})"),
              RecordingStatusPhase::generating);

    // The other date keys, in their order, with or without fractions.
    auto camel = parseText(R"({"deliveredAt":"2026-03-01T10:15:30Z","automation_confirmed_at":"x"})");
    ASSERT_TRUE(camel);
    EXPECT_EQ(camel->deliveredAt, CoreJSON::parseDate("2026-03-01T10:15:30Z"));
    auto confirmed = parseText(R"({"automation_confirmed_at":"2026-03-02T08:00:00+01:00"})");
    ASSERT_TRUE(confirmed);
    EXPECT_EQ(confirmed->phase, RecordingStatusPhase::delivered);
    EXPECT_EQ(confirmed->deliveredAt, CoreJSON::parseDate("2026-03-02T07:00:00Z"));

    // Nothing that looks like a row.
    EXPECT_FALSE(parseText(R"({"phase": "paused"})"));
    EXPECT_FALSE(parseText(R"({"phase": 3})"));
    EXPECT_FALSE(parseText(R"({"status": "not json"})"));
    EXPECT_FALSE(parseText("[]"));
    EXPECT_FALSE(parseText("null"));
}

TEST(RecordingStatusParserTest, ReadsPhaseWordsLooselyAndLetsTheMostAdvancedRowWin) {
    EXPECT_EQ(RecordingStatusParser::phaseFromText("\tSENT\n"), RecordingStatusPhase::delivered);
    EXPECT_FALSE(RecordingStatusParser::phaseFromText("sent later"));

    EXPECT_EQ(phaseOf(R"([{"phase":"recording"},{"phase":"completed"},{"phase":"processing"}])"),
              RecordingStatusPhase::generating);
    // A failure counts only when no other row says anything.
    EXPECT_EQ(phaseOf(R"([{"phase":"failed"},{"phase":"recording"}])"), RecordingStatusPhase::recording);
    EXPECT_EQ(phaseOf(R"([{"phase":"failed"},{"phase":"nonsense"}])"), RecordingStatusPhase::failed);
    // Between equal ranks the first row wins.
    auto first =
        parseText(R"([{"phase":"sent","recipient_count":2},{"phase":"emailed","recipient_count":5}])");
    ASSERT_TRUE(first);
    EXPECT_EQ(first->recipientCount, 2);
}

TEST(RecordingStatusParserTest, ReadsCountsAndSlownessDefensively) {
    auto count = [](const std::string& value) {
        auto status = parseText(R"({"phase":"sent","recipient_count":)" + value + "}");
        return status ? status->recipientCount : std::nullopt;
    };
    EXPECT_EQ(count("4"), 4);
    EXPECT_EQ(count("-3"), 0);
    EXPECT_EQ(count("4.9"), 4);
    EXPECT_EQ(count("18446744073709551615"), RecordingStatusParser::maxRecipientCount);
    EXPECT_EQ(count("-9223372036854775808"), 0);
    EXPECT_EQ(count("1e300"), RecordingStatusParser::maxRecipientCount);
    EXPECT_EQ(count("\"4\""), std::nullopt);
    auto camel = parseText(R"({"phase":"sent","recipientCount":7})");
    ASSERT_TRUE(camel);
    EXPECT_EQ(camel->recipientCount, 7);

    auto slow = parseText(R"([{"phase":"processing","slow":true}])");
    ASSERT_TRUE(slow);
    EXPECT_TRUE(slow->slow);
    auto notAFlag = parseText(R"([{"phase":"processing","slow":"yes"}])");
    ASSERT_TRUE(notAFlag);
    EXPECT_FALSE(notAFlag->slow);
}

TEST(RecordingStatusParserTest, RefusesOrCutsHostileAnswers) {
    // Too large, even when it would parse.
    std::string big =
        R"({"phase":"sent","pad":")" + std::string(RecordingStatusParser::maxAnswerBytes, 'x') + "\"}";
    EXPECT_FALSE(parseText(big));
    EXPECT_FALSE(parseText("{\"phase\":"));
    EXPECT_FALSE(parseText(std::string("\xff\xfe{}", 4)));

    // Nesting: the deepest row still found, one level more is not searched.
    EXPECT_EQ(phaseOf(wrapped(RecordingStatusParser::maxNesting - 1, R"({"phase":"sent"})")),
              RecordingStatusPhase::delivered);
    EXPECT_FALSE(parseText(wrapped(RecordingStatusParser::maxNesting, R"({"phase":"sent"})")));
    // Very deep arrays do not exhaust the stack.
    std::string deep(100000, '[');
    deep += std::string(100000, ']');
    EXPECT_FALSE(parseText(deep));
    // JSON text inside JSON text inside ... counts each level.
    std::string embedded = R"({"phase":"sent"})";
    for (int i = 0; i < 20; ++i) {
        embedded = Json(embedded).dump();
    }
    EXPECT_FALSE(parseText(embedded));

    // Rows beyond the bound are not looked at, so a late "sent" does not count.
    std::string rows = "[";
    for (std::size_t i = 0; i < RecordingStatusParser::maxRows; ++i) {
        rows += R"({"phase":"processing"},)";
    }
    rows += R"({"phase":"sent"}])";
    EXPECT_EQ(phaseOf(rows), RecordingStatusPhase::transcribing);
    EXPECT_EQ(RecordingStatusParser::normalize(CoreJSON::decode(rows)).size(),
              RecordingStatusParser::maxRows);

    // A date text that is absurdly long is no date.
    auto longDate = parseText(R"({"phase":"processing","delivered_at":"2026-03-01T10:15:30)" +
                              std::string(200, '0') + R"(Z"})");
    ASSERT_TRUE(longDate);
    EXPECT_EQ(longDate->phase, RecordingStatusPhase::transcribing);
}
