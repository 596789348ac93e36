// The two readers of dashboard activity: the backend's status answer and the activity file read back from
// disk. The first byte picks one; the rest is the input. Neither may throw; what they give back keeps its
// bounds; an activity list that was read can be written and read back unchanged.
#include "core/workspace/DashboardActivityCenter.h"
#include "core/workspace/DashboardActivityFile.h"
#include "core/workspace/RecordingStatusParser.h"
#include "fuzz/FuzzInput.h"

#include "core/support/UnicodeText.h"

#include <cstdlib>

using namespace kavelo;

namespace {

void statusAnswer(const Bytes& bytes) {
    std::optional<RecordingStatus> status;
    try {
        status = RecordingStatusParser::parse(bytes);
    } catch (...) {
        std::abort(); // the parser never throws
    }
    if (!status) {
        return;
    }
    if (status->recipientCount &&
        (*status->recipientCount < 0 || *status->recipientCount > RecordingStatusParser::maxRecipientCount)) {
        std::abort();
    }
    if (status->deliveredAt && status->phase != RecordingStatusPhase::delivered) {
        std::abort(); // a delivery date always means delivered
    }
}

void activityFile(const Bytes& bytes) {
    std::optional<std::vector<DashboardActivityItem>> items;
    try {
        items = DashboardActivityFile::decode(bytes);
    } catch (...) {
        std::abort();
    }
    if (!items) {
        return;
    }
    if (items->size() > DashboardActivityFile::maxEntries) {
        std::abort();
    }
    for (const auto& item : *items) {
        if (UnicodeText::characterCount(item.meetingName) > DashboardActivityItem::maxMeetingNameCharacters ||
            item.recordingId.size() > DashboardActivityItem::maxIdBytes ||
            (item.recipientCount && *item.recipientCount < 0)) {
            std::abort();
        }
    }
    const auto kept = DashboardActivityCenter::retain(*items);
    if (kept.size() > DashboardActivityCenter::activeLimit + DashboardActivityCenter::deliveredLimit) {
        std::abort();
    }
    // Dates keep what their written form keeps; from the second writing on nothing changes.
    const auto written = DashboardActivityFile::decode(DashboardActivityFile::encode(kept));
    if (!written) {
        std::abort(); // what we read, we cannot write back
    }
    const auto again = DashboardActivityFile::decode(DashboardActivityFile::encode(*written));
    if (!again || !(*again == *written)) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::FuzzInput input(data, size);
    const bool file = (input.byte() & 1) != 0;
    const Bytes bytes = input.rest();
    if (file) {
        activityFile(bytes);
    } else {
        statusAnswer(bytes);
    }
    return 0;
}
