#pragma once

#include <array>
#include <string_view>

namespace kavelo {

// The four lines that the processing screen shows in turn between the stop and the speaker review.
enum class ProcessingLine : int { secured = 0, searching = 1, preparingList = 2, ready = 3 };

// All lines in the order in which the screen shows them.
inline constexpr std::array<ProcessingLine, 4> allProcessingLines{
    ProcessingLine::secured, ProcessingLine::searching, ProcessingLine::preparingList, ProcessingLine::ready};

constexpr std::string_view processingLineText(ProcessingLine line) {
    switch (line) {
    case ProcessingLine::secured:
        return "Opname veiliggesteld.";
    case ProcessingLine::searching:
        return "Alvast namen zoeken...";
    case ProcessingLine::preparingList:
        return "Lijst klaarzetten...";
    case ProcessingLine::ready:
        return "Lijst klaarzetten.";
    }
    return {};
}

// Only the last line carries the accent dot: the list is there.
constexpr bool showsAccentDot(ProcessingLine line) {
    return line == ProcessingLine::ready;
}

// The placeholder under the line while the list is not there yet.
inline constexpr std::string_view speakerSkeletonLine = "We kijken of we alvast namen herkennen...";

} // namespace kavelo
