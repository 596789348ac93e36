#include "app/desktop/AppModel.h"

#include "app/shell/AppEnvironment.h"
#include "core/recording/RecordingPhase.h"

#include <QMetaObject>
#include <QPointer>

namespace kavelo {

AppModel::AppModel(AppEnvironment& env, QObject* parent) : QObject(parent), env_(env) {
    // The coordinator reports on whatever thread made the change; only the main thread touches the model.
    QPointer<AppModel> self(this);
    env_.coordinator->onPhaseChange([self](RecordingPhase phase) {
        QMetaObject::invokeMethod(
            self,
            [self, phase] {
                if (self && self->phase_ != QString::fromUtf8(toRaw(phase).data(), toRaw(phase).size())) {
                    self->phase_ = QString::fromUtf8(toRaw(phase).data(), toRaw(phase).size());
                    emit self->phaseChanged();
                    emit self->derivedChanged();
                }
            },
            Qt::QueuedConnection);
    });
    const auto initial = toRaw(env_.coordinator->phase());
    phase_ = QString::fromUtf8(initial.data(), static_cast<qsizetype>(initial.size()));
}

AppModel::~AppModel() = default;

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

void AppModel::startRecording() {}
void AppModel::stopRecording() {}
void AppModel::pauseRecording() {}
void AppModel::resumeRecording() {}
void AppModel::signInWithPassword(const QString&, const QString&) {}
void AppModel::signOut() {}
void AppModel::refreshDevices() {}
void AppModel::reloadDashboardActivity() {}
void AppModel::loadTips() {}
void AppModel::dismissTip(const QString&) {}
void AppModel::markReleaseNotesSeen() {}
void AppModel::openUpdateDownload() {}
void AppModel::onAppForeground() {}
void AppModel::checkSessionHealth() {}

} // namespace kavelo
