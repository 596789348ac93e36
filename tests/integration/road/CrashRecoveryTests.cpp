#include "StandInAdmin.h"
#include "helpers/ChildProcess.h"
#include "helpers/DevServerProcess.h"
#include "helpers/PrivateAudioDaemon.h"

#include "core/recording/FileRecoveryStore.h"
#include "core/support/AtomicFile.h"
#include "core/transport/AdtsFrames.h"
#include "core/transport/ChunkStore.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <thread>

using namespace kavelo;
using namespace kavelo::testing;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

#ifdef KAVELO_ROAD_SANITIZED
// Sanitized programs run several times slower: fewer trials keep the run within its budget.
constexpr int kDefaultTrials = 6;
#else
constexpr int kDefaultTrials = 20;
#endif
// KAVELO_CRASH_TRIALS asks for a longer campaign (50 in a row for a release).
int trialCount() {
    if (const char* text = std::getenv("KAVELO_CRASH_TRIALS")) {
        const int n = std::atoi(text);
        if (n > 0 && n <= 1000) {
            return n;
        }
    }
    return kDefaultTrials;
}
constexpr int kLanes = 3; // trials at once, each lane with a stand-in of its own
constexpr const char* kEmail = "anna@example.test";
constexpr const char* kPassword = "geheim123";
constexpr int kSlowUploadMs = 20000;
constexpr int kSlowFinalizeMs = 5000;
// What a kill may cost of the audio captured before it: the journal is synced about once a second; the
// rest is the margin of a loaded machine and of when the capture starts against the phase line.
constexpr double kMaxSecondsLost = 2.5;
constexpr double kSecondsPerFrame = 1024.0 / 48000.0; // one AAC frame at the recorder's rate

// Where in the road a trial pulls the plug.
enum class KillPoint { capturing, paused, processing, waiting, finalizing };
constexpr int kKillPoints = 5;

// Each kill point's name, and the phase line after which its kill is armed.
struct KillPointInfo {
    const char* name;
    const char* armingPhase;
};
constexpr KillPointInfo kKillPointInfo[kKillPoints] = {{"capturing", "recording"},
                                                       {"paused", "paused_user"},
                                                       {"processing", "processing_mapping"},
                                                       {"waiting for uploads", "waiting_for_uploads"},
                                                       {"finalizing", "finalizing"}};

const char* nameOf(KillPoint point) {
    return kKillPointInfo[static_cast<int>(point)].name;
}

std::string armingPhase(KillPoint point) {
    return kKillPointInfo[static_cast<int>(point)].armingPhase;
}

// The phases the process may be in when it dies.
bool landedIn(KillPoint point, const std::string& phase) {
    if (point == KillPoint::capturing) {
        return phase.rfind("recording", 0) == 0; // warnings while recording are still capture
    }
    return phase == armingPhase(point);
}

struct TrialPlan {
    int number = 0;
    KillPoint point = KillPoint::capturing;
    bool slowUploads = false;  // uploads take kSlowUploadMs until the kill, so chunks wait on disk
    bool slowFinalize = false; // the report request takes kSlowFinalizeMs, so the kill lands while it runs
    double duration = 25;
    std::optional<double> pauseAt;
    double killDelay = 0; // seconds after the arming phase line
};

struct TrialResult {
    TrialPlan plan;
    std::string recordingId;
    std::string phaseAtKill;
    std::vector<int> reportedChunks; // chunk lines the killed process printed
    std::vector<int> chunksOnDisk;   // chunk files left behind by the kill
    std::vector<int> onServer;       // after the recovery
    int recoveredLastSequence = -1;
    int lost = 0;                      // reported or left on disk, yet not on the server after the recovery
    bool nothingCut = false;           // killed before the first chunk and before its journal held audio
    std::vector<int> journals;         // journal files left behind by the kill
    std::optional<double> secondsLost; // capturing kills: capture time up to the kill less decoded audio
    std::vector<std::string> faults;
    double seconds = 0;
};

std::string listText(const std::vector<int>& values) {
    std::string text = "[";
    for (std::size_t i = 0; i < values.size(); ++i) {
        text += (i ? "," : "") + std::to_string(values[i]);
    }
    return text + "]";
}

std::string tail(const std::string& text, std::size_t size = 3000) {
    return text.size() <= size ? text : "..." + text.substr(text.size() - size);
}

// One stand-in with its own account session: trials in one lane run one after the other, so a fault
// switched on for one trial touches no other.
struct Lane {
    explicit Lane(const std::filesystem::path& root, int index)
        : directory(root / ("lane-" + std::to_string(index))) {
        std::filesystem::create_directories(directory);
        writeFileAtomically(directory / "info.json",
                            bytesFromString(CoreJSON::encode(Json{{"SUPABASE_URL", server.baseUrl()},
                                                                  {"SUPABASE_ANON_KEY", server.anonKey()}})));
    }
    DevServerProcess server{{"--meeting-row-delay", "0", "--mapping-delay", "0.5", "--user",
                             std::string(kEmail) + ":" + kPassword}};
    StandInAdmin admin{server.port()};
    std::filesystem::path directory;
    std::filesystem::path sessionFile() const { return directory / "session.json"; }
};

// kavelo-cli killed at a random moment of the live road, then `recover` run in the same data directory:
// the recovery must end in a requested report, exactly one, with every chunk the killed run had cut on
// the server. The recorder is the real one, capturing a tone from a private PulseAudio server.
class CrashRecoveryTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        try {
            daemon_ = PrivateAudioDaemon::startPulseAudio().release();
        } catch (const std::exception& e) {
            startError_ = e.what();
        }
    }
    static void TearDownTestSuite() {
        delete daemon_;
        daemon_ = nullptr;
    }
    void SetUp() override {
        if (daemon_ == nullptr) {
            GTEST_SKIP() << (startError_.empty() ? "pulseaudio is not installed (scripts/install-deps.sh)"
                                                 : "pulseaudio did not start: " + startError_);
        }
        char pattern[] = "/tmp/kavelo-crash-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        root_ = pattern;
    }
    void TearDown() override {
        if (!HasFailure() && !root_.empty()) {
            std::error_code ignored;
            std::filesystem::remove_all(root_, ignored);
        } else if (!root_.empty()) {
            std::printf("trial directories kept in %s\n", root_.c_str());
        }
    }

    static std::map<std::string, std::string> worldOf(const Lane& lane, const std::filesystem::path& home) {
        return {{"HOME", home.string()},
                {"XDG_DATA_HOME", (home / "data").string()},
                {"KAVELO_INFO_FILE", (lane.directory / "info.json").string()},
                {"KAVELO_BACKEND", ""},
                {"KAVELO_RECORDER", ""}};
    }

    // The next line of the child's output, waiting no longer than the deadline.
    // The next line of the child's output, waiting until the deadline. The wait is rounded up (the child's
    // reader counts whole milliseconds), so that no line before the deadline means the end of the output.
    static std::optional<std::string> lineBefore(ChildProcess& child, Clock::time_point deadline) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        return child.readLine(left > 0ms ? left + 2ms : 0ms);
    }

    static std::optional<Json> eventOf(const std::string& line) {
        try {
            return CoreJSON::decode(line);
        } catch (const std::exception&) {
            return std::nullopt; // not an event line; the events are what counts
        }
    }

    static std::vector<Json> readAll(ChildProcess& child, Clock::time_point deadline) {
        std::vector<Json> events;
        while (const auto line = lineBefore(child, deadline)) {
            if (auto event = eventOf(*line)) {
                events.push_back(std::move(*event));
            }
        }
        return events;
    }

    void login(Lane& lane) {
        ChildProcess child(
            KAVELO_CLI_BINARY,
            {"login", "--email", kEmail, "--session-file", lane.sessionFile().string(), "--json"},
            worldOf(lane, lane.directory), std::string(kPassword) + "\n");
        readAll(child, Clock::now() + 60s);
        const auto status = child.wait(30s);
        ASSERT_EQ(status, 0) << tail(child.errorOutput());
    }

    TrialResult runTrial(Lane& lane, const TrialPlan& plan);

    static PrivateAudioDaemon* daemon_;
    static std::string startError_;
    std::filesystem::path root_;
};

PrivateAudioDaemon* CrashRecoveryTest::daemon_ = nullptr;
std::string CrashRecoveryTest::startError_;

TrialResult CrashRecoveryTest::runTrial(Lane& lane, const TrialPlan& plan) {
    TrialResult result;
    result.plan = plan;
    const auto began = Clock::now();
    auto fail = [&result](const std::string& text) { result.faults.push_back(text); };
    const auto home = lane.directory / ("trial-" + std::to_string(plan.number));
    std::filesystem::create_directories(home);
    const auto world = worldOf(lane, home);
    std::optional<double> captureSeconds; // from the recording phase line to the kill

    std::vector<int> slowRules;
    if (plan.slowUploads) {
        slowRules = lane.admin.faultsOn(
            Json::array({Json{{"route", "signed-upload"}, {"latency_ms", kSlowUploadMs}},
                         Json{{"route", "storage-upload"}, {"latency_ms", kSlowUploadMs}}}));
    }
    if (plan.slowFinalize) {
        // The server takes the request and answers late: the killed run never hears that it was accepted.
        for (const int id : lane.admin.faultsOn(
                 Json::array({Json{{"route", "finalize-recording"}, {"latency_ms", kSlowFinalizeMs}}}))) {
            slowRules.push_back(id);
        }
    }
    std::vector<std::string> args{"record",         "--json",
                                  "--session-file", lane.sessionFile().string(),
                                  "--meeting",      "Proef " + std::to_string(plan.number),
                                  "--duration",     std::to_string(plan.duration),
                                  "--recipients",   "bram@example.test"};
    if (plan.pauseAt) {
        args.insert(args.end(), {"--pause-at", std::to_string(*plan.pauseAt), "--resume-at",
                                 std::to_string(*plan.pauseAt + 40)});
    }
    {
        ChildProcess record(KAVELO_CLI_BINARY, args, world);
        const auto deadline = Clock::now() + 120s;
        std::optional<Clock::time_point> killAt;
        std::optional<Clock::time_point> recordingSince; // the first "recording" phase line
        std::string lastPhase;
        auto take = [&](const Json& event) {
            const auto kind = event.value("event", "");
            if (kind == "chunk") {
                result.reportedChunks.push_back(event["sequence"].get<int>());
            } else if (kind == "phase") {
                lastPhase = event["phase"].get<std::string>();
            }
        };
        while (true) {
            const auto line = lineBefore(record, killAt ? std::min(*killAt, deadline) : deadline);
            if (!line) {
                break; // the end of the output, the kill moment, or the deadline
            }
            const auto event = eventOf(*line);
            if (!event) {
                continue;
            }
            take(*event);
            if (!recordingSince && event->value("event", "") == "phase" && lastPhase == "recording") {
                recordingSince = Clock::now();
            }
            if (!killAt && event->value("event", "") == "phase" && lastPhase == armingPhase(plan.point)) {
                killAt = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                            std::chrono::duration<double>(plan.killDelay));
            }
        }
        if (!killAt || Clock::now() < *killAt) {
            // The output ended (or the deadline passed) before the kill was due.
            const int status = record.wait(30s);
            lane.admin.faultsOff(slowRules);
            fail("the recording never reached the kill point (" + std::string(nameOf(plan.point)) +
                 "); last phase " + lastPhase + "; exit " + std::to_string(status) + "\n" +
                 tail(record.errorOutput()));
            return result;
        }
        record.signal(SIGKILL);
        if (recordingSince && plan.point == KillPoint::capturing) {
            captureSeconds = std::chrono::duration<double>(Clock::now() - *recordingSince).count();
        }
        // What the process printed before it died is still in the pipe: those chunks were cut before the
        // kill.
        if (record.wait(30s) != 128 + SIGKILL) {
            fail("the kill did not end the process");
        }
        for (const auto& line : record.remainingLines()) {
            if (const auto event = eventOf(line)) {
                take(*event);
            }
        }
        result.phaseAtKill = lastPhase;
    }
    lane.admin.faultsOff(slowRules);
    if (!landedIn(plan.point, result.phaseAtKill)) {
        fail("the kill meant for " + std::string(nameOf(plan.point)) + " landed in " + result.phaseAtKill);
    }

    const auto dataDirectory = home / "data" / "Kavely";
    const auto manifest = FileRecoveryStore(dataDirectory).load();
    if (!manifest) {
        fail("no manifest left behind by the killed run");
        return result;
    }
    result.recordingId = manifest->recordingId;
    result.chunksOnDisk = ChunkStore(dataDirectory).storedSequences(result.recordingId);
    for (const int s : ChunkStore(dataDirectory).journalSequences(result.recordingId)) {
        const auto journal = readWholeFile(ChunkStore(dataDirectory).chunkDirectory(result.recordingId) /
                                           (ChunkStore::filename(s).substr(0, 5) + ".journal"));
        if (journal && AdtsFrames::wholeFramesLength(*journal) > 0) {
            result.journals.push_back(s); // one that holds audio
        }
    }
    // Everything cut before the kill: what the run reported, what it left on disk, and what reached the
    // server before its line was printed.
    std::set<int> mustBeThere(result.reportedChunks.begin(), result.reportedChunks.end());
    mustBeThere.insert(result.chunksOnDisk.begin(), result.chunksOnDisk.end());
    for (const int s : lane.admin.storedSequences(result.recordingId)) {
        mustBeThere.insert(s);
    }
    result.nothingCut = mustBeThere.empty() && result.journals.empty();
    // A journal that holds audio becomes a chunk at the recovery, so it must reach the server as well.
    mustBeThere.insert(result.journals.begin(), result.journals.end());

    ChildProcess recover(KAVELO_CLI_BINARY,
                         {"recover", "--json", "--session-file", lane.sessionFile().string(), "--recipients",
                          "bram@example.test"},
                         world);
    const auto events = readAll(recover, Clock::now() + 180s);
    const auto status = recover.wait(30s);
    Json done;
    for (const auto& event : events) {
        if (event.value("event", "") == "done") {
            done = event;
        }
    }
    if (result.nothingCut) {
        // Killed before its first chunk: there is no audio to report on, and the recovery must say so and
        // clear the way for the next recording instead of asking for a report the backend would refuse.
        if (status != 0 || !done.is_object() || !done.contains("reason")) {
            fail("recover of a recording without chunks: exit " + std::to_string(status) + ", done " +
                 (done.is_object() ? CoreJSON::encode(done) : "missing") + "\n" +
                 tail(recover.errorOutput()));
        }
        if (lane.admin.finalizeRequests(result.recordingId) != 0) {
            fail("a report was asked for a recording without audio");
        }
        if (FileRecoveryStore(dataDirectory).load()) {
            fail("the manifest of a recording without audio stayed behind");
        }
        result.seconds = std::chrono::duration<double>(Clock::now() - began).count();
        return result;
    }
    // A run killed while its report request was out sends that same request again, which the server
    // recognises; the recovery then ends with nothing left here rather than in a success screen.
    const bool finishedEarlier = plan.point == KillPoint::finalizing && done.is_object() &&
                                 done.value("phase", "") == "idle" && !done.contains("reason");
    if (status != 0 || !done.is_object() || (done.value("phase", "") != "success" && !finishedEarlier)) {
        fail("recover did not succeed: exit " + std::to_string(status) + ", done " +
             (done.is_object() ? CoreJSON::encode(done) : "missing") + "\n" + tail(recover.errorOutput()));
    }
    if (done.is_object() && !finishedEarlier &&
        done.value("recordingId", Json()) != Json(result.recordingId)) {
        fail("recover finished another recording: " + CoreJSON::encode(done));
    }
    if (done.is_object() && done["lastSequence"].is_number()) {
        result.recoveredLastSequence = done["lastSequence"].get<int>();
    } else if (const Json recording = lane.admin.recording(result.recordingId);
               recording.is_object() && !recording["finalize_requests"].empty()) {
        // The report request counts its chunks in its diagnostics.
        const Json& diagnostics = recording["finalize_requests"].back()["diagnostics"];
        if (diagnostics.contains("lastSequence") && diagnostics["lastSequence"].is_number()) {
            result.recoveredLastSequence = diagnostics["lastSequence"].get<int>();
        }
    }

    result.onServer = lane.admin.storedSequences(result.recordingId);
    const std::set<int> onServer(result.onServer.begin(), result.onServer.end());
    // The report may be asked for only once the server holds every chunk cut before the kill: it must
    // count them all, and each must have reached the server before the request.
    const int highestCut = *mustBeThere.rbegin();
    if (result.recoveredLastSequence < highestCut) {
        fail("the report was asked for up to chunk " + std::to_string(result.recoveredLastSequence) +
             " while chunk " + std::to_string(highestCut) + " had been cut before the kill");
    }
    for (int s = 1; s <= result.recoveredLastSequence; ++s) {
        mustBeThere.insert(s);
    }
    std::vector<int> missing;
    for (const int s : mustBeThere) {
        if (!onServer.count(s)) {
            missing.push_back(s);
        }
    }
    result.lost = static_cast<int>(missing.size());
    if (!missing.empty()) {
        fail("chunks lost: " + listText(missing) + " (reported " + listText(result.reportedChunks) +
             ", on disk " + listText(result.chunksOnDisk) + ", on the server " + listText(result.onServer) +
             ")");
    }
    std::map<int, std::uint64_t> firstStored;
    for (const char* route : {"signed-upload", "storage-upload"}) {
        for (const auto& request : lane.admin.requests(route)) {
            const auto path = request["path"].get<std::string>();
            const auto at = path.find(result.recordingId + "/chunks/");
            if (request["status"] != 200 || at == std::string::npos) {
                continue;
            }
            const int sequence = std::stoi(path.substr(at + result.recordingId.size() + 8));
            const auto number = request["number"].get<std::uint64_t>();
            if (!firstStored.count(sequence) || number < firstStored[sequence]) {
                firstStored[sequence] = number;
            }
        }
    }
    std::optional<std::uint64_t> finalizedAt; // this lane's trials run one by one: the last one is ours
    for (const auto& request : lane.admin.requests("finalize-recording")) {
        if (request["status"] == 200) {
            finalizedAt = request["number"].get<std::uint64_t>();
        }
    }
    for (const int s : mustBeThere) {
        if (finalizedAt && firstStored.count(s) && firstStored[s] > *finalizedAt) {
            fail("chunk " + std::to_string(s) + " reached the server after the report was requested");
        }
    }
    if (captureSeconds) {
        // Everything captured up to about a second before the kill reached the server: the chunks cut
        // before it and the journal of the one being filled.
        double decoded = 0;
        for (int s = 1; s <= result.recoveredLastSequence; ++s) {
            const auto data = lane.admin.object(result.recordingId + "/chunks/" + ChunkStore::filename(s));
            if (!data) {
                continue; // counted as lost above
            }
            const Bytes bytes(data->begin(), data->end());
            std::size_t frames = 0;
            for (std::size_t at = 0; at < bytes.size(); ++frames) {
                const auto length = AdtsFrames::frameLengthAt(bytes, at);
                if (length == 0) {
                    fail("chunk " + std::to_string(s) + " holds a torn or foreign frame at byte " +
                         std::to_string(at));
                    break;
                }
                at += length;
            }
            decoded += static_cast<double>(frames) * kSecondsPerFrame;
        }
        result.secondsLost = *captureSeconds - decoded;
        if (*result.secondsLost > kMaxSecondsLost) {
            fail("the kill lost " + std::to_string(*result.secondsLost) +
                 " s of audio: " + std::to_string(decoded) + " s decoded of " +
                 std::to_string(*captureSeconds) + " s captured");
        }
    }
    const auto finalizes = lane.admin.finalizeRequests(result.recordingId);
    if (finalizes != 1) {
        fail(std::to_string(finalizes) + " finalize requests for the recording, not one");
    }
    if (FileRecoveryStore(dataDirectory).load()) {
        fail("the manifest outlived the finalize");
    }
    if (!ChunkStore(dataDirectory).storedSequences(result.recordingId).empty()) {
        fail("chunk files outlived the finalize");
    }
    result.seconds = std::chrono::duration<double>(Clock::now() - began).count();
    return result;
}

TEST_F(CrashRecoveryTest, KillingTheRecorderAnywhereOnTheRoadLosesNoChunkAndRecoveryFinalizesOnce) {
    const auto started = Clock::now();
    const int kTrials = trialCount();
    // Real sound into the meeting sink for the whole run: the recorder captures system audio from it.
    const auto tone = daemon_->tone(440, std::min(kTrials * 25.0 + 120, 400.0));
    const auto playback = daemon_->play("meeting", tone);

    unsigned seed = std::random_device{}();
    if (const char* fixed = std::getenv("KAVELO_ROAD_SEED")) {
        seed = static_cast<unsigned>(std::strtoul(fixed, nullptr, 10));
    }
    std::printf("crash trials: %d in %d lanes, seed %u (KAVELO_ROAD_SEED repeats it)\n", kTrials, kLanes,
                seed);
    std::mt19937 random(seed);
    auto uniform = [&random](double from, double to) {
        return std::uniform_real_distribution<>(from, to)(random);
    };

    // Every kill point comes round in turn; where in it the kill lands is drawn.
    std::vector<std::vector<TrialPlan>> plans(kLanes);
    for (int i = 0; i < kTrials; ++i) {
        TrialPlan plan;
        plan.number = i + 1;
        plan.point = static_cast<KillPoint>(i % kKillPoints);
        switch (plan.point) {
        case KillPoint::capturing:
            plan.duration = 30;
            plan.killDelay = uniform(1, 16);
            plan.slowUploads = uniform(0, 1) < 0.5;
            break;
        case KillPoint::paused:
            plan.duration = 60;
            plan.pauseAt = uniform(6, 12);
            plan.killDelay = uniform(0.1, 3);
            plan.slowUploads = uniform(0, 1) < 0.5;
            break;
        case KillPoint::processing:
            plan.duration = uniform(3, 11);
            plan.killDelay = uniform(0.05, 1.0); // the processing screen stands at least 1.5 s
            break;
        case KillPoint::waiting:
            plan.duration = uniform(3, 9);
            plan.killDelay = uniform(0.1, 2.5); // the last upload takes 20 s from the stop
            plan.slowUploads = true;
            break;
        case KillPoint::finalizing:
            plan.duration = uniform(3, 9);
            plan.killDelay = uniform(0.05, 4.0); // the request is answered 5 s after it left
            plan.slowFinalize = true;
            break;
        }
        plans[i % kLanes].push_back(plan);
    }

    std::vector<std::unique_ptr<Lane>> lanes;
    for (int l = 0; l < kLanes; ++l) {
        lanes.push_back(std::make_unique<Lane>(root_, l));
        login(*lanes.back());
        ASSERT_FALSE(HasFatalFailure());
    }

    std::mutex resultsMutex;
    std::vector<TrialResult> results;
    std::vector<std::thread> workers;
    for (int l = 0; l < kLanes; ++l) {
        workers.emplace_back([&, l] {
            for (const auto& plan : plans[l]) {
                TrialResult result;
                try {
                    result = runTrial(*lanes[l], plan);
                } catch (const std::exception& e) {
                    result.plan = plan;
                    result.faults.push_back(std::string("trial aborted: ") + e.what());
                }
                std::lock_guard lock(resultsMutex);
                results.push_back(std::move(result));
            }
        });
    }
    for (auto& worker : workers) {
        worker.join();
    }

    std::sort(results.begin(), results.end(),
              [](const TrialResult& a, const TrialResult& b) { return a.plan.number < b.plan.number; });
    int losses = 0;
    int failed = 0;
    int cutBeforeKill = 0;
    int withoutChunks = 0;
    std::vector<double> secondsLost;
    for (const auto& r : results) {
        if (r.secondsLost) {
            secondsLost.push_back(*r.secondsLost);
        }
        losses += r.lost;
        withoutChunks += r.nothingCut ? 1 : 0;
        cutBeforeKill += static_cast<int>(r.reportedChunks.size());
        failed += r.faults.empty() ? 0 : 1;
        std::printf(
            "trial %2d  %-19s %s kill +%.2fs in %-20s chunks reported %-12s on disk %-10s journal %-6s "
            "recovered to %d, on server %s, %s lost, %.0fs\n",
            r.plan.number, nameOf(r.plan.point), r.plan.slowUploads ? "slow" : "fast", r.plan.killDelay,
            r.phaseAtKill.c_str(), listText(r.reportedChunks).c_str(), listText(r.chunksOnDisk).c_str(),
            listText(r.journals).c_str(), r.recoveredLastSequence, listText(r.onServer).c_str(),
            r.secondsLost ? (std::to_string(*r.secondsLost).substr(0, 5) + " s").c_str() : "-", r.seconds);
        for (const auto& fault : r.faults) {
            ADD_FAILURE() << "trial " << r.plan.number << " (" << nameOf(r.plan.point) << ", seed " << seed
                          << "): " << fault;
        }
    }
    std::printf(
        "crash trials: %zu run (%d killed before their first chunk), %d failed, %d chunks cut before the "
        "kills, %d lost, %.0f s\n",
        results.size(), withoutChunks, failed, cutBeforeKill, losses,
        std::chrono::duration<double>(Clock::now() - started).count());
    if (!secondsLost.empty()) {
        std::sort(secondsLost.begin(), secondsLost.end());
        std::printf("audio lost per capturing kill: %zu kills, median %.2f s, worst %.2f s (bound %.1f s)\n",
                    secondsLost.size(), secondsLost[secondsLost.size() / 2], secondsLost.back(),
                    kMaxSecondsLost);
    }
    EXPECT_EQ(results.size(), static_cast<std::size_t>(kTrials));
    EXPECT_EQ(losses, 0);
    EXPECT_GT(cutBeforeKill, 0) << "no trial cut a chunk before its kill: the trials proved nothing";
}

} // namespace
