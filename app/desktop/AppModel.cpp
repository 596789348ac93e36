#include "app/desktop/AppModel.h"

#include "app/shell/AppEnvironment.h"
#include "app/shell/DeviceSelection.h"
#include "core/recording/PreflightContext.h"
#include "core/recording/RecordingPhase.h"
#include "core/recording/SystemAudioMode.h"

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

template <class T> bool store(T& field, const T& value) {
    if (field == value) {
        return false;
    }
    field = value;
    return true;
}

} // namespace

AppModel::AppModel(AppEnvironment& env, Texts texts, QObject* parent)
    : QObject(parent), env_(env), texts_(std::move(texts)) {
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
        // A session kept from an earlier run.
        runInBackground([this] { env_.coordinator->sessionDidSignIn(); });
        applySession();
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

void AppModel::applySession() {
    const auto session = env_.sessionManager->session();
    if (store(isSignedIn_, session.has_value())) {
        emit isSignedInChanged();
        emit derivedChanged();
    }
    QVariantMap profile;
    if (session) {
        // The mock world has no profile service: the profile is the session's user.
        profile = {{QStringLiteral("userId"), qs(session->user.id)},
                   {QStringLiteral("email"), qs(session->user.email)},
                   {QStringLiteral("fullName"),
                    env_.usesMockServices ? QStringLiteral("Demo Gebruiker") : QString()}};
    } else {
        setMeetingName({});
    }
    if (store(profile_, profile)) {
        emit profileChanged();
        emit derivedChanged();
    }
    if (session && sessionExpired_) {
        sessionExpired_ = false;
        emit sessionExpiredChanged();
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
    if (tipsEnabled_ != enabled) {
        tipsEnabled_ = enabled;
        emit tipsEnabledChanged();
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
    runInBackground([this, context] {
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
void AppModel::signInWithPassword(const QString&, const QString&) {}
void AppModel::signOut() {
    runInBackground([this] {
        const auto session = env_.sessionManager->session();
        env_.sessionManager->signOut();
        env_.coordinator->sessionDidSignOut();
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
void AppModel::reloadDashboardActivity() {}
void AppModel::loadTips() {}
void AppModel::dismissTip(const QString&) {}
void AppModel::markReleaseNotesSeen() {}
void AppModel::openUpdateDownload() {}
void AppModel::onAppForeground() {}
void AppModel::checkSessionHealth() {}

} // namespace kavelo
