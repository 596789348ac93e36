#include "core/workspace/DashboardActivityCenter.h"

#include "core/support/AtomicFile.h"
#include "core/support/ManualClock.h"
#include "core/workspace/DashboardActivityFile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <set>
#include <stdexcept>
#include <thread>
#include <unistd.h>

using namespace kavelo;
namespace fs = std::filesystem;

namespace {

// Answers from a script per meeting id; an empty script or a scripted throw is a failing call.
class ScriptedProvider final : public RecordingStatusProviding {
  public:
    std::map<std::string, std::string> meetingsByRecording;
    std::map<std::string, std::deque<std::optional<RecordingStatus>>> answers;
    std::function<void(const std::string& meetingId)> duringFetch;
    std::vector<std::string> fetched;
    int resolveCalls = 0;

    std::optional<std::string> resolveMeetingId(const std::string& recordingId) override {
        ++resolveCalls;
        auto it = meetingsByRecording.find(recordingId);
        if (it == meetingsByRecording.end()) {
            return std::nullopt;
        }
        if (it->second == "throw") {
            throw std::runtime_error("offline");
        }
        return it->second;
    }
    std::optional<RecordingStatus> fetchStatus(const std::string& meetingId) override {
        fetched.push_back(meetingId);
        if (duringFetch) {
            duringFetch(meetingId);
        }
        auto& queue = answers[meetingId];
        if (queue.empty()) {
            throw std::runtime_error("no answer");
        }
        auto answer = queue.front();
        queue.pop_front();
        return answer;
    }
    void say(const std::string& meetingId, RecordingStatusPhase phase, bool slow = false,
             std::optional<TimePoint> deliveredAt = std::nullopt,
             std::optional<int> recipients = std::nullopt) {
        answers[meetingId].push_back(RecordingStatus{phase, deliveredAt, recipients, slow});
    }
};

class DashboardActivityCenterTest : public ::testing::Test {
  protected:
    static fs::path makeRoot() {
        std::string tmpl = (fs::temp_directory_path() / "kavelo-activity-XXXXXX").string();
        if (::mkdtemp(tmpl.data()) == nullptr) {
            throw std::runtime_error("no temporary directory");
        }
        return tmpl;
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(root, ec);
    }
    DashboardActivityCenter makeCenter() {
        return DashboardActivityCenter(root / "data", [clock = clock] { return clock->now(); });
    }
    void writeRaw(const std::string& userId, const std::string& text) {
        fs::create_directories(root / "data");
        std::ofstream(center.fileFor(userId), std::ios::binary | std::ios::trunc) << text;
    }
    std::string itemJson(int i, const std::string& phase = "submitted") {
        return R"({"id":"m)" + std::to_string(i) + R"(","recordingId":"r)" + std::to_string(i) +
               R"(","meetingName":"n","submittedAt":"2026-03-01T10:00:00Z","phase":")" + phase +
               R"(","slow":false,"updatedAt":"2026-03-01T10:00:00Z"})";
    }

    // Made before the center, which is built on it.
    fs::path root = makeRoot();
    std::shared_ptr<ManualClock> clock =
        std::make_shared<ManualClock>(TimePoint{std::chrono::seconds(1'772'360'000)});
    DashboardActivityCenter center = makeCenter();
    ScriptedProvider provider;
};

} // namespace

TEST_F(DashboardActivityCenterTest, QueueKeepsAFewNewestItemsPerUserInAFileThatSurvivesARestart) {
    for (int i = 1; i <= 4; ++i) {
        center.queue("u1", "rec-" + std::to_string(i), std::nullopt, "Meeting " + std::to_string(i));
        clock->advance(1);
    }
    auto items = center.items("u1");
    ASSERT_EQ(items.size(), 3u);
    EXPECT_EQ(items[0].recordingId, "rec-4");
    EXPECT_EQ(items[2].recordingId, "rec-2"); // the oldest fell off
    EXPECT_EQ(items[0].id, "rec-4");
    EXPECT_EQ(items[0].phase, DashboardActivityPhase::submitted);
    EXPECT_EQ(items[0].submittedAt, clock->now() - std::chrono::seconds(1));

    // Queueing again updates in place: new name, the meeting id once known, but the id stays.
    clock->advance(5);
    center.queue("u1", "rec-3", "meeting-3", "Renamed");
    items = center.items("u1");
    ASSERT_EQ(items.size(), 3u);
    EXPECT_EQ(items[1].recordingId, "rec-3");
    EXPECT_EQ(items[1].meetingName, "Renamed");
    EXPECT_EQ(items[1].meetingId, "meeting-3");
    EXPECT_EQ(items[1].id, "rec-3");
    EXPECT_EQ(items[1].updatedAt, clock->now());

    // A new center on the same folder, as after a restart, reads the same list; other users see nothing.
    EXPECT_EQ(makeCenter().items("u1"), items);
    EXPECT_TRUE(makeCenter().items("u2").empty());
    EXPECT_TRUE(center.items("").empty());
    EXPECT_TRUE(center.queue("", "rec-9", std::nullopt, "x").empty());
    EXPECT_EQ(center.queue("u1", "", std::nullopt, "x"), items);

    // The stored form: exactly the documented keys, absent optionals left out.
    auto stored = CoreJSON::decode(*readWholeFile(center.fileFor("u1")));
    ASSERT_TRUE(stored.is_array());
    std::set<std::string> keys;
    for (const auto& [key, value] : stored[1].items()) {
        keys.insert(key);
    }
    EXPECT_EQ(keys, (std::set<std::string>{"id", "meetingId", "meetingName", "phase", "recordingId", "slow",
                                           "submittedAt", "updatedAt"}));
    EXPECT_EQ(stored[1]["phase"], "submitted");
}

TEST_F(DashboardActivityCenterTest, QueueCutsNamesAndKeepsUserIdsInsideTheFolder) {
    center.queue("team/a/../b", "rec-1", "meet-1", "  " + std::string(170, 'x') + "\n");
    EXPECT_EQ(center.fileFor("team/a/../b").filename(), "dashboard-activity-team_a_.._b.json");
    EXPECT_TRUE(fs::exists(root / "data" / "dashboard-activity-team_a_.._b.json"));
    auto items = center.items("team/a/../b");
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items[0].meetingName, std::string(160, 'x'));
    EXPECT_EQ(items[0].id, "meet-1");

    // Characters, not bytes: a name of accented letters is cut between letters.
    std::string accented;
    for (int i = 0; i < 200; ++i) {
        accented += "e\xCC\x81"; // e + combining acute
    }
    center.queue("u1", "rec-2", std::nullopt, accented);
    EXPECT_EQ(center.items("u1")[0].meetingName.size(), 160u * 3);

    // An id that cannot name a file is no user at all.
    EXPECT_TRUE(center.queue(std::string(300, 'u'), "rec-3", std::nullopt, "x").empty());
}

TEST_F(DashboardActivityCenterTest, RefreshMovesItemsForwardOnlyAndKeepsTwoDelivered) {
    provider.meetingsByRecording = {{"rec-1", "m1"}};
    center.queue("u1", "rec-1", std::nullopt, "Weekstart");
    center.queue("u1", "rec-2", "m2", "Retro");

    provider.say("m1", RecordingStatusPhase::transcribing);
    provider.say("m2", RecordingStatusPhase::generating);
    clock->advance(5);
    auto items = center.refresh("u1", provider);
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[1].phase, DashboardActivityPhase::transcribing);
    EXPECT_EQ(items[1].meetingId, "m1"); // resolved and remembered
    EXPECT_EQ(items[1].id, "rec-1");
    EXPECT_EQ(items[0].phase, DashboardActivityPhase::generating);
    EXPECT_EQ(items[0].updatedAt, clock->now());

    // Backwards news is ignored; "recording" changes nothing.
    provider.say("m1", RecordingStatusPhase::recording);
    provider.say("m2", RecordingStatusPhase::transcribing);
    items = center.refresh("u1", provider);
    EXPECT_EQ(items[1].phase, DashboardActivityPhase::transcribing);
    EXPECT_EQ(items[0].phase, DashboardActivityPhase::generating);
    EXPECT_EQ(provider.resolveCalls, 1); // the meeting id is not asked for again

    // Delivered without a date: the time of the merge, and a later answer with no date keeps it.
    provider.say("m1", RecordingStatusPhase::delivered, false, std::nullopt, 3);
    clock->advance(10);
    const TimePoint mergedAt = clock->now();
    items = center.refresh("u1", provider);
    auto delivered =
        std::find_if(items.begin(), items.end(), [](auto& i) { return i.recordingId == "rec-1"; });
    ASSERT_NE(delivered, items.end());
    EXPECT_EQ(delivered->phase, DashboardActivityPhase::delivered);
    EXPECT_EQ(delivered->deliveredAt, mergedAt);
    EXPECT_EQ(delivered->recipientCount, 3);
    EXPECT_EQ(items.front().recordingId, "rec-1"); // its delivery makes it the newest

    // Delivered items are not polled any more; the date stays.
    clock->advance(10);
    provider.say("m2", RecordingStatusPhase::delivered, false, clock->now() - std::chrono::seconds(2));
    items = center.refresh("u1", provider);
    EXPECT_EQ(std::count(provider.fetched.begin(), provider.fetched.end(), "m1"), 3);
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[0].recordingId, "rec-2");
    EXPECT_EQ(items[0].deliveredAt, clock->now() - std::chrono::seconds(2));
    EXPECT_EQ(items[1].deliveredAt, mergedAt);

    // A third delivered one pushes the oldest delivered out.
    center.queue("u1", "rec-3", "m3", "Demo");
    provider.say("m3", RecordingStatusPhase::delivered);
    clock->advance(1);
    items = center.refresh("u1", provider);
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[0].recordingId, "rec-3");
    EXPECT_EQ(items[1].recordingId, "rec-2");

    // With nothing pending, the provider is not asked at all.
    const auto calls = provider.fetched.size();
    EXPECT_EQ(center.refresh("u1", provider), items);
    EXPECT_EQ(provider.fetched.size(), calls);
}

TEST_F(DashboardActivityCenterTest, AFailureIsBelievedOnlyAfterThreePollsInARow) {
    center.queue("u1", "rec-1", "m1", "Weekstart");
    provider.say("m1", RecordingStatusPhase::failed);
    provider.say("m1", RecordingStatusPhase::failed);
    provider.say("m1", RecordingStatusPhase::generating);
    provider.say("m1", RecordingStatusPhase::failed);
    provider.say("m1", RecordingStatusPhase::failed);
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(center.refresh("u1", provider).size(), 1u) << "poll " << i;
    }
    EXPECT_EQ(center.items("u1")[0].phase, DashboardActivityPhase::generating); // the counter was cleared
    EXPECT_EQ(center.refresh("u1", provider).size(), 1u);                       // only two in a row so far
    provider.say("m1", RecordingStatusPhase::failed);
    EXPECT_TRUE(center.refresh("u1", provider).empty());

    // A failing provider or an absent status leaves an item untouched.
    center.queue("u1", "rec-2", std::nullopt, "Retro");
    provider.meetingsByRecording = {{"rec-2", "throw"}};
    const auto before = center.items("u1");
    clock->advance(30);
    EXPECT_EQ(center.refresh("u1", provider), before);
    provider.meetingsByRecording = {{"rec-2", "m2"}};
    provider.answers["m2"].push_back(std::nullopt);
    EXPECT_EQ(center.refresh("u1", provider), before);
    EXPECT_EQ(center.refresh("u1", provider), before); // the provider throws: no answer scripted
}

TEST_F(DashboardActivityCenterTest, SlowCountsOnlyOnceAnItemIsTenMinutesOld) {
    center.queue("u1", "rec-1", "m1", "Weekstart");
    clock->advance(599);
    provider.say("m1", RecordingStatusPhase::transcribing, true);
    EXPECT_FALSE(center.refresh("u1", provider)[0].slow);
    clock->advance(1);
    provider.say("m1", RecordingStatusPhase::transcribing, true);
    EXPECT_TRUE(center.refresh("u1", provider)[0].slow);
    // A failed poll of an old item marks it slow whatever the answer says.
    provider.say("m1", RecordingStatusPhase::failed, false);
    auto items = center.refresh("u1", provider);
    EXPECT_TRUE(items[0].slow);
    EXPECT_EQ(items[0].phase, DashboardActivityPhase::transcribing);
}

TEST_F(DashboardActivityCenterTest, AQueueDuringTheNetworkCallsIsNotLost) {
    center.queue("u1", "rec-1", "m1", "Weekstart");
    provider.say("m1", RecordingStatusPhase::generating);
    // While the poll waits for the backend, another thread queues a recording. Were the lock held across
    // the call, that queue could not finish and the poll would give up waiting.
    std::promise<void> queued;
    auto queuedDone = queued.get_future();
    std::future_status waited = std::future_status::deferred;
    std::thread other;
    provider.duringFetch = [&](const std::string&) {
        other = std::thread([&] {
            center.queue("u1", "rec-2", std::nullopt, "Retro");
            queued.set_value();
        });
        waited = queuedDone.wait_for(std::chrono::seconds(10)); // a rendezvous, not a delay
    };
    clock->advance(0.0123456); // finer than the file keeps: what refresh returns is still what it stored
    auto items = center.refresh("u1", provider);
    other.join();
    EXPECT_EQ(waited, std::future_status::ready);
    EXPECT_EQ(items, center.items("u1"));
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[1].recordingId, "rec-1");
    EXPECT_EQ(items[1].phase, DashboardActivityPhase::generating);
    EXPECT_EQ(items[0].recordingId, "rec-2");
}

TEST_F(DashboardActivityCenterTest, DamagedOrHostileFilesCountAsEmptyAndAreReplaced) {
    for (const std::string& text : std::vector<std::string>{"", "not json", "{}", "[{\"id\":1}]",
                                                            "[" + itemJson(1, "sideways") + "]"}) {
        writeRaw("u1", text);
        EXPECT_TRUE(center.items("u1").empty()) << text;
    }
    // Too large: not read, even though it is a valid list.
    std::string padded = "[" + itemJson(1) + "]" + std::string(DashboardActivityFile::maxBytes, ' ');
    writeRaw("u1", padded);
    EXPECT_TRUE(center.items("u1").empty());
    // The next write replaces a damaged file.
    center.queue("u1", "rec-9", std::nullopt, "New");
    ASSERT_EQ(center.items("u1").size(), 1u);

    // Many entries: only the first ones are read, the rest never decoded (the bad last one does not spoil
    // it).
    std::string many = "[";
    for (std::size_t i = 0; i < DashboardActivityFile::maxEntries; ++i) {
        many += itemJson(static_cast<int>(i), i < 3 ? "delivered" : "generating") + ",";
    }
    many += "{\"broken\":true}]";
    auto decoded = DashboardActivityFile::decode(bytesFromString(many));
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->size(), DashboardActivityFile::maxEntries);
    writeRaw("u1", many);
    auto items = center.items("u1");
    EXPECT_EQ(std::count_if(items.begin(), items.end(),
                            [](auto& i) { return i.phase == DashboardActivityPhase::delivered; }),
              2);
    EXPECT_EQ(items.size(), 5u);

    // Values out of range are cut or refused one by one.
    auto item = Json::parse(itemJson(1));
    item["meetingName"] = std::string(500, 'n');
    item["recipientCount"] = -4;
    auto cut = DashboardActivityItem::fromJson(item);
    EXPECT_EQ(cut.meetingName.size(), 160u);
    EXPECT_EQ(cut.recipientCount, 0);
    item["recipientCount"] = 18446744073709551615ull;
    EXPECT_EQ(DashboardActivityItem::fromJson(item).recipientCount, DashboardActivityItem::maxRecipientCount);
    item["recordingId"] = std::string(DashboardActivityItem::maxIdBytes + 1, 'r');
    EXPECT_THROW(DashboardActivityItem::fromJson(item), DecodingError);
}
