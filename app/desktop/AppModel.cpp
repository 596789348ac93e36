#include "app/desktop/AppModel.h"

#include "app/desktop/AudioLevels.h"
#include "app/desktop/MeetingDetection.h"
#include "app/shell/AppEnvironment.h"
#include "app/shell/DeviceSelection.h"
#include "core/accounts/AuthError.h"
#include "core/recording/PreflightContext.h"
#include "core/recording/RecordingPhase.h"
#include "core/recording/SystemAudioMode.h"
#include "core/workspace/SemVer.h"

#include <QDateTime>
#include <algorithm>

#include <QDesktopServices>
#include <QMetaObject>
#include <QPointer>

namespace kavelo {

namespace {

QString qs(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

QVariantList deviceList(const std::vector<AudioDevice>& devices) {
    QVariantList list;
    for (const auto& device : devices) {
        list.append(QVariantMap{{QStringLiteral("id"), qs(device.id)},
                                {QStringLiteral("name"), qs(device.name)},
                                {QStringLiteral("isDefault"), device.isDefault}});
    }
    return list;
}

std::string_view blockerKey(StartBlocker::Kind kind) {
    switch (kind) {
    case StartBlocker::Kind::backend:
        return "record.blocker_backend";
    case StartBlocker::Kind::signedOut:
        return "record.blocker_signed_out";
    case StartBlocker::Kind::updateRequired:
        return "record.blocker_update_required";
    case StartBlocker::Kind::microphonePermission:
        return "record.blocker_microphone";
    case StartBlocker::Kind::systemAudioPermission:
        return "record.blocker_system_audio";
    case StartBlocker::Kind::audioDeviceMissing:
        return "record.blocker_device_missing";
    case StartBlocker::Kind::offline:
        return "record.blocker_offline";
    case StartBlocker::Kind::insufficientDiskSpace:
        return "record.blocker_disk_space";
    }
    return "record.blocker_backend";
}

QString isoText(TimePoint date) {
    return QDateTime::fromMSecsSinceEpoch(
               std::chrono::duration_cast<std::chrono::milliseconds>(date.time_since_epoch()).count(),
               Qt::UTC)
        .toString(Qt::ISODateWithMs);
}

template <class T> bool store(T& field, const T& value) {
    if (field == value) {
        return false;
    }
    field = value;
    return true;
}

} // namespace

AppModel::AppModel(AppEnvironment& env, Texts texts, QObject* parent)
    : QObject(parent), env_(env), texts_(std::move(texts)), onboarding_(env.keyValueStore),
      dashboardPreferences_(env.keyValueStore), sessionHealth_(env.sessionManager, env.clock, env.logger) {
    // The indicator folds to a small dot after a few seconds, out of the way of the meeting.
    indicatorCollapse_.setSingleShot(true);
    indicatorCollapse_.setInterval(5000);
    connect(&indicatorCollapse_, &QTimer::timeout, this, [this] { setIndicatorCollapsed(true); });
    activityPoll_.setSingleShot(true);
    activityPoll_.setInterval(5000);
    connect(&activityPoll_, &QTimer::timeout, this, &AppModel::pollActivity);
    tipsEnabled_ = env_.tipsService->tipsEnabled();
    // Core services report on their own threads; only the main thread touches the model, so each report
    // becomes a queued call that finds the model gone if it went meanwhile.
    QPointer<AppModel> self(this);
    env_.coordinator->onPhaseChange([self](RecordingPhase) {
        QMetaObject::invokeMethod(
            self,
            [self] {
                if (self) {
                    self->applyCoordinatorState(true);
                }
            },
            Qt::QueuedConnection);
    });
    env_.coordinator->onTick([self] {
        QMetaObject::invokeMethod(
            self,
            [self] {
                if (self) {
                    self->applyCoordinatorState(false);
                }
            },
            Qt::QueuedConnection);
    });
    env_.sessionManager->onChange([self](const SessionManager::State&) {
        QMetaObject::invokeMethod(
            self,
            [self] {
                if (self) {
                    self->applySession();
                }
            },
            Qt::QueuedConnection);
    });
    applyCoordinatorState(true);
    if (env_.sessionManager->session()) {
        // A session kept from an earlier run: its token may have expired while the program was closed.
        runInBackground([this] { env_.coordinator->sessionDidSignIn(); });
        applySession();
        checkSessionHealth();
    } else if (env_.usesMockServices) {
        // The mock world's demo account signs itself in, as the command-line tool's does.
        runInBackground([this] {
            try {
                env_.sessionManager->install(env_.authService->signIn(env_.demoEmail, env_.demoPassword));
                env_.coordinator->sessionDidSignIn();
            } catch (const std::exception& error) {
                env_.logger->error(std::string("demo sign-in failed: ") + error.what());
            }
        });
    }
    refreshDevices();
}

AppModel::~AppModel() {
    std::vector<Task> tasks;
    {
        std::lock_guard lock(tasksMutex_);
        tasks.swap(tasks_);
    }
    for (const auto& task : tasks) {
        task.join();
    }
}

void AppModel::runInBackground(std::function<void()> work) {
    auto task = Task::run(std::move(work));
    std::lock_guard lock(tasksMutex_);
    std::erase_if(tasks_, [](const Task& t) { return t.isFinished(); });
    tasks_.push_back(std::move(task));
}

void AppModel::applyCoordinatorState(bool withPhase) {
    auto& coordinator = *env_.coordinator;
    bool enteredSuccess = false;
    if (withPhase) {
        const auto phase = qs(toRaw(coordinator.phase()));
        if (phase == QStringLiteral("idle") &&
            (phase_ == QStringLiteral("success") || phase_.startsWith(QStringLiteral("error_")))) {
            setMeetingName({});
        }
        const bool wasRecording = menuBarShowsRecording();
        if (store(phase_, phase)) {
            emit phaseChanged();
            emit derivedChanged();
            notifyPhase(wasRecording);
            enteredSuccess = phase_ == QStringLiteral("success");
        }
    }
    const auto warnings = coordinator.warnings();
    QStringList warningList;
    if (warnings.deviceWarning) {
        warningList << QStringLiteral("device");
    }
    if (warnings.noAudio) {
        warningList << QStringLiteral("no_audio");
    }
    if (warnings.offlineBuffering) {
        warningList << QStringLiteral("offline");
    }
    if (warnings.routeChange) {
        warningList << QStringLiteral("route_changed");
    }
    if (warnings.systemAudioFallback) {
        warningList << QStringLiteral("system_audio_fallback");
    }
    if (warnings.diskFull) {
        warningList << QStringLiteral("disk_full");
    }
    if (warnings.diskSpaceLow) {
        warningList << QStringLiteral("disk_space_low");
    }
    if (store(warnings_, warningList)) {
        emit warningsChanged();
    }
    QString blocker;
    if (const auto startBlocker = coordinator.startBlocker()) {
        blocker = startBlocker->kind() == StartBlocker::Kind::backend && !startBlocker->text().empty()
                      ? qs(startBlocker->text())
                      : qs(texts_(blockerKey(startBlocker->kind())));
    }
    if (store(startBlocker_, blocker)) {
        emit startBlockerChanged();
    }
    QVariantList missing;
    for (const int sequence : coordinator.missingChunks()) {
        missing.append(sequence);
    }
    if (store(missingChunks_, missing)) {
        emit missingChunksChanged();
    }
    if (store(isMappingInFlight_, coordinator.isMappingInFlight())) {
        emit isMappingInFlightChanged();
    }
    if (store(elapsedSeconds_, coordinator.elapsedActiveSeconds())) {
        emit elapsedSecondsChanged();
    }
    QString line;
    switch (coordinator.processingLine()) {
    case ProcessingLine::secured:
        line = QStringLiteral("secured");
        break;
    case ProcessingLine::searching:
        line = QStringLiteral("searching");
        break;
    case ProcessingLine::preparingList:
        line = QStringLiteral("preparing_list");
        break;
    case ProcessingLine::ready:
        line = QStringLiteral("ready");
        break;
    }
    if (store(processingLine_, line)) {
        emit processingLineChanged();
    }
    QVariantMap summary;
    if (const auto success = coordinator.successSummary()) {
        summary = {{QStringLiteral("meetingName"), qs(success->meetingName)},
                   {QStringLiteral("durationSeconds"), success->durationSeconds},
                   {QStringLiteral("externalRecipientCount"), success->externalRecipientCount}};
    }
    if (store(successSummary_, summary)) {
        emit successSummaryChanged();
    }
    // The review screens read the coordinator themselves; this tells them to read again.
    static const QStringList reviewPhases{QStringLiteral("speaker_review"), QStringLiteral("share_review"),
                                          QStringLiteral("waiting_for_uploads"),
                                          QStringLiteral("finalizing")};
    if (reviewPhases.contains(phase_)) {
        ++speakerRevision_;
        emit speakerRevisionChanged();
    }
    updateLiveIndicator();
    // After the summary above: the dashboard takes the meeting's name from it.
    if (enteredSuccess) {
        enterSuccess();
    }
}

void AppModel::enterSuccess() {
    const auto id = userId();
    if (!id) {
        return;
    }
    dashboardPreferences_.markRecorded(*id);
    if (detection_) {
        detection_->forgetPrompts();
    }
    if (const auto recordingId = env_.coordinator->currentRecordingId()) {
        if (store(successRecordingId_, qs(*recordingId))) {
            emit successRecordingIdChanged();
        }
        const auto name = successSummary_.value(QStringLiteral("meetingName")).toString().toStdString();
        setDashboardActivity(env_.dashboardActivity->queue(*id, *recordingId, std::nullopt, name));
        ensureActivityPolling();
    }
}

void AppModel::notifyPhase(bool wasRecording) {
    const auto text = [this](std::string_view key) { return qs(texts_(key)); };
    if (phase_ == QStringLiteral("recording") && !wasRecording &&
        env_.keyValueStore->boolean("kavelo_notify_started").value_or(true)) {
        emit notificationWanted(text("desktop.notify_started_title"), text("desktop.notify_started_body"),
                                text("desktop.notify_action_open"));
    } else if (phase_ == QStringLiteral("success")) {
        emit notificationWanted(text("desktop.notify_handover_title"), text("desktop.notify_handover_body"),
                                text("desktop.notify_action_open"));
    }
}

void AppModel::onMain(std::function<void(AppModel&)> change) {
    QPointer<AppModel> self(this);
    QMetaObject::invokeMethod(
        this,
        [self, change = std::move(change)] {
            if (self) {
                change(*self);
            }
        },
        Qt::QueuedConnection);
}

void AppModel::applySession() {
    const auto session = env_.sessionManager->session();
    const bool wasSignedIn = isSignedIn_;
    if (store(isSignedIn_, session.has_value())) {
        emit isSignedInChanged();
        emit derivedChanged();
    }
    QVariantMap profile;
    if (session) {
        // There is no profile service yet: the profile is the session's user, and the mock world's demo
        // account has its demo name.
        profile = {{QStringLiteral("userId"), qs(session->user.id)},
                   {QStringLiteral("email"), qs(session->user.email)},
                   {QStringLiteral("fullName"),
                    env_.usesMockServices ? QStringLiteral("Demo Gebruiker") : QString()}};
    }
    if (store(profile_, profile)) {
        emit profileChanged();
        emit derivedChanged();
    }
    if (session) {
        if (sessionExpired_) {
            sessionExpired_ = false;
            emit sessionExpiredChanged();
        }
        if (!wasSignedIn) {
            runInBackground([this, signedIn = *session] { postSignIn(signedIn); });
            if (detection_) {
                detection_->start();
            }
        }
        return;
    }
    if (!wasSignedIn) {
        return;
    }
    if (detection_) {
        detection_->stop();
    }
    runInBackground([this] { env_.coordinator->sessionDidSignOut(); });
    setOnboardingStep(QStringLiteral("welcome"));
    setMeetingName({});
    activityPoll_.stop();
    if (!dashboardActivity_.isEmpty()) {
        dashboardActivity_.clear();
        emit dashboardActivityChanged();
    }
    if (!tips_.isEmpty()) {
        tips_.clear();
        emit tipsChanged();
    }
    if (store(successRecordingId_, QString())) {
        emit successRecordingIdChanged();
    }
    if (store(elapsedSeconds_, 0)) {
        emit elapsedSecondsChanged();
    }
}

std::optional<std::string> AppModel::userId() const {
    if (const auto session = env_.sessionManager->session()) {
        return session->user.id;
    }
    return std::nullopt;
}

OnboardingFlow::AudioPermissions AppModel::permissions() const {
    auto state = [](const QString& raw) {
        return fromRaw<PermissionState>(raw.toStdString()).value_or(PermissionState::notDetermined);
    };
    return {state(micPermission_), state(systemAudioPermission_), state(audioCapturePermission_)};
}

void AppModel::postSignIn(const AuthSession& session) {
    // Runs on a worker: each step that the screens see is handed to the main thread.
    const std::string id = session.user.id;
    const bool otherUser = onboarding_.rememberUser(id);
    if (otherUser) {
        // Names and addresses another account used are not suggested to this one.
        env_.recentsStore->clear();
        env_.tipsService->setTipsEnabled(true);
    }
    auto& recorder = *env_.recorder;
    const OnboardingFlow::AudioPermissions granted{recorder.checkMicrophonePermission(),
                                                   recorder.checkSystemAudioPermission(),
                                                   recorder.checkAudioCapturePermission()};
    const auto step = onboarding_.stepAfterSignIn(id, granted);
    onMain([granted, step, otherUser](AppModel& model) {
        model.micPermission_ = qs(toRaw(granted.microphone));
        model.systemAudioPermission_ = qs(toRaw(granted.systemAudio));
        model.audioCapturePermission_ = qs(toRaw(granted.audioCapture));
        emit model.permissionsChanged();
        emit model.derivedChanged();
        if (step) {
            model.setOnboardingStep(qs(*step));
        }
        if (otherUser) {
            model.setTipsEnabled(true);
        }
        model.refreshDevices();
        model.initializeDashboardEducation();
        model.reloadDashboardActivity();
        model.checkForUpdates();
        model.loadTips();
    });
    const std::string userName = env_.usesMockServices ? "Demo Gebruiker" : session.user.email;
    // A recording an earlier run left behind (a crash, a shutdown mid-meeting) comes back for review.
    env_.coordinator->recoverIfNeeded(session.user, userName);
}

void AppModel::setOnboardingStep(const QString& step) {
    if (store(onboardingStep_, step)) {
        emit onboardingStepChanged();
    }
}

void AppModel::setSelectedMicrophoneId(const QString& id) {
    if (selectedMicrophoneId_ != id) {
        selectedMicrophoneId_ = id;
        emit selectedMicrophoneIdChanged();
    }
}

void AppModel::setSystemAudioMode(const QString& mode) {
    if (systemAudioMode_ != mode) {
        systemAudioMode_ = mode;
        emit systemAudioModeChanged();
        emit derivedChanged();
    }
}

void AppModel::setSelectedSystemSourceId(const QString& id) {
    if (selectedSystemSourceId_ != id) {
        selectedSystemSourceId_ = id;
        emit selectedSystemSourceIdChanged();
    }
}

void AppModel::setMeetingName(const QString& name) {
    if (meetingName_ != name) {
        meetingName_ = name;
        emit meetingNameChanged();
    }
}

void AppModel::setTipsEnabled(bool enabled) {
    env_.tipsService->setTipsEnabled(enabled);
    if (tipsEnabled_ != enabled) {
        tipsEnabled_ = enabled;
        emit tipsEnabledChanged();
        loadTips();
    }
}

void AppModel::setRequestedSection(const QString& section) {
    if (requestedSection_ != section) {
        requestedSection_ = section;
        emit requestedSectionChanged();
    }
}

void AppModel::setRequestedSettingsSection(const QString& section) {
    if (requestedSettingsSection_ != section) {
        requestedSettingsSection_ = section;
        emit requestedSettingsSectionChanged();
    }
}

void AppModel::setIndicatorCollapsed(bool collapsed) {
    if (indicatorCollapsed_ != collapsed) {
        indicatorCollapsed_ = collapsed;
        emit indicatorCollapsedChanged();
    }
}

void AppModel::setOnline(bool online) {
    if (online_ != online) {
        online_ = online;
        emit onlineChanged();
        // Once per offline period: the token may have run out while nothing could refresh it.
        if (online_) {
            checkSessionHealth();
        }
    }
}

bool AppModel::canStartFromUI() const {
    return phase_ == QStringLiteral("idle") && isSignedIn_;
}

bool AppModel::menuBarShowsRecording() const {
    static const QStringList recordingPhases{QStringLiteral("recording"),
                                             QStringLiteral("recording_device_warning"),
                                             QStringLiteral("recording_no_audio_warning"),
                                             QStringLiteral("recording_offline_buffering"),
                                             QStringLiteral("recording_route_changed"),
                                             QStringLiteral("stop_confirm"),
                                             QStringLiteral("paused_user"),
                                             QStringLiteral("resuming"),
                                             QStringLiteral("interrupted_system"),
                                             QStringLiteral("resume_failed")};
    return recordingPhases.contains(phase_);
}

bool AppModel::callAudioUnavailable() const {
    return systemAudioMode_ == QStringLiteral("system") &&
           systemAudioPermission_ == QStringLiteral("granted") &&
           audioCapturePermission_ != QStringLiteral("granted");
}

bool AppModel::isRestrictedOrgMember() const {
    const auto role = profile_.value(QStringLiteral("role")).toString();
    return role == QStringLiteral("member") || role == QStringLiteral("reader");
}

QStringList AppModel::visibleSidebarSections() const {
    if (isRestrictedOrgMember()) {
        return {QStringLiteral("home"), QStringLiteral("settings")};
    }
    return {QStringLiteral("home"), QStringLiteral("team"), QStringLiteral("settings")};
}

bool AppModel::mockMode() const {
    return env_.usesMockServices;
}

void AppModel::startRecording() {
    const auto session = env_.sessionManager->session();
    if (!session || !canStartFromUI()) {
        return;
    }
    PreflightContext context;
    context.user = session->user;
    const auto fullName = profile_.value(QStringLiteral("fullName")).toString();
    context.userName = fullName.isEmpty() ? session->user.email : fullName.toStdString();
    if (!meetingName_.trimmed().isEmpty()) {
        context.meetingName = meetingName_.trimmed().toStdString();
    }
    context.microphoneDeviceId = selectedMicrophoneId_.toStdString();
    const auto mode =
        fromRaw<SystemAudioMode>(systemAudioMode_.toStdString()).value_or(SystemAudioMode::system);
    context.systemAudioMode =
        systemAudioPermission_ == QStringLiteral("denied") ? SystemAudioMode::off : mode;
    if (mode == SystemAudioMode::app) {
        context.systemAudioTargetId = selectedSystemSourceId_.toStdString();
    }
    if (!selectedOutputId_.isEmpty()) {
        context.outputDeviceId = selectedOutputId_.toStdString();
    }
    context.outputLanguage = env_.keyValueStore->string("kavelo_output_language").value_or("nl");
    if (levels_) {
        levels_->resetRecording();
        levels_->stopTest();
    }
    // The meters outlive the model, whose tasks end in its destructor.
    runInBackground([this, context, levels = levels_] {
        if (levels) {
            levels->waitUntilTestIdle();
        }
        auto& coordinator = *env_.coordinator;
        coordinator.startRecording(context);
        const auto phase = coordinator.phase();
        const bool started =
            (phase >= RecordingPhase::recording && phase <= RecordingPhase::recordingRouteChanged) ||
            phase == RecordingPhase::stopConfirm;
        if (started) {
            const bool attachWord = env_.keyValueStore->boolean("kavelo_default_attach_word").value_or(false);
            const bool transcript =
                env_.keyValueStore->boolean("kavelo_default_include_transcription").value_or(true);
            coordinator.updateShare([attachWord, transcript](ShareComposer& share) {
                share.attachmentWord = attachWord;
                share.includeTranscription = transcript;
            });
        }
    });
}

void AppModel::stopRecording() {
    runInBackground([this] {
        auto& coordinator = *env_.coordinator;
        switch (coordinator.phase()) {
        case RecordingPhase::pausedUser:
            coordinator.stopFromPause();
            break;
        case RecordingPhase::stopConfirm:
            coordinator.stopConfirmed();
            break;
        default:
            // The dashboard's stop button is the confirmation itself.
            coordinator.stopTapped();
            if (coordinator.phase() == RecordingPhase::stopConfirm) {
                coordinator.stopConfirmed();
            }
        }
    });
}

void AppModel::pauseRecording() {
    runInBackground([this] { env_.coordinator->pauseRecording(); });
}

void AppModel::resumeRecording() {
    runInBackground([this] { env_.coordinator->resumeRecording(); });
}

void AppModel::signInWithPassword(const QString& email, const QString& password) {
    runInBackground([this, email = email.trimmed().toStdString(), password = password.toStdString()] {
        try {
            const auto session = env_.authService->signIn(email, password);
            // A known account: it answered the questionnaire when it was made, if ever.
            onboarding_.passwordSignIn(session.user.id);
            env_.sessionManager->install(session);
            env_.coordinator->sessionDidSignIn();
        } catch (const AuthError& error) {
            onMain([kind = qs(toRaw(error.kind()))](AppModel& model) { emit model.signInFailed(kind); });
        } catch (const std::exception& error) {
            env_.logger->error(std::string("sign-in failed: ") + error.what());
            onMain([](AppModel& model) { emit model.signInFailed(QStringLiteral("unknown")); });
        }
    });
}

void AppModel::signOut() {
    runInBackground([this] {
        const auto session = env_.sessionManager->session();
        env_.sessionManager->signOut();
        if (session) {
            try {
                env_.authService->signOut(session->accessToken);
            } catch (const std::exception& error) {
                env_.logger->warn(std::string("sign-out at the server failed: ") + error.what());
            }
        }
    });
}
void AppModel::refreshDevices() {
    QPointer<AppModel> self(this);
    runInBackground([this, self] {
        // Asking the audio server can take a moment; the lists come back to the main thread.
        auto microphones = env_.recorder->listMicrophones();
        auto outputs = env_.recorder->listOutputDevices();
        auto sources = env_.recorder->listSystemAudioSources();
        QMetaObject::invokeMethod(
            self,
            [self, microphones, outputs, sources] {
                if (!self) {
                    return;
                }
                self->microphones_ = deviceList(microphones);
                self->outputs_ = deviceList(outputs);
                self->systemSources_ = deviceList(sources);
                emit self->devicesChanged();
                self->setSelectedMicrophoneId(
                    qs(DeviceSelection::microphone(microphones, self->selectedMicrophoneId_.toStdString())));
                if (store(self->selectedOutputId_, qs(DeviceSelection::output(outputs)))) {
                    emit self->selectedOutputIdChanged();
                }
            },
            Qt::QueuedConnection);
    });
}
void AppModel::setDashboardActivity(const std::vector<DashboardActivityItem>& items) {
    QVariantList list;
    for (const auto& item : items) {
        list.append(QVariantMap{
            {QStringLiteral("id"), qs(item.id)},
            {QStringLiteral("recordingId"), qs(item.recordingId)},
            {QStringLiteral("meetingName"), qs(item.meetingName)},
            {QStringLiteral("phase"), qs(toRaw(item.phase))},
            {QStringLiteral("submittedAt"), isoText(item.submittedAt)},
            {QStringLiteral("deliveredAt"), item.deliveredAt ? isoText(*item.deliveredAt) : QString()},
            {QStringLiteral("recipientCount"), item.recipientCount.value_or(-1)},
            {QStringLiteral("slow"), item.slow}});
    }
    if (store(dashboardActivity_, list)) {
        emit dashboardActivityChanged();
    }
}

void AppModel::reloadDashboardActivity() {
    const auto id = userId();
    if (!id) {
        return;
    }
    setDashboardActivity(env_.dashboardActivity->items(*id));
    refreshDashboardEducation();
    ensureActivityPolling();
}

void AppModel::ensureActivityPolling() {
    const bool pending =
        std::any_of(dashboardActivity_.cbegin(), dashboardActivity_.cend(), [](const QVariant& item) {
            return item.toMap().value(QStringLiteral("phase")).toString() != QStringLiteral("delivered");
        });
    if (pending && !activityPollRunning_ && !activityPoll_.isActive()) {
        pollActivity();
    }
}

void AppModel::pollActivity() {
    const auto id = userId();
    if (!id || activityPollRunning_) {
        return;
    }
    activityPollRunning_ = true;
    runInBackground([this, id = *id] {
        auto items = env_.dashboardActivity->refresh(id, *env_.recordingStatusProvider);
        onMain([items = std::move(items), id](AppModel& model) {
            model.activityPollRunning_ = false;
            // A sign-out or another account while the backend was asked: the answer is not theirs.
            if (model.userId() != id) {
                return;
            }
            model.setDashboardActivity(items);
            model.refreshDashboardEducation();
            const bool pending =
                std::any_of(items.begin(), items.end(), [](const DashboardActivityItem& item) {
                    return item.phase != DashboardActivityPhase::delivered;
                });
            if (pending) {
                model.activityPoll_.start();
            }
        });
    });
}

void AppModel::setTips(const std::vector<DashboardTip>& tips) {
    QVariantList list;
    for (const auto& tip : tips) {
        list.append(QVariantMap{{QStringLiteral("id"), qs(tip.id)}, {QStringLiteral("body"), qs(tip.body)}});
    }
    if (store(tips_, list)) {
        emit tipsChanged();
    }
}

bool AppModel::loadCachedTips() {
    if (!tipsEnabled_) {
        setTips({});
        return true;
    }
    const auto cached = env_.tipsService->cachedResponse();
    if (!cached) {
        return false;
    }
    setTips(env_.tipsService->visibleTips(cached->tips));
    return true;
}

void AppModel::loadTips() {
    if (!tipsEnabled_) {
        setTips({});
        return;
    }
    loadCachedTips();
    runInBackground([this] {
        const auto response = env_.tipsService->loadTips();
        if (!response) {
            return;
        }
        auto tips = env_.tipsService->visibleTips(response->tips);
        onMain([tips = std::move(tips)](AppModel& model) {
            if (model.tipsEnabled_ && model.isSignedIn_) {
                model.setTips(tips);
            }
        });
    });
}

void AppModel::checkForUpdates() {
    runInBackground([this] {
        const auto status = env_.updateService->checkForUpdates();
        QVariantMap map;
        switch (status.kind()) {
        case UpdateStatus::Kind::updateAvailable:
            map[QStringLiteral("state")] = QStringLiteral("available");
            break;
        case UpdateStatus::Kind::updateRequired:
            map[QStringLiteral("state")] = QStringLiteral("required");
            break;
        case UpdateStatus::Kind::upToDate:
            map[QStringLiteral("state")] = QStringLiteral("upToDate");
            break;
        case UpdateStatus::Kind::unknown:
            map[QStringLiteral("state")] = QStringLiteral("unknown");
            break;
        }
        if (const auto& policy = status.policy()) {
            map[QStringLiteral("version")] = qs(policy->latestVersion);
            map[QStringLiteral("downloadUrl")] = qs(policy->downloadURL.value_or(""));
            // The note of the newest release tells the user what the update brings.
            const auto notes = env_.updateService->releaseNotes();
            const ReleaseNote* newest = nullptr;
            for (const auto& note : notes) {
                if (!newest || SemVer::compare(note.version, newest->version) > 0) {
                    newest = &note;
                }
            }
            if (newest) {
                map[QStringLiteral("notes")] =
                    qs(newest->title.empty() ? newest->body : newest->title + "\n" + newest->body);
            }
        }
        QVariantList unseen;
        for (const auto& note : env_.updateService->unseenReleaseNotes()) {
            unseen.append(QVariantMap{{QStringLiteral("version"), qs(note.version)},
                                      {QStringLiteral("title"), qs(note.title)},
                                      {QStringLiteral("body"), qs(note.body)}});
        }
        onMain([map = std::move(map), unseen = std::move(unseen)](AppModel& model) {
            if (store(model.updateStatus_, map)) {
                emit model.updateStatusChanged();
            }
            if (store(model.unseenNotes_, unseen)) {
                emit model.unseenNotesChanged();
            }
        });
    });
}

void AppModel::markReleaseNotesSeen() {
    env_.updateService->markReleaseNotesSeen();
    if (!unseenNotes_.isEmpty()) {
        unseenNotes_.clear();
        emit unseenNotesChanged();
    }
}

void AppModel::openUpdateDownload() {
    const QUrl url(updateStatus_.value(QStringLiteral("downloadUrl")).toString());
    // Only a web address goes to the browser; the update host's text is not trusted to name anything else.
    if (url.isValid() &&
        (url.scheme() == QStringLiteral("https") || url.scheme() == QStringLiteral("http"))) {
        QDesktopServices::openUrl(url);
    }
}

void AppModel::onAppForeground() {
    checkSessionHealth();
    if (isSignedIn_) {
        checkForUpdates();
    }
}

void AppModel::checkSessionHealth() {
    runInBackground([this] {
        const auto outcome = sessionHealth_.run();
        if (outcome == SessionHealthCheck::Outcome::noSession ||
            outcome == SessionHealthCheck::Outcome::retryLater) {
            return;
        }
        onMain([expired = outcome == SessionHealthCheck::Outcome::rejected](AppModel& model) {
            if (store(model.sessionExpired_, expired)) {
                emit model.sessionExpiredChanged();
            }
        });
    });
}

void AppModel::requestSystemAudioPermission() {
    runInBackground([this] {
        const auto systemAudio = env_.recorder->requestSystemAudioPermission();
        const auto capture = env_.recorder->checkAudioCapturePermission();
        onMain([systemAudio, capture](AppModel& model) {
            model.systemAudioPermission_ = qs(toRaw(systemAudio));
            model.audioCapturePermission_ = qs(toRaw(capture));
            emit model.permissionsChanged();
            emit model.derivedChanged();
        });
    });
}

void AppModel::updateUserMetadata(const char* key, const QString& value) {
    const auto session = env_.sessionManager->session();
    if (!session || value.isEmpty()) {
        return;
    }
    runInBackground([this, key, value = value.toStdString(), token = session->accessToken] {
        try {
            env_.authService->updateUserMetadata({{key, value}}, token);
        } catch (const std::exception& error) {
            // The answer helps us, not the user: the step goes on regardless.
            env_.logger->warn(std::string("saving the questionnaire answer failed: ") + error.what());
        }
    });
}

void AppModel::completeReferralStep(const QString& option) {
    static const QStringList options{
        QStringLiteral("received_notes"), QStringLiteral("colleague"),    QStringLiteral("google"),
        QStringLiteral("ai_search"),      QStringLiteral("appstore"),     QStringLiteral("linkedin"),
        QStringLiteral("reddit"),         QStringLiteral("social_media"), QStringLiteral("podcast"),
        QStringLiteral("tradejournal"),   QStringLiteral("news"),         QStringLiteral("advertisement"),
        QStringLiteral("other")};
    updateUserMetadata("referral_source", options.contains(option) ? option : QString());
    setOnboardingStep(QStringLiteral("fit"));
}

void AppModel::completeFitStep(const QString& option) {
    static const QStringList options{
        QStringLiteral("sales"),   QStringLiteral("recruitment"), QStringLiteral("consulting"),
        QStringLiteral("finance"), QStringLiteral("legal"),       QStringLiteral("bouw"),
        QStringLiteral("zorg"),    QStringLiteral("education"),   QStringLiteral("government"),
        QStringLiteral("tech"),    QStringLiteral("other")};
    updateUserMetadata("work_profile", options.contains(option) ? option : QString());
    setOnboardingStep(QStringLiteral("ready"));
}

void AppModel::finishPostAuthOnboarding() {
    if (const auto id = userId()) {
        setOnboardingStep(qs(onboarding_.finishPostAuth(*id, permissions())));
    }
}

void AppModel::completeAudioSetup() {
    setOnboardingStep(qs(onboarding_.completeAudioSetup(userId().value_or(""))));
}

void AppModel::initializeDashboardEducation() {
    if (const auto id = userId()) {
        dashboardPreferences_.initializeEducation(*id);
        refreshDashboardEducation();
    }
}

void AppModel::refreshDashboardEducation() {
    const auto id = userId();
    const auto education = id ? dashboardPreferences_.education(*id) : DashboardPreferences::Education{};
    if (education.firstRecording != educationFirstRecordingPending_ ||
        education.processingStatus != educationProcessingStatusPending_ ||
        education.reportSettings != educationReportSettingsPending_) {
        educationFirstRecordingPending_ = education.firstRecording;
        educationProcessingStatusPending_ = education.processingStatus;
        educationReportSettingsPending_ = education.reportSettings;
        emit educationChanged();
    }
}

void AppModel::completeEducation(const QString& mark) {
    static const QStringList marks{QStringLiteral("first-recording"), QStringLiteral("processing-status"),
                                   QStringLiteral("report-settings")};
    if (const auto id = userId(); id && marks.contains(mark)) {
        dashboardPreferences_.completeEducation(*id, mark.toStdString());
        refreshDashboardEducation();
    }
}

bool AppModel::hasRecordedBefore() const {
    return dashboardPreferences_.hasRecordedBefore(userId());
}

int AppModel::nextTipCursor() {
    return dashboardPreferences_.nextTipCursor();
}

void AppModel::onMeetingDetected(const QString& appName) {
    if (phase_ != QStringLiteral("idle") || !isSignedIn_) {
        return;
    }
    if (store(detectedMeetingApp_, appName)) {
        emit detectedMeetingAppChanged();
    }
    auto text = [this](std::string_view key) { return qs(texts_(key)); };
    QString title = text("desktop.meeting_prompt_title");
    title.replace(QStringLiteral("{{app}}"), appName);
    emit meetingPromptWanted(title, text("desktop.meeting_prompt_body"),
                             text("desktop.meeting_prompt_record"), text("desktop.meeting_prompt_ignore"),
                             text("desktop.meeting_prompt_mute"));
}

void AppModel::recordDetectedMeeting() {
    if (store(detectedMeetingApp_, QString())) {
        emit detectedMeetingAppChanged();
    }
    startRecording();
}

void AppModel::dismissDetectedMeeting() {
    if (store(detectedMeetingApp_, QString())) {
        emit detectedMeetingAppChanged();
    }
}

void AppModel::muteDetectedMeeting() {
    if (detection_ && !detectedMeetingApp_.isEmpty()) {
        detection_->mute(detectedMeetingApp_);
    }
    dismissDetectedMeeting();
}

void AppModel::updateLiveIndicator() {
    if (detection_) {
        detection_->setRecordingActive(phase_ != QStringLiteral("idle") &&
                                       phase_ != QStringLiteral("signed_out"));
    }
    // A meeting offer is moot once anything is going on.
    if (phase_ != QStringLiteral("idle") && !detectedMeetingApp_.isEmpty()) {
        dismissDetectedMeeting();
    }
    static const QStringList indicatorPhases{QStringLiteral("recording"),
                                             QStringLiteral("recording_device_warning"),
                                             QStringLiteral("recording_no_audio_warning"),
                                             QStringLiteral("recording_offline_buffering"),
                                             QStringLiteral("recording_route_changed"),
                                             QStringLiteral("stop_confirm"),
                                             QStringLiteral("paused_user")};
    const bool show = indicatorPhases.contains(phase_) &&
                      env_.keyValueStore->boolean("kavelo_live_indicator").value_or(true);
    if (show && !indicatorVisible_) {
        indicatorVisible_ = true;
        setIndicatorCollapsed(false);
        indicatorCollapse_.start();
        emit indicatorVisibleChanged();
    } else if (!show && indicatorVisible_) {
        indicatorVisible_ = false;
        indicatorCollapse_.stop();
        emit indicatorVisibleChanged();
    }
}

} // namespace kavelo
