#include "helpers/ChildProcess.h"

#include "core/support/CoreJSON.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <set>
#include <unistd.h>

using namespace kavelo;
using namespace std::chrono_literals;

namespace {

// kavelo-cli as people and scripts run it: a separate process in the mock world, read through its
// JSON lines. Each test has a data directory of its own.
class KaveloCliTest : public ::testing::Test {
  protected:
    KaveloCliTest() {
        static int counter = 0;
        home_ = std::filesystem::temp_directory_path() /
                ("kavelo-cli-test-" + std::to_string(::getpid()) + "-" + std::to_string(++counter));
        std::filesystem::remove_all(home_);
        std::filesystem::create_directories(home_);
    }
    ~KaveloCliTest() override { std::filesystem::remove_all(home_); }

    std::unique_ptr<ChildProcess> run(const std::vector<std::string>& args, const std::string& input = {}) {
        return std::make_unique<ChildProcess>(
            KAVELO_CLI_BINARY, args,
            std::map<std::string, std::string>{{"KAVELO_BACKEND", "mock"},
                                               {"KAVELO_RECORDER", "mock"},
                                               {"KAVELO_INFO_FILE", ""},
                                               {"XDG_DATA_HOME", home_.string()}},
            input);
    }

    // Every JSON line until the end of output, then the exit status.
    struct Run {
        std::vector<Json> events;
        int status = -1;
        std::string errors;

        std::vector<std::string> phases() const {
            std::vector<std::string> out;
            for (const auto& e : events) {
                if (e["event"] == "phase") {
                    out.push_back(e["phase"]);
                }
            }
            return out;
        }
        std::vector<int> sequencesOf(const std::string& event, const std::string& kind = {}) const {
            std::vector<int> out;
            for (const auto& e : events) {
                if (e["event"] == event && (kind.empty() || e.value("kind", "") == kind) &&
                    e.contains("sequence")) {
                    out.push_back(e["sequence"]);
                }
            }
            return out;
        }
        Json last(const std::string& event) const {
            for (auto it = events.rbegin(); it != events.rend(); ++it) {
                if ((*it)["event"] == event) {
                    return *it;
                }
            }
            return {};
        }
    };

    static Json parse(const std::string& line) {
        try {
            return Json::parse(line);
        } catch (const std::exception&) {
            ADD_FAILURE() << "not a JSON line: " << line;
            return Json::object();
        }
    }

    static Run finish(ChildProcess& child, std::vector<Json> events = {}) {
        Run result;
        result.events = std::move(events);
        while (auto line = child.readLine(60s)) {
            result.events.push_back(parse(*line));
        }
        result.status = child.wait(30s);
        result.errors = child.errorOutput();
        return result;
    }

    static std::vector<int> oneTo(int last) {
        std::vector<int> out;
        for (int s = 1; s <= last; ++s) {
            out.push_back(s);
        }
        return out;
    }

    static bool inOrder(const std::vector<std::string>& seen, const std::vector<std::string>& wanted) {
        auto at = seen.begin();
        for (const auto& phase : wanted) {
            at = std::find(at, seen.end(), phase);
            if (at == seen.end()) {
                return false;
            }
            ++at;
        }
        return true;
    }

    std::filesystem::path home_;
};

TEST_F(KaveloCliTest, APausedRecordingNumbersItsChunksWithoutGapCountsThePauseAndReachesSuccess) {
    auto child = run({"record", "--json", "--meeting", "Weekstart", "--duration", "10", "--pause-at", "3",
                      "--resume-at", "5", "--speakers", "Anne, Bram", "--recipients", "bram@example.nl"});
    const Run result = finish(*child);
    ASSERT_EQ(result.status, 0) << result.errors;

    EXPECT_TRUE(inOrder(result.phases(), {"recording", "paused_user", "resuming", "recording", "stop_confirm",
                                          "stopping_native_recorder", "processing_mapping", "speaker_review",
                                          "share_review", "waiting_for_uploads", "finalizing", "success"}))
        << CoreJSON::encode(result.phases());

    const Json done = result.last("done");
    ASSERT_TRUE(done.is_object());
    EXPECT_EQ(done["phase"], "success");
    const int last = done["lastSequence"];
    EXPECT_GE(last, 6) << "about eight seconds of recording at one chunk a second";
    EXPECT_EQ(result.sequencesOf("chunk"), oneTo(last)) << "chunks numbered from 1 without gap or repeat";
    auto uploaded = result.sequencesOf("upload", "uploaded");
    std::sort(uploaded.begin(), uploaded.end());
    EXPECT_EQ(uploaded, oneTo(last)) << "every chunk uploaded exactly once";

    const double pausedMs = done["totalPausedMs"];
    EXPECT_GT(pausedMs, 1700);
    EXPECT_LT(pausedMs, 2600);

    // Nothing is cut while paused. A chunk that was under way when the pause came may still be told
    // after the phase; a two-second pause at a chunk a second would show two or more if the pause were
    // ignored.
    bool paused = false;
    int cutWhilePaused = 0;
    for (const auto& e : result.events) {
        if (e["event"] == "phase") {
            paused = e["phase"] == "paused_user";
        }
        cutWhilePaused += paused && e["event"] == "chunk" ? 1 : 0;
    }
    EXPECT_LE(cutWhilePaused, 1);
    const Json success = result.last("success");
    EXPECT_EQ(success["meetingName"], "Weekstart");
    EXPECT_EQ(success["recipients"], 1);
}

TEST_F(KaveloCliTest, CtrlCStopsTheRecordingCleanlyAndEveryChunkReachesTheServer) {
    auto child = run({"record", "--json", "--meeting", "Interrupted"});
    std::vector<Json> events;
    int chunks = 0;
    while (chunks < 3) {
        auto line = child->readLine(30s);
        ASSERT_TRUE(line.has_value()) << "no third chunk; errors: " << child->errorOutput();
        events.push_back(parse(*line));
        if (events.back()["event"] == "chunk") {
            ++chunks;
        }
    }
    child->signal(SIGINT);
    const Run result = finish(*child, std::move(events));
    ASSERT_EQ(result.status, 0) << result.errors;
    EXPECT_TRUE(
        inOrder(result.phases(), {"recording", "stop_confirm", "stopping_native_recorder", "success"}));
    const int last = result.last("done")["lastSequence"];
    EXPECT_GE(last, 3);
    EXPECT_EQ(result.sequencesOf("chunk"), oneTo(last));
    auto uploaded = result.sequencesOf("upload", "uploaded");
    std::sort(uploaded.begin(), uploaded.end());
    EXPECT_EQ(uploaded, oneTo(last));

    // Nothing is left behind for a recovery.
    auto status = run({"status", "--json"});
    const Run state = finish(*status);
    ASSERT_EQ(state.status, 0) << state.errors;
    EXPECT_TRUE(state.last("pending_recording")["recordingId"].is_null());
    EXPECT_FALSE(state.last("stored_chunks").is_object());
}

TEST_F(KaveloCliTest, MistakesOnTheCommandLineAreRefusedWithAReasonAndHelpTellsTheOptions) {
    auto half = run({"record", "--pause-at", "3"});
    EXPECT_EQ(half->wait(30s), 2);
    EXPECT_NE(half->errorOutput().find("--pause-at and --resume-at go together"), std::string::npos);

    auto unknown = run({"record", "--loudness", "11"});
    EXPECT_EQ(unknown->wait(30s), 2);
    EXPECT_NE(unknown->errorOutput().find("--loudness"), std::string::npos);

    auto help = run({"record", "--help"});
    std::string text;
    while (auto line = help->readLine(30s)) {
        text += *line + "\n";
    }
    EXPECT_EQ(help->wait(30s), 0);
    for (const char* option : {"--pause-at", "--system-audio", "--recipients", "--json", "--session-file"}) {
        EXPECT_NE(text.find(option), std::string::npos) << option;
    }

    // Without a terminal and without a password on standard input, nobody is signed in.
    auto login = run({"login", "--email", "demo@kavely.nl"});
    EXPECT_EQ(login->wait(30s), 2);
    auto wrong = run({"login", "--email", "demo@kavely.nl"}, "not-the-password\n");
    EXPECT_EQ(wrong->wait(30s), 1);
    auto right = run({"login", "--email", "demo@kavely.nl"}, "kavely24\n");
    EXPECT_EQ(right->wait(30s), 0) << right->errorOutput();
}

} // namespace
