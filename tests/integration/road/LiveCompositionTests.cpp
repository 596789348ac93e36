#include "StandInAdmin.h"
#include "helpers/DevServerProcess.h"

#include "app/shell/AppEnvironment.h"
#include "core/mock/MockRecorder.h"
#include "core/support/AtomicFile.h"
#include "core/support/SystemClock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <thread>

using namespace kavelo;
using namespace kavelo::testing;
using namespace std::chrono_literals;

namespace {

// Every phase the coordinator passes through, for waiting on one of them.
class PhaseLog {
  public:
    void add(RecordingPhase phase) {
        {
            std::lock_guard lock(mutex_);
            seen_.push_back(phase);
        }
        changed_.notify_all();
    }
    bool waitFor(RecordingPhase phase, std::chrono::seconds limit) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, limit, [&] { return !seen_.empty() && seen_.back() == phase; });
    }
    std::string text() {
        std::lock_guard lock(mutex_);
        std::string all;
        for (const auto phase : seen_) {
            all += std::string(toRaw(phase)) + " ";
        }
        return all;
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<RecordingPhase> seen_;
};

// The live world as the application composes it, against the stand-in on loopback, with one exception:
// the recorder is the mock recorder, so that the road runs without an audio server and with a known
// chunk rhythm. Everything else (HTTP over libcurl, signed uploads, the session and its refreshes, the
// manifest and the chunk files on disk) is the real thing.
class LiveCompositionTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/kavelo-road-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        home_ = pattern;
        writeFileAtomically(home_ / "info.json", bytesFromString(CoreJSON::encode(
                                                     Json{{"SUPABASE_URL", server_.baseUrl()},
                                                          {"SUPABASE_ANON_KEY", server_.anonKey()}})));
        variables_ = {{"HOME", home_.string()},
                      {"XDG_DATA_HOME", (home_ / "data").string()},
                      {"KAVELO_INFO_FILE", (home_ / "info.json").string()}};
    }
    void TearDown() override {
        if (HasFailure()) {
            std::lock_guard lock(logMutex_);
            for (const auto& line : logLines_) {
                std::fprintf(stderr, "%s\n", line.c_str());
            }
        }
        environment_.reset();
        std::error_code ignored;
        std::filesystem::remove_all(home_, ignored);
    }

    AppEnvironment::Options options() {
        AppEnvironment::Options o;
        o.env = [vars = variables_](const std::string& name) -> std::optional<std::string> {
            const auto it = vars.find(name);
            return it == vars.end() ? std::nullopt : std::optional<std::string>(it->second);
        };
        o.sessionStorage = AppEnvironment::SessionStorage::memory;
        o.logSink = [this](LogLevel level, const std::string& category, const std::string& message) {
            std::lock_guard lock(logMutex_);
            logLines_.push_back("[" + std::string(toRaw(level)) + "] " + category + ": " + message);
        };
        // The worker is built before the recorder; the recorder's decorator picks it up from here.
        auto worker = std::make_shared<std::shared_ptr<UploadWorker>>();
        o.decorateUploader = [worker](std::shared_ptr<UploadWorker> inner) {
            *worker = inner;
            return inner;
        };
        o.decorateRecorder = [worker](std::shared_ptr<NativeRecorder>) -> std::shared_ptr<NativeRecorder> {
            MockRecorder::Behavior behavior;
            behavior.chunkInterval = 0.5;
            return std::make_shared<MockRecorder>(behavior, std::make_shared<SystemClock>(), *worker);
        };
        return o;
    }

    // Lets real time pass while the recording runs.
    static void live(std::chrono::milliseconds span) { std::this_thread::sleep_for(span); }

    // Tokens live 36 s and count as expired 30 s before their end, so any use of the session later than
    // six seconds after its last renewal refreshes it.
    DevServerProcess server_{{"--access-token-lifetime", "36", "--meeting-row-delay", "0", "--mapping-delay",
                              "0.5", "--user", "anna@example.test:geheim123"}};
    StandInAdmin admin_{server_.port()};
    std::filesystem::path home_;
    std::map<std::string, std::string> variables_;
    std::unique_ptr<AppEnvironment> environment_;
    std::mutex logMutex_;
    std::vector<std::string> logLines_; // guarded by logMutex_
};

TEST_F(LiveCompositionTest, ARecordingTravelsTheWholeRoadWithEveryChunkOnTheServerThroughATokenRefresh) {
    const auto opts = options();
    const auto mode = AppEnvironment::detectMode(opts);
    ASSERT_EQ(mode, AppEnvironment::Mode::live) << "the information file names a backend";
    environment_ = std::make_unique<AppEnvironment>(mode, opts);
    AppEnvironment& env = *environment_;
    ASSERT_FALSE(env.usesMockServices);
    ASSERT_EQ(env.config.supabaseUrl, server_.baseUrl());
    ASSERT_EQ(env.config.applicationSupportDirectory, home_ / "data" / "Kavely");

    std::mutex countMutex;
    int renewals = 0;
    std::vector<std::string> tokensSeen;
    env.sessionManager->onChange([&](const SessionManager::State& state) {
        std::lock_guard lock(countMutex);
        if (state.isSignedIn()) {
            ++renewals;
            tokensSeen.push_back(state.session()->accessToken);
        }
    });
    auto renewalCount = [&] {
        std::lock_guard lock(countMutex);
        return renewals;
    };
    auto phases = std::make_shared<PhaseLog>();
    env.coordinator->onPhaseChange([phases](RecordingPhase phase) { phases->add(phase); });

    const AuthSession session = env.authService->signIn("anna@example.test", "geheim123");
    env.sessionManager->install(session);
    env.coordinator->sessionDidSignIn();
    ASSERT_EQ(renewalCount(), 1) << "the sign-in itself";

    PreflightContext preflight;
    preflight.user = session.user;
    preflight.userName = "Anna";
    preflight.meetingName = "Weekstart";
    const auto microphones = env.recorder->listMicrophones();
    ASSERT_FALSE(microphones.empty());
    preflight.microphoneDeviceId = microphones.front().id;
    env.coordinator->startRecording(preflight);
    ASSERT_EQ(env.coordinator->phase(), RecordingPhase::recording) << phases->text();
    const std::string recordingId = env.coordinator->currentRecordingId().value();

    // The manifest stands on disk while the meeting runs, so that a crash could bring it back.
    live(2s);
    const auto manifestPath = env.config.applicationSupportDirectory / "active_recording.json";
    ASSERT_TRUE(std::filesystem::exists(manifestPath));
    const auto manifest =
        RecordingManifest::fromJson(CoreJSON::decode(stringFromBytes(readWholeFile(manifestPath).value())));
    EXPECT_EQ(manifest.recordingId, recordingId);
    EXPECT_EQ(manifest.stage, RecordingManifest::Stage::active);
    EXPECT_EQ(manifest.meetingName, "Weekstart");

    // The pause's heartbeat is the first use of the session after it has aged: it refreshes while the
    // meeting is still being recorded.
    live(6s);
    env.coordinator->pauseRecording();
    ASSERT_EQ(env.coordinator->phase(), RecordingPhase::pausedUser);
    EXPECT_GE(renewalCount(), 2) << "a refresh in the middle of the recording";
    live(1500ms);
    env.coordinator->resumeRecording();
    ASSERT_EQ(env.coordinator->phase(), RecordingPhase::recording);
    live(5s);

    env.coordinator->stopTapped();
    env.coordinator->stopConfirmed();
    const int last = env.coordinator->lastSequence().value_or(0);
    EXPECT_GE(last, 15) << "about 12 s of recording at two chunks a second";

    ASSERT_TRUE(phases->waitFor(RecordingPhase::speakerReview, 60s)) << phases->text();
    env.coordinator->confirmSpeakers();
    ASSERT_TRUE(phases->waitFor(RecordingPhase::shareReview, 10s)) << phases->text();
    env.coordinator->updateShare([](ShareComposer& share) { share.addRecipient("bram@example.test"); });
    ASSERT_EQ(env.coordinator->submitShare(true), RecordingCoordinator::SubmitOutcome::started);
    ASSERT_TRUE(phases->waitFor(RecordingPhase::success, 120s)) << phases->text();

    // Nothing lost: every chunk from the first to the last is on the server, whole.
    std::vector<int> expected;
    for (int s = 1; s <= last; ++s) {
        expected.push_back(s);
    }
    EXPECT_EQ(admin_.storedSequences(recordingId), expected);
    const auto sizes = admin_.objectSizes(recordingId + "/chunks/");
    ASSERT_EQ(sizes.size(), static_cast<std::size_t>(last));
    for (const auto& [path, size] : sizes) {
        EXPECT_EQ(size, 98304) << path;
    }
    // ...and each came by its signed URL, none by the fallback route.
    int signedUploads = 0;
    for (const auto& request : admin_.requests("signed-upload")) {
        if (request["status"] == 200 &&
            request["path"].get<std::string>().find(recordingId) != std::string::npos) {
            ++signedUploads;
        }
    }
    EXPECT_EQ(signedUploads, last);
    EXPECT_TRUE(admin_.requests("storage-upload").empty());

    // One report requested, for the recipients chosen; then the manifest and the chunk files go.
    const Json seen = admin_.recording(recordingId);
    ASSERT_EQ(seen["finalize_requests"].size(), 1u);
    const Json& finalize = seen["finalize_requests"][0];
    ASSERT_EQ(finalize["recipients"].size(), 1u);
    EXPECT_EQ(finalize["recipients"][0]["email"], "bram@example.test");
    EXPECT_FALSE(std::filesystem::exists(manifestPath));
    EXPECT_TRUE(env.chunkStore->storedSequences(recordingId).empty());

    // The session was renewed on the server too, and the renewed tokens differ.
    EXPECT_GE(admin_.requests("auth-token").size(), 2u) << "the sign-in and at least one refresh";
    std::lock_guard lock(countMutex);
    ASSERT_GE(tokensSeen.size(), 2u);
    EXPECT_NE(tokensSeen.front(), tokensSeen.back());
}

// Peak resident memory of this process so far, in KiB.
long peakResidentKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmHWM:", 0) == 0) {
            return std::stol(line.substr(6));
        }
    }
    return 0;
}

// What a backend could do to a client that trusts it: chunk lists up to INT_MAX or of two million
// entries, ids that name places outside the data directory. The road must end as usual, in bounded
// memory, with nothing written outside the data directory.
TEST_F(LiveCompositionTest, AHostileStandInNeitherHangsTheRoadNorReachesOutsideTheDataDirectory) {
    const std::vector<std::string> base{"--meeting-row-delay",        "0", "--mapping-delay", "0.5", "--user",
                                        "anna@example.test:geheim123"};
    auto expectOnlyOurFiles = [&] {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(home_)) {
            names.insert(entry.path().filename().string());
        }
        EXPECT_EQ(names, (std::set<std::string>{"data", "info.json"}));
        EXPECT_FALSE(std::filesystem::exists(home_ / "data" / "outside"));
        EXPECT_FALSE(std::filesystem::exists(home_.parent_path() / "outside"));
    };
    for (const char* mode : {"huge", "flood"}) {
        SCOPED_TRACE(mode);
        auto args = base;
        args.insert(args.end(), {"--hostile-chunk-list", mode});
        server_.restart(args);
        const long peakBefore = peakResidentKiB();
        const auto opts = options();
        environment_ = std::make_unique<AppEnvironment>(AppEnvironment::detectMode(opts), opts);
        AppEnvironment& env = *environment_;
        auto phases = std::make_shared<PhaseLog>();
        env.coordinator->onPhaseChange([phases](RecordingPhase phase) { phases->add(phase); });
        const AuthSession session = env.authService->signIn("anna@example.test", "geheim123");
        env.sessionManager->install(session);
        env.coordinator->sessionDidSignIn();
        PreflightContext preflight;
        preflight.user = session.user;
        preflight.userName = "Anna";
        preflight.microphoneDeviceId = env.recorder->listMicrophones().front().id;
        env.coordinator->startRecording(preflight);
        ASSERT_EQ(env.coordinator->phase(), RecordingPhase::recording) << phases->text();
        const std::string recordingId = env.coordinator->currentRecordingId().value();
        live(2s);
        env.coordinator->stopTapped();
        env.coordinator->stopConfirmed();
        ASSERT_TRUE(phases->waitFor(RecordingPhase::speakerReview, 60s)) << phases->text();
        env.coordinator->confirmSpeakers();
        ASSERT_TRUE(phases->waitFor(RecordingPhase::shareReview, 10s)) << phases->text();
        env.coordinator->updateShare([](ShareComposer& share) { share.addRecipient("bram@example.test"); });
        ASSERT_EQ(env.coordinator->submitShare(true), RecordingCoordinator::SubmitOutcome::started);
        // The lying lists read as unchecked; the chunks the worker saw accepted decide.
        ASSERT_TRUE(phases->waitFor(RecordingPhase::success, 60s)) << phases->text();
        EXPECT_EQ(admin_.finalizeRequests(recordingId), 1u);
        const long grownMiB = (peakResidentKiB() - peakBefore) / 1024;
        std::printf("hostile chunk list %s: peak memory grew %ld MiB over the road\n", mode, grownMiB);
        EXPECT_LT(grownMiB, 48);
        environment_.reset();
        expectOnlyOurFiles();
    }

    for (const char* mode : {"long", "path", "slash"}) {
        SCOPED_TRACE(mode);
        auto args = base;
        args.insert(args.end(), {"--hostile-recording-id", mode});
        server_.restart(args);
        const auto opts = options();
        environment_ = std::make_unique<AppEnvironment>(AppEnvironment::detectMode(opts), opts);
        AppEnvironment& env = *environment_;
        const AuthSession session = env.authService->signIn("anna@example.test", "geheim123");
        env.sessionManager->install(session);
        env.coordinator->sessionDidSignIn();
        PreflightContext preflight;
        preflight.user = session.user;
        preflight.userName = "Anna";
        preflight.microphoneDeviceId = env.recorder->listMicrophones().front().id;
        env.coordinator->startRecording(preflight);
        // Refused at the start, before anything is recorded or written.
        EXPECT_EQ(env.coordinator->phase(), RecordingPhase::errorRecoverable);
        EXPECT_TRUE(env.coordinator->startBlocker().has_value());
        EXPECT_FALSE(env.recoveryStore->load().has_value());
        EXPECT_TRUE(env.chunkStore->storedRecordings().empty());
        environment_.reset();
        expectOnlyOurFiles();
    }
}

TEST_F(LiveCompositionTest, AStandInThatRequiresANewerVersionBlocksTheStartAndTipsComeAndGoWithTheSession) {
    server_.restart({"--meeting-row-delay", "0", "--user", "anna@example.test:geheim123", "--minimum-version",
                     "99.0.0", "--latest-version", "99.1.0"});
    const auto opts = options();
    environment_ = std::make_unique<AppEnvironment>(AppEnvironment::detectMode(opts), opts);
    AppEnvironment& env = *environment_;
    EXPECT_EQ(env.updatePolicyUrl, server_.baseUrl() + "/update-policy.json")
        << "no feed: the backend's host";

    const AuthSession session = env.authService->signIn("anna@example.test", "geheim123");
    env.sessionManager->install(session);
    env.coordinator->sessionDidSignIn();
    ASSERT_TRUE(env.tipsService->loadTips().has_value());
    ASSERT_TRUE(env.tipsService->cachedResponse().has_value());

    PreflightContext preflight;
    preflight.user = session.user;
    preflight.userName = "Anna";
    preflight.microphoneDeviceId = env.recorder->listMicrophones().front().id;
    env.coordinator->startRecording(preflight);
    EXPECT_EQ(env.coordinator->phase(), RecordingPhase::updateRequired);
    EXPECT_EQ(env.updateService->cachedStatus().kind(), UpdateStatus::Kind::updateRequired);
    EXPECT_TRUE(env.chunkStore->storedRecordings().empty());

    env.sessionManager->signOut();
    EXPECT_FALSE(env.tipsService->cachedResponse().has_value()) << "another user must not see these tips";
}

} // namespace
