#pragma once

#include "core/support/Bytes.h"
#include "core/support/CoreJSON.h"
#include "core/workspace/RecordingStatus.h"

#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

namespace kavelo {

// Reads the backend's answer about a recording. The answer has changed shape over the years: a row, an
// array of rows, rows wrapped in "status", "data" or "result", sometimes as JSON text inside a string,
// with snake_case or camelCase keys and several words for each phase. Whatever the shape, the most
// advanced row wins, and a failure counts only when no row says anything else.
//
// The answer is untrusted: its size, nesting and number of rows are bounded, and nothing here throws.
class RecordingStatusParser {
  public:
    static constexpr std::size_t maxAnswerBytes = 256 * 1024;
    static constexpr int maxNesting = 8;
    static constexpr std::size_t maxRows = 100;
    static constexpr int maxRecipientCount = 10000;

    // Absent for an answer that is too large, not JSON, or holds no row with a phase or delivery date.
    static std::optional<RecordingStatus> parse(const Bytes& data);

    // The row objects found in a value, in document order, at most maxRows of them.
    static std::vector<Json> normalize(const Json& value);
    // Absent for a row with neither a known phase nor a delivery date.
    static std::optional<RecordingStatus> parseRow(const Json& row);
    static std::optional<RecordingStatusPhase> phaseFromText(std::string_view text);

  private:
    static void collect(const Json& value, int depth, std::vector<Json>& rows);
};

} // namespace kavelo
