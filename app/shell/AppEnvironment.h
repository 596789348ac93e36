#pragma once

#include "app/shell/AppEnvironmentMode.h"
#include "app/shell/EnvironmentError.h"
#include "app/shell/InfoDictionary.h"
#include "core/accounts/AuthService.h"
#include "core/accounts/OAuthPrepareCache.h"
#include "core/accounts/SessionManager.h"
#include "core/accounts/SessionStore.h"
#include "core/backend/FinalizeService.h"
#include "core/backend/RecordingAPI.h"
#include "core/backend/SpeakerMappingService.h"
#include "core/backend/SupabaseFunctionClient.h"
#include "core/backend/SupabaseRestClient.h"
#include "core/mock/MockBackend.h"
#include "core/recording/DiagnosticsCollector.h"
#include "core/recording/NativeRecorder.h"
#include "core/recording/RecordingCoordinator.h"
#include "core/recording/RecoveryStore.h"
#include "core/support/AppConfig.h"
#include "core/support/Clock.h"
#include "core/support/CoreLogger.h"
#include "core/support/KeyValueStore.h"
#include "core/transport/ChunkStore.h"
#include "core/transport/UploadWorker.h"
#include "core/workspace/DashboardActivityCenter.h"
#include "core/workspace/RecordingStatusProviding.h"
#include "core/workspace/FeatureFlagService.h"
#include "core/workspace/RecentsStore.h"
#include "core/workspace/TipsService.h"
#include "core/workspace/UpdateService.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kavelo {

// The composition root: builds every long-lived service once, live or mock, wires them together with
// closures and holds them for the life of the process. It alone knows every module. Nothing in its
// interface is a Qt type, so the command-line tool and the desktop application compose the same world.
class AppEnvironment {
  public:
    using Mode = AppEnvironmentMode;

    // Where the session lives. The desktop keeps it in the Secret Service; a headless machine without
    // one may keep it in a file readable by the user alone, but only when asked to.
    enum class SessionStorage { secretService, file, memory };

    // One line for the platform log: level, category ("core", "rec", "keychain") and text.
    using LogSink = std::function<void(LogLevel, const std::string& category, const std::string& message)>;

    struct Options {
        EnvironmentReader env = processEnvironment();
        std::optional<InfoDictionary> info; // absent: InfoDictionary::load(env)
        SessionStorage sessionStorage = SessionStorage::secretService;
        std::filesystem::path sessionFile; // with SessionStorage::file; empty: "<data>/session.json"
        LogSink logSink;                   // absent: stderr
        // The preferences file; empty keeps preferences in memory for this run (kavelo-cli, tests).
        std::filesystem::path preferencesFile;
        // Let a front end watch the recorder's and the upload worker's events without the core knowing
        // it: each decorator wraps the service before anything else holds it.
        std::function<std::shared_ptr<NativeRecorder>(std::shared_ptr<NativeRecorder>)> decorateRecorder;
        std::function<std::shared_ptr<UploadWorker>(std::shared_ptr<UploadWorker>)> decorateUploader;
    };

    // Both throw EnvironmentError, before any service exists, when the info file is broken or the live
    // world has no backend to talk to; the mock world is only ever chosen by name.
    static Mode detectMode(const Options& options);
    AppEnvironment(Mode mode, Options options);
    ~AppEnvironment();
    AppEnvironment(const AppEnvironment&) = delete;
    AppEnvironment& operator=(const AppEnvironment&) = delete;

    const Mode mode;
    const AppConfig config;
    const bool usesMockServices;
    // The recorder actually wired in, for people to read: "mock" or "linux".
    std::string recorderKind;
    // The mock world's demo account; empty in the live world.
    std::string demoEmail;
    std::string demoPassword;

    std::shared_ptr<Clock> clock;
    std::shared_ptr<CoreLogger> logger;
    std::shared_ptr<OAuthPrepareCache> prepareCache;
    std::shared_ptr<KeyValueStore> keyValueStore;
    std::shared_ptr<SessionManager> sessionManager;
    std::shared_ptr<HTTPClient> http;
    std::shared_ptr<SupabaseFunctionClient> functions;
    std::shared_ptr<SupabaseRestClient> rest;
    std::shared_ptr<AuthService> authService;
    std::shared_ptr<RecordingAPI> recordingAPI;
    std::shared_ptr<ChunkStore> chunkStore;
    std::shared_ptr<UploadWorker> uploadWorker;
    std::shared_ptr<NativeRecorder> recorder;
    std::shared_ptr<RecoveryStore> recoveryStore;
    std::shared_ptr<SpeakerMappingService> mappingService;
    std::shared_ptr<FinalizeService> finalizeService;
    std::shared_ptr<DiagnosticsCollector> diagnostics;
    std::shared_ptr<RecordingCoordinator> coordinator;
    std::shared_ptr<DashboardActivityCenter> dashboardActivity;
    std::shared_ptr<RecordingStatusProviding> recordingStatusProvider;
    std::shared_ptr<MockBackend> mockBackend; // only with mock services
    std::shared_ptr<UpdateService> updateService;
    std::shared_ptr<TipsService> tipsService;
    std::shared_ptr<FeatureFlagService> featureFlagService; // no backend: the flags stay as cached or default
    std::shared_ptr<RecentsStore> recentsStore;
    // Where the live world reads its update policy; empty in the mock world.
    std::string updatePolicyUrl;

    // The values fixed for every world.
    static UploadWorker::Config uploadWorkerConfig();
    static SpeakerMappingService::Config mappingConfig();
    static FinalizeService::Config finalizeConfig();
    static RecordingCoordinator::Timings coordinatorTimings();
    // Seconds a submitted recording spends transcribing, then generating, in the mock world.
    static constexpr double mockTranscribeWindow = 8.0;
    static constexpr double mockGenerateWindow = 10.0;

  private:
    AppEnvironment(Mode mode, Options options, InfoDictionary info);
    void buildMockWorld(const Options& options);
    void buildLiveWorld(const Options& options);
    void buildWorkspaceServices(const InfoDictionary& info, const LogSink& sink);
    void wireSession();

    std::shared_ptr<SessionStore> sessionStore_;
};

} // namespace kavelo
