#include "core/accounts/InMemorySessionStore.h"
#include "core/accounts/SessionManager.h"
#include "core/mock/MockAuthService.h"
#include "core/mock/MockBackend.h"
#include "core/mock/MockRecorder.h"
#include "core/mock/MockRecordingAPI.h"
#include "core/mock/MockSignedURLProvider.h"
#include "core/mock/MockUploadHTTPClient.h"
#include "core/recording/InMemoryRecoveryStore.h"
#include "core/recording/RecordingCoordinator.h"
#include "core/support/SteppingClock.h"
#include "core/transport/LiveUploadWorker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <thread>

#include <unistd.h>

using namespace kavelo;
using P = RecordingPhase;

namespace {

// Sits between the upload worker and mock storage and keeps what storage accepted, per chunk, with the
// bytes that came: the backend's own book is a set and cannot show a chunk sent twice.
class StorageTap final : public HTTPClient {
  public:
    explicit StorageTap(std::shared_ptr<HTTPClient> inner) : inner_(std::move(inner)) {}

    HTTPResponse send(const HTTPRequest& request) override {
        auto response = inner_->send(request);
        auto name = request.url.substr(request.url.rfind('/') + 1);
        name = name.substr(0, name.find('.'));
        std::lock_guard lock(mutex_);
        ++attempts_[std::stoi(name)];
        if (response.statusCode / 100 == 2) {
            accepted_[std::stoi(name)].push_back(request.body.value_or(Bytes{}));
        }
        return response;
    }
    std::map<int, std::vector<Bytes>> accepted() const {
        std::lock_guard lock(mutex_);
        return accepted_;
    }
    std::map<int, int> attempts() const {
        std::lock_guard lock(mutex_);
        return attempts_;
    }

  private:
    const std::shared_ptr<HTTPClient> inner_;
    mutable std::mutex mutex_;
    std::map<int, std::vector<Bytes>> accepted_; // guarded by mutex_
    std::map<int, int> attempts_;                // guarded by mutex_
};

// The mock world as mock mode composes it, on one stepping clock: mock backend, mock storage behind the
// real upload worker, mock recorder, mock sign-in with the session manager, and the real coordinator with
// its mapping and finalize services.
class MockRoadTest : public ::testing::Test {
  protected:
    MockRoadTest() {
        static std::atomic<int> counter{0};
        dataDir_ = std::filesystem::temp_directory_path() /
                   ("kavelo-mock-road-" + std::to_string(::getpid()) + "-" + std::to_string(++counter));
        std::filesystem::remove_all(dataDir_);

        backend = std::make_shared<MockBackend>(clock);
        backend->setMappingNames({"Sanne de Vries", "Joris Bakker"});
        storage = std::make_shared<MockUploadHTTPClient>(backend);
        tap = std::make_shared<StorageTap>(storage);
        auto api = std::make_shared<MockRecordingAPI>(backend);
        chunkStore = std::make_shared<ChunkStore>(dataDir_);
        auto logger = std::make_shared<CoreLogger>(clock, 2000);
        uploader = LiveUploadWorker::create(chunkStore, tap, std::make_shared<MockSignedURLProvider>(), clock,
                                            logger);
        MockRecorder::Behavior behavior;
        behavior.chunkInterval = 1.0;
        behavior.chunkBytes = 2048;
        recorder = std::make_shared<MockRecorder>(behavior, clock, uploader);

        auth = std::make_shared<MockAuthService>(
            clock, std::map<std::string, std::string>{{"anne@example.nl", "geheim123"}});
        sessions = std::make_shared<SessionManager>(std::make_shared<InMemorySessionStore>(), clock);
        sessions->setRefresher([auth = auth](const std::string& token) { return auth->refresh(token); });
        sessions->onChange([uploader = uploader](const SessionManager::State& state) {
            uploader->updateAuthToken(state.session() ? std::optional(state.session()->accessToken)
                                                      : std::nullopt);
        });

        RecordingCoordinator::Services services;
        services.config.supabaseUrl = "https://mock.kavely.test";
        services.config.anonKey = "mock-anon-key";
        services.config.platform = "linux";
        services.config.appVersion = "2.0.0";
        services.api = api;
        services.recorder = recorder;
        services.uploader = uploader;
        services.chunkStore = chunkStore;
        services.recoveryStore = recovery;
        services.mapping = std::make_shared<SpeakerMappingService>(api, clock);
        services.finalizeService =
            std::make_shared<FinalizeService>(api, clock, FinalizeService::Config{}, logger);
        services.diagnostics = std::make_shared<DiagnosticsCollector>(clock, "linux", "2.0.0");
        services.clock = clock;
        services.logger = logger;
        RecordingCoordinatorHooks hooks;
        hooks.currentProfileName = [] { return std::optional<std::string>("Anne"); };
        hooks.currentAccessToken = [sessions = sessions] { return sessions->currentAccessToken(); };
        coordinator = RecordingCoordinator::create(services, hooks);
        coordinator->onPhaseChange([this](RecordingPhase phase) {
            std::lock_guard lock(phasesMutex_);
            phases_.push_back(phase);
        });
    }

    ~MockRoadTest() override {
        coordinator.reset();
        recorder.reset();
        uploader.reset();
        std::filesystem::remove_all(dataDir_);
    }

    // Waits in real time, bounded, for work on other threads: a rendezvous, not a delay.
    static bool eventually(const std::function<bool()>& condition) {
        for (int i = 0; i < 5000; ++i) {
            if (condition()) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return condition();
    }

    // Moves the clock in small steps until the condition holds, letting the real-time uploads catch up
    // between steps; gives up after a minute of clock time.
    bool driveUntil(const std::function<bool()>& condition) {
        for (int step = 0; step < 240; ++step) {
            if (eventuallyBrief(condition)) {
                return true;
            }
            clock->advance(0.25);
        }
        return condition();
    }

    std::vector<RecordingPhase> phases() {
        std::lock_guard lock(phasesMutex_);
        return phases_;
    }

    std::shared_ptr<SteppingClock> clock =
        std::make_shared<SteppingClock>(TimePoint{std::chrono::seconds(1'800'000'000)});
    std::shared_ptr<MockBackend> backend;
    std::shared_ptr<MockUploadHTTPClient> storage;
    std::shared_ptr<StorageTap> tap;
    std::shared_ptr<ChunkStore> chunkStore;
    std::shared_ptr<LiveUploadWorker> uploader;
    std::shared_ptr<MockRecorder> recorder;
    std::shared_ptr<MockAuthService> auth;
    std::shared_ptr<SessionManager> sessions;
    std::shared_ptr<InMemoryRecoveryStore> recovery = std::make_shared<InMemoryRecoveryStore>();
    std::shared_ptr<RecordingCoordinator> coordinator;

  private:
    static bool eventuallyBrief(const std::function<bool()>& condition) {
        for (int i = 0; i < 25; ++i) {
            if (condition()) {
                return true;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return false;
    }

    std::filesystem::path dataDir_;
    std::mutex phasesMutex_;
    std::vector<RecordingPhase> phases_; // guarded by phasesMutex_
};

std::vector<int> oneTo(int last) {
    std::vector<int> out;
    for (int s = 1; s <= last; ++s) {
        out.push_back(s);
    }
    return out;
}

// Whether wanted occurs in seen in this order, other phases allowed in between.
bool passesInOrder(const std::vector<RecordingPhase>& seen, const std::vector<RecordingPhase>& wanted) {
    auto at = seen.begin();
    for (auto phase : wanted) {
        at = std::find(at, seen.end(), phase);
        if (at == seen.end()) {
            return false;
        }
        ++at;
    }
    return true;
}

TEST_F(MockRoadTest, ARecordingGoesFromStartToSuccessAndTheBackendHoldsEveryChunkAndOneFinalize) {
    // The second chunk fails twice in storage; the worker's retries, on the clock, must still get it there.
    storage->setFailuresPerSequence(2, 2);
    sessions->install(auth->signIn("anne@example.nl", "geheim123"));
    auto user = sessions->session()->user;

    PreflightContext context;
    context.user = user;
    context.userName = "Anne";
    context.meetingName = "Weekstart";
    context.microphoneDeviceId = "mock-mic-builtin";
    context.outputLanguage = "nl";
    coordinator->sessionDidSignIn();
    coordinator->startRecording(context);
    ASSERT_EQ(coordinator->phase(), P::recording);
    auto id = coordinator->currentRecordingId().value();
    ASSERT_TRUE(clock->waitForSleepers(2)); // the chunk loop and the first-chunk watchdog
    ASSERT_TRUE(recovery->load().has_value());
    EXPECT_EQ(recovery->load()->stage, RecordingManifest::Stage::active);

    ASSERT_TRUE(driveUntil([&] { return coordinator->receivedSequences().size() >= 3; }));
    const int beforePause = static_cast<int>(coordinator->receivedSequences().size());
    ASSERT_EQ(coordinator->receivedSequences(), oneTo(beforePause));

    // While paused the recorder cuts nothing, and the retries of chunk 2 finish.
    coordinator->pauseRecording();
    ASSERT_EQ(coordinator->phase(), P::pausedUser);
    EXPECT_TRUE(recovery->load()->isPaused);
    ASSERT_TRUE(driveUntil([&] { return uploader->uploadedSequences() == oneTo(beforePause); }))
        << "uploaded " << uploader->uploadedSequences().size();
    clock->advance(5.0);
    EXPECT_EQ(coordinator->receivedSequences(), oneTo(beforePause));
    EXPECT_EQ(tap->attempts()[2], 3);

    coordinator->resumeRecording();
    ASSERT_TRUE(eventually([&] { return coordinator->phase() == P::recording; }));
    EXPECT_FALSE(recovery->load()->isPaused);
    // The chunk loop restarts on its own thread; stepping until two more chunks came keeps the test
    // independent of when that thread first sleeps on the clock.
    ASSERT_TRUE(
        driveUntil([&] { return coordinator->receivedSequences().size() >= std::size_t(beforePause) + 2; }));
    const int cut = static_cast<int>(coordinator->receivedSequences().size());
    EXPECT_EQ(coordinator->receivedSequences(), oneTo(cut));

    coordinator->stopTapped();
    ASSERT_EQ(coordinator->phase(), P::stopConfirm);
    coordinator->stopConfirmed();
    const int last = cut + 1;
    ASSERT_EQ(coordinator->lastSequence(), last)
        << "the loop's chunks and the final one, numbering on over the pause";
    ASSERT_EQ(recovery->load()->stage, RecordingManifest::Stage::stopped);
    EXPECT_EQ(recovery->load()->lastSequence, last);

    // Processing: uploads settle, the mapping is triggered, the mock backend maps after its delay.
    ASSERT_TRUE(driveUntil([&] { return coordinator->phase() == P::speakerReview; }))
        << toRaw(coordinator->phase());
    auto speakers = coordinator->speakerList().speakers;
    ASSERT_EQ(speakers.size(), 3u);
    EXPECT_EQ(speakers[0].name, "Anne");
    EXPECT_EQ(speakers[1].name, "Sanne de Vries");
    EXPECT_EQ(speakers[2].source, SpeakerListModel::Speaker::Source::mapping);

    coordinator->updateSpeakers([](SpeakerListModel& list) {
        list.rename(2, "Joris Bakker-Smit");
        list.addManual("Carla Jansen");
    });
    coordinator->confirmSpeakers();
    ASSERT_EQ(coordinator->phase(), P::shareReview);

    coordinator->updateShare([](ShareComposer& share) {
        share.addRecipient("Bram@Example.nl", std::string("Bram"));
        share.pendingInput = "dirk@example.org";
    });
    EXPECT_EQ(coordinator->submitShare(true), RecordingCoordinator::SubmitOutcome::committedPendingInput);
    // The pipeline polls the server on the clock, so it runs beside the test, which moves time.
    auto submit = Task::run([this] { coordinator->submitShare(true); });
    ASSERT_TRUE(driveUntil([&] {
        auto phase = coordinator->phase();
        return phase == P::success || phase == P::errorRecoverable;
    }));
    submit.join();
    ASSERT_EQ(coordinator->phase(), P::success);
    EXPECT_TRUE(passesInOrder(phases(), {P::recording, P::pausedUser, P::recording, P::stopConfirm,
                                         P::processingMapping, P::speakerReview, P::shareReview,
                                         P::waitingForUploads, P::finalizing, P::success}));

    // Storage: every chunk, each accepted once with its own bytes.
    auto stored = backend->uploadedChunks(id);
    EXPECT_EQ(std::vector<int>(stored.begin(), stored.end()), oneTo(last));
    auto accepted = tap->accepted();
    ASSERT_EQ(accepted.size(), static_cast<std::size_t>(last));
    for (const auto& [sequence, bodies] : accepted) {
        ASSERT_EQ(bodies.size(), 1u) << "chunk " << sequence << " was stored more than once";
        EXPECT_EQ(bodies[0], MockRecorder::chunkContent(sequence, 2048)) << "chunk " << sequence;
    }

    auto finalized = backend->finalized();
    ASSERT_EQ(finalized.size(), 1u);
    const auto& request = finalized[0];
    EXPECT_EQ(request.recordingId, id);
    EXPECT_EQ(request.userId, user.id);
    EXPECT_EQ(request.meetingName, "Weekstart");
    EXPECT_EQ(request.participants,
              (std::vector<std::string>{"Anne", "Sanne de Vries", "Joris Bakker-Smit", "Carla Jansen"}));
    EXPECT_EQ(request.speakerCount, 4);
    EXPECT_EQ(request.recipients, (std::vector<FinalizeRecipient>{{"bram@example.nl", std::string("Bram")},
                                                                  {"dirk@example.org", std::nullopt}}));
    EXPECT_EQ(request.diagnostics.lastSequence, last);
    EXPECT_EQ(request.uploadMode, "mac_audio_chunks");

    // Finished here: no manifest, no chunk files.
    EXPECT_FALSE(recovery->load().has_value());
    EXPECT_FALSE(std::filesystem::exists(chunkStore->chunkDirectory(id)));
    EXPECT_EQ(coordinator->successSummary()->externalRecipientCount, 2);
}

} // namespace
