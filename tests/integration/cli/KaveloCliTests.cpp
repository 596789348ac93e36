#include "helpers/ChildProcess.h"
#include "helpers/DevServerProcess.h"
#include "helpers/PrivateAudioDaemon.h"

#include "core/support/CoreJSON.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <pty.h>
#include <set>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
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

    // The mock world, spoken in English; overrides change or (with an empty value) remove variables.
    std::unique_ptr<ChildProcess> run(const std::vector<std::string>& args, const std::string& input = {},
                                      const std::map<std::string, std::string>& overrides = {}) {
        std::map<std::string, std::string> environment{
            {"KAVELO_BACKEND", "mock"}, {"KAVELO_RECORDER", "mock"},
            {"KAVELO_INFO_FILE", ""},   {"XDG_DATA_HOME", home_.string()},
            {"LANG", "C.UTF-8"},        {"LC_ALL", ""},
            {"LC_MESSAGES", ""},        {"LANGUAGE", ""}};
        for (const auto& [name, value] : overrides) {
            environment[name] = value;
        }
        return std::make_unique<ChildProcess>(KAVELO_CLI_BINARY, args, environment, input);
    }

    // Reads JSON lines until one satisfies the test; fails when the output ends first.
    static bool readUntil(ChildProcess& child, std::vector<Json>& events,
                          const std::function<bool(const Json&)>& wanted, std::chrono::seconds limit = 30s) {
        while (auto line = child.readLine(limit)) {
            events.push_back(parse(*line));
            if (wanted(events.back())) {
                return true;
            }
        }
        return false;
    }
    static std::function<bool(const Json&)> isEvent(const std::string& name, const std::string& key = {},
                                                    const std::string& value = {}) {
        return [=](const Json& e) {
            return e.value("event", "") == name && (key.empty() || e.value(key, "") == value);
        };
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
        for (const auto& line : child.remainingLines()) {
            result.events.push_back(parse(line));
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

TEST_F(KaveloCliTest, CtrlCOnceStopsCleanlyTwiceLeavesTheRecordingForRecoverAndAClosedPipeKillsNothing) {
    // Once: the recording stops and travels the rest of the road; nothing is left behind.
    {
        auto child = run({"record", "--json", "--meeting", "Interrupted"});
        std::vector<Json> events;
        for (int chunks = 0; chunks < 3; ++chunks) {
            ASSERT_TRUE(readUntil(*child, events, isEvent("chunk"))) << child->errorOutput();
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

        auto status = run({"status", "--json"});
        const Run state = finish(*status);
        ASSERT_EQ(state.status, 0) << state.errors;
        EXPECT_TRUE(state.last("pending_recording")["recordingId"].is_null());
        EXPECT_FALSE(state.last("stored_chunks").is_object());
    }
    // Twice: the second stops the waiting after the stop; the recording stays here with its record, and
    // the exit status says "kept, not sent".
    {
        auto child = run({"record", "--json", "--meeting", "Impatient"});
        std::vector<Json> events;
        ASSERT_TRUE(readUntil(*child, events, isEvent("chunk"))) << child->errorOutput();
        child->signal(SIGINT);
        ASSERT_TRUE(readUntil(*child, events, isEvent("interrupt", "action", "stop")))
            << child->errorOutput();
        child->signal(SIGINT);
        const Run result = finish(*child, std::move(events));
        EXPECT_EQ(result.status, 3) << result.errors;
        EXPECT_TRUE(result.last("interrupt")["action"] == "abandon");
        EXPECT_NE(result.last("done").value("reason", "").find("kavelo-cli recover"), std::string::npos);
        EXPECT_FALSE(result.last("success").is_object());

        auto status = run({"status", "--json"});
        const Run state = finish(*status);
        ASSERT_EQ(state.status, 0) << state.errors;
        EXPECT_EQ(state.last("pending_recording")["recordingId"], result.last("done")["recordingId"]);
        std::filesystem::remove_all(home_ / "Kavely");
    }
    // A reader that goes away must not take the recording with it: SIGPIPE is ignored and the road ends.
    {
        auto child = std::make_unique<ChildProcess>(
            "/bin/bash",
            std::vector<std::string>{"-c",
                                     std::string("\"$0\" record --duration 3 | head -n 1 >/dev/null; "
                                                 "echo \"status ${PIPESTATUS[0]}\""),
                                     KAVELO_CLI_BINARY},
            std::map<std::string, std::string>{{"KAVELO_BACKEND", "mock"},
                                               {"KAVELO_RECORDER", "mock"},
                                               {"KAVELO_INFO_FILE", ""},
                                               {"XDG_DATA_HOME", home_.string()}});
        std::string output;
        while (auto line = child->readLine(60s)) {
            output += *line + "\n";
        }
        EXPECT_EQ(child->wait(30s), 0);
        EXPECT_EQ(output, "status 0\n") << child->errorOutput();
    }
}

TEST_F(KaveloCliTest, ExitStatusesAndUsageTellMistakesApartFromFailuresAndSpeakTheUsersLanguage) {
    auto bare = run({});
    std::string out;
    while (auto line = bare->readLine(30s)) {
        out += *line;
    }
    EXPECT_EQ(bare->wait(30s), 2);
    EXPECT_TRUE(out.empty()) << "usage belongs on standard error";
    EXPECT_NE(bare->errorOutput().find("Exit status"), std::string::npos);

    auto half = run({"record", "--pause-at", "3"});
    EXPECT_EQ(half->wait(30s), 2);
    EXPECT_NE(half->errorOutput().find("--pause-at and --resume-at go together"), std::string::npos);
    auto unknown = run({"record", "--loudness", "11"});
    EXPECT_EQ(unknown->wait(30s), 2);
    EXPECT_NE(unknown->errorOutput().find("unknown option '--loudness'"), std::string::npos);
    auto valuedSwitch = run({"status", "--json=1"});
    EXPECT_EQ(valuedSwitch->wait(30s), 2);
    EXPECT_EQ(valuedSwitch->errorOutput().find("unknown option"), std::string::npos)
        << valuedSwitch->errorOutput();
    EXPECT_NE(valuedSwitch->errorOutput().find("--json is a switch"), std::string::npos);

    auto help = run({"record", "--help"});
    std::string text;
    while (auto line = help->readLine(30s)) {
        text += *line + "\n";
    }
    EXPECT_EQ(help->wait(30s), 0);
    for (const char* option : {"--pause-at", "--system-audio", "--recipients", "--json", "--session-file",
                               "--keep-audio", "Exit status"}) {
        EXPECT_NE(text.find(option), std::string::npos) << option;
    }

    // Without a terminal and without a password on standard input, nothing is signed in: a usage mistake.
    auto login = run({"login", "--email", "demo@kavely.nl"});
    EXPECT_EQ(login->wait(30s), 2);
    auto wrong = run({"login", "--email", "demo@kavely.nl"}, "not-the-password\n");
    EXPECT_EQ(wrong->wait(30s), 1);
    EXPECT_EQ(wrong->errorOutput().find("invalidCredentials"), std::string::npos) << wrong->errorOutput();
    EXPECT_NE(wrong->errorOutput().find("password is wrong"), std::string::npos) << wrong->errorOutput();
    auto dutch = run({"login", "--email", "demo@kavely.nl"}, "not-the-password\n", {{"LANG", "nl_NL.UTF-8"}});
    EXPECT_EQ(dutch->wait(30s), 1);
    EXPECT_NE(dutch->errorOutput().find("wachtwoord klopt niet"), std::string::npos) << dutch->errorOutput();
    auto right = run({"login", "--email", "demo@kavely.nl"}, "kavely24\n");
    EXPECT_EQ(right->wait(30s), 0) << right->errorOutput();

    // A Dutch user's road is told in Dutch from the first line to the last.
    auto road = run({"record", "--duration", "2"}, {}, {{"LANG", "nl_NL.UTF-8"}});
    std::string told;
    while (auto line = road->readLine(60s)) {
        told += *line + "\n";
    }
    EXPECT_EQ(road->wait(30s), 0) << road->errorOutput();
    EXPECT_NE(told.find("Verstuurd: "), std::string::npos) << told;
    for (const char* english :
         {"Signed in", "report for", "Speakers found", "Report goes to", "phase:", "data in"}) {
        EXPECT_EQ(told.find(english), std::string::npos) << english << " in:\n" << told;
    }
    // A data directory that cannot hold a recording is reported, not passed over.
    std::ofstream(home_ / "blocked") << "a file where the data directory should be";
    auto status = run({"status"}, {}, {{"XDG_DATA_HOME", (home_ / "blocked").string()}});
    EXPECT_EQ(status->wait(30s), 1);
    EXPECT_NE(status->errorOutput().find("cannot be used"), std::string::npos) << status->errorOutput();
}

TEST_F(KaveloCliTest, ABrokenInfoFileOrALiveWorldWithoutBackendStopsBeforeAnythingIsRecorded) {
    const auto info = home_ / "info.json";
    std::ofstream(info) << "{\"SUPABASE_URL\": ";
    const auto versionOnly = home_ / "version-only.json";
    std::ofstream(versionOnly) << "{\"CFBundleShortVersionString\": \"2.0.0\"}";
    const std::vector<std::pair<std::map<std::string, std::string>, std::string>> worlds{
        {{{"KAVELO_BACKEND", ""},
          {"KAVELO_RECORDER", ""},
          {"KAVELO_INFO_FILE", (home_ / "absent.json").string()}},
         (home_ / "absent.json").string() + ", which cannot be read"},
        {{{"KAVELO_BACKEND", "live"}, {"KAVELO_RECORDER", ""}, {"KAVELO_INFO_FILE", info.string()}},
         info.string() + ", which is not a JSON object"},
        {{{"KAVELO_BACKEND", "live"}, {"KAVELO_RECORDER", ""}, {"KAVELO_INFO_FILE", versionOnly.string()}},
         "no backend to talk to"},
        {{{"KAVELO_BACKEND", "mokc"}}, "KAVELO_BACKEND is 'mokc'"},
    };
    for (const auto& [overrides, reason] : worlds) {
        auto child = run({"record", "--json", "--duration", "2"}, {}, overrides);
        std::vector<std::string> lines;
        while (auto line = child->readLine(30s)) {
            lines.push_back(*line);
        }
        EXPECT_EQ(child->wait(30s), 1) << reason;
        EXPECT_TRUE(lines.empty()) << reason << ": " << lines.front();
        EXPECT_NE(child->errorOutput().find(reason), std::string::npos) << child->errorOutput();
        EXPECT_FALSE(std::filesystem::exists(home_ / "Kavely")) << "nothing may be set up for a recording";
    }
    // A named info file that is missing is a mistake in the mock world too: someone meant to use it.
    auto mock = run({"status", "--json"}, {}, {{"KAVELO_INFO_FILE", (home_ / "absent.json").string()}});
    EXPECT_EQ(mock->wait(30s), 1);
}

TEST_F(KaveloCliTest, ASessionFileThatIsAFolderOrReadableByOthersIsRefusedAndAFailedSaveIsToldTrue) {
    const auto folder = home_ / "sessions";
    std::filesystem::create_directories(folder);
    const auto shared = home_ / "shared-session.json";
    std::ofstream(shared) << "{}";
    ::chmod(shared.c_str(), 0644);
    const auto blocker = home_ / "plain-file";
    std::ofstream(blocker) << "not a folder";
    const std::vector<std::pair<std::string, std::string>> cases{
        {folder.string(), "is a folder"},
        {shared.string(), "chmod 600 " + shared.string()},
    };
    for (const auto& [path, reason] : cases) {
        auto child = run({"login", "--email", "demo@kavely.nl", "--session-file", path}, "kavely24\n");
        EXPECT_EQ(child->wait(30s), 1) << path;
        EXPECT_NE(child->errorOutput().find(reason), std::string::npos) << child->errorOutput();
        EXPECT_EQ(child->errorOutput().find("basic_"), std::string::npos) << "no raw stream error";
    }
    if (::geteuid() == 0) {
        const auto foreign = home_ / "foreign-session.json";
        std::ofstream(foreign) << "{}";
        ::chmod(foreign.c_str(), 0600);
        ASSERT_EQ(::chown(foreign.c_str(), 65534, 65534), 0);
        auto child = run({"whoami", "--session-file", foreign.string()});
        EXPECT_EQ(child->wait(30s), 1);
        EXPECT_NE(child->errorOutput().find("belongs to another user"), std::string::npos)
            << child->errorOutput();
    }
    // A file under a plain file cannot be written: the sign-in worked, the keeping did not, and both are
    // said.
    const auto unwritable = (blocker / "session.json").string();
    auto login = run({"login", "--email", "demo@kavely.nl", "--session-file", unwritable}, "kavely24\n");
    std::string out;
    while (auto line = login->readLine(30s)) {
        out += *line + "\n";
    }
    EXPECT_EQ(login->wait(30s), 1);
    EXPECT_EQ(out.find("Session kept"), std::string::npos) << out;
    EXPECT_NE(login->errorOutput().find("could not be saved in " + unwritable), std::string::npos)
        << login->errorOutput();
}

// At a terminal the password is typed with the echo off; a Ctrl-C there must hand the terminal back
// with its echo, or the user types blind afterwards.
TEST_F(KaveloCliTest, ACtrlCAtThePasswordPromptGivesTheTerminalItsEchoBack) {
    int terminal = -1;
    const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, nullptr);
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        ::setenv("KAVELO_BACKEND", "mock", 1);
        ::setenv("XDG_DATA_HOME", home_.c_str(), 1);
        ::setenv("LANG", "C.UTF-8", 1);
        ::unsetenv("KAVELO_INFO_FILE");
        ::execl(KAVELO_CLI_BINARY, "kavelo-cli", "login", "--email", "demo@kavely.nl",
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    std::string seen;
    termios settings{};
    for (int i = 0; i < 300 && seen.find("Password: ") == std::string::npos; ++i) {
        char buffer[256];
        const ssize_t n = ::read(terminal, buffer, sizeof buffer);
        if (n <= 0) {
            break;
        }
        seen.append(buffer, static_cast<std::size_t>(n));
    }
    ASSERT_NE(seen.find("Password: "), std::string::npos) << seen;
    // The prompt is written just before the echo goes off: wait until it is.
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(::tcgetattr(terminal, &settings), 0);
        if ((settings.c_lflag & ECHO) == 0) {
            break;
        }
        ::usleep(10'000);
    }
    ASSERT_EQ(settings.c_lflag & ECHO, 0u) << "the password would be shown";
    const char interrupt = '\x03';
    ASSERT_EQ(::write(terminal, &interrupt, 1), 1);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 130) << status;
    ASSERT_EQ(::tcgetattr(terminal, &settings), 0);
    EXPECT_NE(settings.c_lflag & ECHO, 0u);
    ::close(terminal);
}

// The live world against the stand-in, recording a tone from a private audio server. The recording ends
// by its duration, so the first Ctrl-C already gives up the wait for a slow finalize, and the next one
// ends the program at once while the request is still under way. The recording stays for `recover`.
TEST_F(KaveloCliTest, InTheLiveWorldCtrlCAfterTheStopGivesUpAndTheNextEndsAStuckFinalizeAtOnce) {
    std::unique_ptr<kavelo::testing::PrivateAudioDaemon> daemon;
    try {
        daemon = kavelo::testing::PrivateAudioDaemon::startPulseAudio();
    } catch (const std::exception& e) {
        GTEST_SKIP() << "pulseaudio did not start: " << e.what();
    }
    if (!daemon) {
        GTEST_SKIP() << "pulseaudio is not installed (scripts/install-deps.sh)";
    }
    auto tone = daemon->play("micfeed", daemon->tone(440, 30));
    DevServerProcess server({"--meeting-row-delay", "0", "--mapping-delay", "0.2", "--user",
                             "anna@example.test:geheim123", "--fault",
                             "finalize-recording:latency-ms=60000"});
    std::ofstream(home_ / "info.json") << CoreJSON::encode(
        Json{{"SUPABASE_URL", server.baseUrl()}, {"SUPABASE_ANON_KEY", server.anonKey()}});
    const std::map<std::string, std::string> live{{"KAVELO_BACKEND", ""},
                                                  {"KAVELO_RECORDER", ""},
                                                  {"KAVELO_INFO_FILE", (home_ / "info.json").string()}};
    const std::string session = (home_ / "session.json").string();
    auto login =
        run({"login", "--email", "anna@example.test", "--session-file", session}, "geheim123\n", live);
    ASSERT_EQ(login->wait(30s), 0) << login->errorOutput();

    auto child =
        run({"record", "--json", "--duration", "2", "--system-audio", "off", "--session-file", session}, {},
            live);
    std::vector<Json> events;
    ASSERT_TRUE(readUntil(*child, events, isEvent("phase", "phase", "finalizing"), 60s))
        << child->errorOutput();
    child->signal(SIGINT);
    ASSERT_TRUE(readUntil(*child, events, isEvent("interrupt", "action", "abandon"))) << child->errorOutput();
    child->signal(SIGINT);
    EXPECT_EQ(child->wait(10s), 130) << "the finalize request holds the road; the third Ctrl-C does not wait";

    auto status = run({"status", "--json"}, {}, live);
    const Run state = finish(*status);
    ASSERT_EQ(state.status, 0) << state.errors;
    EXPECT_FALSE(state.last("pending_recording")["recordingId"].is_null());
}

} // namespace
