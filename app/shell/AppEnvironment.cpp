#include "app/shell/AppEnvironment.h"

#include "app/shell/EnvironmentSettings.h"
#include "app/shell/KaveloCopy.h"
#include "app/shell/SecretServiceSessionStore.h"
#include "core/accounts/FileSessionStore.h"
#include "core/accounts/InMemorySessionStore.h"
#include "core/accounts/LiveAuthService.h"
#include "core/backend/CurlHTTPClient.h"
#include "core/backend/LiveRecordingAPI.h"
#include "core/mock/MockAuthService.h"
#include "core/mock/MockRecorder.h"
#include "core/mock/MockRecordingAPI.h"
#include "core/mock/MockRecordingStatusProvider.h"
#include "core/mock/MockSignedURLProvider.h"
#include "core/mock/MockTipsBackend.h"
#include "core/mock/MockUpdateBackend.h"
#include "core/mock/MockUploadHTTPClient.h"
#include "core/recording/FileRecoveryStore.h"
#include "core/support/AtomicFile.h"
#include "core/support/InMemoryKeyValueStore.h"
#include "core/support/PreferencesFile.h"
#include "core/support/SystemClock.h"
#include "core/transport/LiveSignedURLProvider.h"
#include "core/transport/LiveUploadWorker.h"
#include "core/workspace/LiveRecordingStatusProvider.h"
#include "core/workspace/LiveTipsBackend.h"
#include "core/workspace/StaticJSONUpdateBackend.h"

#if KAVELO_HAVE_CAPTURE
#include "app/capture/LinuxCapture.h"
#endif

#include <cstdio>
#include <cstdlib>

namespace kavelo {

namespace {

AppEnvironment::LogSink stderrSink() {
    return [](LogLevel level, const std::string& category, const std::string& message) {
        std::fprintf(stderr, "[%s] %s: %s\n", std::string(toRaw(level)).c_str(), category.c_str(),
                     message.c_str());
    };
}

// The id of the last signed-in user, kept only by the session closure, so that a switch to another
// account can clear what belonged to the previous one.
class LastUserIdBox {
  public:
    explicit LastUserIdBox(std::optional<std::string> initial) : value_(std::move(initial)) {}
    // Stores the new id; true when a different id was stored before.
    bool replace(const std::string& id) {
        std::lock_guard lock(mutex_);
        const bool changed = value_.has_value() && *value_ != id;
        value_ = id;
        return changed;
    }

  private:
    std::mutex mutex_;
    std::optional<std::string> value_;
};

std::optional<double> parseSeconds(const std::optional<std::string>& text) {
    if (!text || text->empty()) {
        return std::nullopt;
    }
    char* end = nullptr;
    const double value = std::strtod(text->c_str(), &end);
    if (end != text->c_str() + text->size() || !(value >= 0) || value > 86400) {
        return std::nullopt;
    }
    return value;
}

} // namespace

AppEnvironment::Mode AppEnvironment::detectMode(const Options& options) {
    const InfoDictionary info = options.info ? *options.info : InfoDictionary::load(options.env);
    return EnvironmentSettings::detectMode(info, options.env);
}

AppEnvironment::AppEnvironment(Mode mode, Options options)
    : AppEnvironment(mode, options, options.info ? *options.info : InfoDictionary::load(options.env)) {}

AppEnvironment::AppEnvironment(Mode mode, Options options, InfoDictionary info)
    : mode(mode), config(EnvironmentSettings::makeConfig(
                      mode, info, EnvironmentSettings::dataDirectory(mode, options.env))),
      usesMockServices(mode == Mode::mock) {
    const LogSink sink = options.logSink ? options.logSink : stderrSink();

    // 1. The logger and the small shared services.
    clock = std::make_shared<SystemClock>();
    logger = std::make_shared<CoreLogger>(clock, 2000);
    logger->setSink([sink](const LogEntry& entry) { sink(entry.level, "core", entry.message); });
    prepareCache = std::make_shared<OAuthPrepareCache>();

    // 2. The data directory; a failure here surfaces later in the services that write to it.
    try {
        createPrivateDirectories(config.applicationSupportDirectory);
    } catch (const std::exception& error) {
        logger->warn(std::string("data directory unavailable: ") + error.what());
    }

    // 3. Preferences: the desktop program keeps them in its preferences file; the command-line tool keeps
    // them for one run.
    if (options.preferencesFile.empty()) {
        keyValueStore = std::make_shared<InMemoryKeyValueStore>();
    } else {
        keyValueStore =
            std::make_shared<PreferencesFile>(options.preferencesFile, [sink](const std::string& message) {
                sink(LogLevel::warn, "core", message);
            });
    }

    // 4. The session and its store; the two worlds never share one.
    auto storeLogger = std::make_shared<CoreLogger>(clock, 200);
    storeLogger->setSink([sink](const LogEntry& entry) { sink(entry.level, "keychain", entry.message); });
    switch (options.sessionStorage) {
    case SessionStorage::secretService:
        sessionStore_ = std::make_shared<SecretServiceSessionStore>(
            EnvironmentSettings::sessionServiceName(mode), EnvironmentSettings::kSessionAccount, storeLogger,
            EnvironmentSettings::legacySessionServiceName(mode));
        break;
    case SessionStorage::file:
        sessionStore_ = std::make_shared<FileSessionStore>(
            options.sessionFile.empty() ? config.applicationSupportDirectory / "session.json"
                                        : options.sessionFile,
            storeLogger);
        break;
    case SessionStorage::memory:
        sessionStore_ = std::make_shared<InMemorySessionStore>();
        break;
    }
    sessionManager = std::make_shared<SessionManager>(sessionStore_, clock);

    // 5. Stores on disk and the recording log.
    chunkStore = std::make_shared<ChunkStore>(config.applicationSupportDirectory);
    recoveryStore = std::make_shared<FileRecoveryStore>(config.applicationSupportDirectory);
    diagnostics = std::make_shared<DiagnosticsCollector>(clock, config.platform, config.appVersion);
    diagnostics->setSink([sink](LogLevel level, const std::string& message) { sink(level, "rec", message); });
    dashboardActivity = std::make_shared<DashboardActivityCenter>(config.applicationSupportDirectory,
                                                                  [clock = clock] { return clock->now(); });

    // 6-8. The world.
    if (usesMockServices) {
        buildMockWorld(options);
    } else {
        buildLiveWorld(options);
    }

    // 9-10. Updates, tips, flags and recent names, over the preferences.
    buildWorkspaceServices(info, sink);

    // 11. The services of the road after the stop.
    mappingService = std::make_shared<SpeakerMappingService>(recordingAPI, clock, mappingConfig());
    finalizeService = std::make_shared<FinalizeService>(recordingAPI, clock, finalizeConfig(), logger);

    // 12. Refreshing goes through the auth service of the chosen world.
    std::weak_ptr<AuthService> weakAuth = authService;
    sessionManager->setRefresher([weakAuth](const std::string& refreshToken) {
        const auto auth = weakAuth.lock();
        if (!auth) {
            throw APIError::cancelled();
        }
        return auth->refresh(refreshToken);
    });

    // 13. The coordinator.
    RecordingCoordinatorHooks hooks;
    std::weak_ptr<SessionManager> weakSessions = sessionManager;
    std::weak_ptr<UpdateService> weakUpdates = updateService;
    hooks.isUpdateRequired = [weakUpdates] {
        const auto updates = weakUpdates.lock();
        return updates && updates->isUpdateRequired();
    };
    hooks.currentProfileName = [weakSessions]() -> std::optional<std::string> {
        const auto sessions = weakSessions.lock();
        const auto session = sessions ? sessions->session() : std::nullopt;
        if (!session) {
            return std::nullopt;
        }
        const std::string& email = session->user.email;
        const auto at = email.find('@');
        return at == std::string::npos || at == 0 ? email : email.substr(0, at);
    };
    hooks.currentAccessToken = [weakSessions]() -> std::optional<std::string> {
        const auto sessions = weakSessions.lock();
        return sessions ? sessions->currentAccessToken() : std::nullopt;
    };
    RecordingCoordinator::Services services;
    services.config = config;
    services.api = recordingAPI;
    services.recorder = recorder;
    services.uploader = uploadWorker;
    services.chunkStore = chunkStore;
    services.recoveryStore = recoveryStore;
    services.mapping = mappingService;
    services.finalizeService = finalizeService;
    services.diagnostics = diagnostics;
    services.clock = clock;
    services.logger = logger;
    coordinator = RecordingCoordinator::create(std::move(services), std::move(hooks), coordinatorTimings());

    // 14. Session changes reach the upload worker and the coordinator.
    wireSession();
}

void AppEnvironment::buildMockWorld(const Options& options) {
    mockBackend = std::make_shared<MockBackend>(clock);
    recordingStatusProvider =
        std::make_shared<MockRecordingStatusProvider>(mockBackend, mockTranscribeWindow, mockGenerateWindow);
    if (const auto delay = parseSeconds(options.env("KAVELO_MOCK_MAPPING_DELAY"))) {
        mockBackend->setMappingDelay(*delay);
    }
    auto mockHTTP = std::make_shared<MockUploadHTTPClient>(mockBackend);
    http = mockHTTP;
    functions = std::make_shared<SupabaseFunctionClient>(config, http, sessionManager, logger);
    rest = std::make_shared<SupabaseRestClient>(config, http, sessionManager);
    demoEmail = MockAuthService::demoEmail;
    demoPassword = MockAuthService::demoPassword;
    authService = std::make_shared<MockAuthService>(
        clock, std::map<std::string, std::string>{{demoEmail, demoPassword}}, demoEmail);
    recordingAPI = std::make_shared<MockRecordingAPI>(mockBackend);
    auto urls = std::make_shared<MockSignedURLProvider>();
    urls->setFailuresBeforeSuccess(0);
    urls->setFailStatus(500);
    std::shared_ptr<UploadWorker> worker =
        LiveUploadWorker::create(chunkStore, http, urls, clock, logger, uploadWorkerConfig());
    uploadWorker = options.decorateUploader ? options.decorateUploader(worker) : worker;

    std::shared_ptr<NativeRecorder> native;
    if (options.env("KAVELO_RECORDER") == std::optional<std::string>("mock")) {
        MockRecorder::Behavior behavior; // one 96 KiB chunk a second, no failures, both permissions granted
        native = std::make_shared<MockRecorder>(behavior, clock, uploadWorker);
        recorderKind = "mock";
    } else {
#if KAVELO_HAVE_CAPTURE
        native = makeLinuxNativeRecorder(uploadWorker, logger, clock);
        recorderKind = "linux";
#else
        native = std::make_shared<MockRecorder>(MockRecorder::Behavior{}, clock, uploadWorker);
        recorderKind = "mock";
#endif
    }
    recorder = options.decorateRecorder ? options.decorateRecorder(native) : native;
}

void AppEnvironment::buildLiveWorld(const Options& options) {
    http = std::make_shared<CurlHTTPClient>();
    functions = std::make_shared<SupabaseFunctionClient>(config, http, sessionManager, logger);
    rest = std::make_shared<SupabaseRestClient>(config, http, sessionManager);
    authService = std::make_shared<LiveAuthService>(config, http, functions, clock);
    recordingAPI = std::make_shared<LiveRecordingAPI>(functions, rest);
    recordingStatusProvider = std::make_shared<LiveRecordingStatusProvider>(rest);
    auto urls = std::make_shared<LiveSignedURLProvider>(config, http);
    std::shared_ptr<UploadWorker> worker =
        LiveUploadWorker::create(chunkStore, http, urls, clock, logger, uploadWorkerConfig());
    uploadWorker = options.decorateUploader ? options.decorateUploader(worker) : worker;
#if KAVELO_HAVE_CAPTURE
    std::shared_ptr<NativeRecorder> native = makeLinuxNativeRecorder(uploadWorker, logger, clock);
    recorderKind = "linux";
#else
    std::shared_ptr<NativeRecorder> native =
        std::make_shared<MockRecorder>(MockRecorder::Behavior{}, clock, uploadWorker);
    recorderKind = "mock";
#endif
    recorder = options.decorateRecorder ? options.decorateRecorder(native) : native;
}

void AppEnvironment::buildWorkspaceServices(const InfoDictionary& info, const LogSink& sink) {
    std::weak_ptr<KeyValueStore> weakStore = keyValueStore;
    auto language = [weakStore]() -> std::string {
        const auto store = weakStore.lock();
        return store ? store->string(std::string(KaveloCopy::kLanguageKey)).value_or("nl") : "nl";
    };
    std::shared_ptr<UpdateBackend> updates;
    std::shared_ptr<TipsBackend> tips;
    if (usesMockServices) {
        updates = std::make_shared<MockUpdateBackend>(config.appVersion, language);
        tips = std::make_shared<MockTipsBackend>(language);
    } else {
        updatePolicyUrl = EnvironmentSettings::updatePolicyUrl(info, config.supabaseUrl);
        updates = std::make_shared<StaticJSONUpdateBackend>(updatePolicyUrl, http);
        tips = std::make_shared<LiveTipsBackend>(functions);
    }
    updateService = std::make_shared<UpdateService>(updates, keyValueStore, config.appVersion, clock);
    tipsService = std::make_shared<TipsService>(tips, keyValueStore);
    tipsService->setOnEvent([sink](const std::string& message) { sink(LogLevel::info, "tips", message); });
    featureFlagService = std::make_shared<FeatureFlagService>(nullptr, keyValueStore);
    recentsStore = std::make_shared<RecentsStore>(keyValueStore);
}

void AppEnvironment::wireSession() {
    // The cached tips belong to the account that fetched them.
    std::weak_ptr<KeyValueStore> weakStore = keyValueStore;
    sessionManager->onSignOut([weakStore] {
        if (const auto store = weakStore.lock()) {
            store->removeValue(TipsService::kCacheKey);
        }
    });
    const auto initial = sessionManager->session();
    auto box = std::make_shared<LastUserIdBox>(initial ? std::optional<std::string>(initial->user.id)
                                                       : std::nullopt);
    std::weak_ptr<UploadWorker> weakWorker = uploadWorker;
    sessionManager->onChange([box, weakWorker](const SessionManager::State& state) {
        const auto worker = weakWorker.lock();
        if (state.isSignedIn()) {
            if (worker) {
                worker->updateAuthToken(state.session()->accessToken);
            }
            // Per-user workspace state arrives with later services; the box already tells a switch apart.
            (void)box->replace(state.session()->user.id);
        } else if (worker) {
            worker->updateAuthToken(std::nullopt);
        }
    });
}

UploadWorker::Config AppEnvironment::uploadWorkerConfig() {
    UploadWorker::Config c;
    c.urlBatchSize = 50;
    c.maxUploadAttempts = 15;
    c.uploadTimeout = 60;
    c.urlFetchAuthFailureBackoff = 120;
    c.urlFetchFailureBackoff = 30;
    c.maxParallelUploads = 4;
    return c;
}

SpeakerMappingService::Config AppEnvironment::mappingConfig() {
    SpeakerMappingService::Config c;
    c.onDemandThresholdSeconds = 600;
    c.longPollInterval = 2;
    c.longPollDeadline = 10;
    c.onDemandUploadWait = 12;
    c.onDemandPollInterval = 1.5;
    c.onDemandPollDeadline = 15;
    c.gracePolls = 2;
    return c;
}

FinalizeService::Config AppEnvironment::finalizeConfig() {
    FinalizeService::Config c;
    c.pollInterval = 0.5;
    c.noProgressTimeout = 60;
    c.absoluteTimeout = 600;
    return c;
}

RecordingCoordinator::Timings AppEnvironment::coordinatorTimings() {
    RecordingCoordinator::Timings t;
    t.noFirstChunkWarning = 30;
    t.processingMin = 1.5;
    t.processingMax = 15;
    t.processingChunkFailsafe = 8;
    t.processingPhase1Delay = 0.75;
    t.processingPhase3Delay = 0.45;
    t.processingOpenDelay = 0.35;
    t.heartbeatInterval = 60;
    t.maxPause = 7200;
    t.onDemandUploadWait = 12;
    t.longRecordingThreshold = 600;
    t.minDiskBytes = 734003200;
    return t;
}

AppEnvironment::~AppEnvironment() = default;

} // namespace kavelo
