#include "app/desktop/AutomationService.h"

#include "app/desktop/AppModel.h"

#include <QDBusConnection>
#include <QDBusMessage>

namespace kavelo {
namespace {

const QStringList kPausable{QStringLiteral("recording"), QStringLiteral("recording_device_warning"),
                            QStringLiteral("recording_no_audio_warning"),
                            QStringLiteral("recording_offline_buffering"),
                            QStringLiteral("recording_route_changed")};

} // namespace

AutomationService::AutomationService(AppModel& model, QObject* parent) : QObject(parent), model_(model) {
    connect(&model_, &AppModel::phaseChanged, this, [this] { announce(QStringLiteral("Phase"), phase()); });
    connect(&model_, &AppModel::elapsedSecondsChanged, this,
            [this] { announce(QStringLiteral("ElapsedSeconds"), elapsedSeconds()); });
}

bool AutomationService::registerOnSessionBus() {
    auto bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        qInfo("kavely: no session bus; the D-Bus automation interface is off");
        return false;
    }
    if (!bus.registerObject(QString::fromLatin1(kPath), this,
                            QDBusConnection::ExportScriptableSlots |
                                QDBusConnection::ExportScriptableProperties)) {
        qInfo("kavely: cannot register %s on the session bus", kPath);
        return false;
    }
    if (!bus.registerService(QString::fromLatin1(kService))) {
        qInfo("kavely: the bus name %s is taken; the D-Bus automation interface is off", kService);
        return false;
    }
    return true;
}

QString AutomationService::phase() const {
    return model_.phase();
}

int AutomationService::elapsedSeconds() const {
    return model_.elapsedSeconds();
}

bool AutomationService::allow(bool allowed, const QString& why) {
    if (allowed) {
        return true;
    }
    if (calledFromDBus()) {
        sendErrorReply(QStringLiteral("nl.kavely.Kavely1.Error.NotNow"), why);
    }
    return false;
}

void AutomationService::Start() {
    if (allow(model_.canStartFromUI(),
              QStringLiteral("cannot start: phase is ") + model_.phase() +
                  (model_.isSignedIn() ? QString() : QStringLiteral(", nobody is signed in")))) {
        model_.startRecording();
    }
}

void AutomationService::Stop() {
    if (allow(model_.menuBarShowsRecording(),
              QStringLiteral("nothing to stop: phase is ") + model_.phase())) {
        model_.stopRecording();
    }
}

void AutomationService::Pause() {
    if (allow(kPausable.contains(model_.phase()),
              QStringLiteral("cannot pause: phase is ") + model_.phase())) {
        model_.pauseRecording();
    }
}

void AutomationService::Resume() {
    if (allow(model_.phase() == QStringLiteral("paused_user"),
              QStringLiteral("nothing to resume: phase is ") + model_.phase())) {
        model_.resumeRecording();
    }
}

void AutomationService::Show() {
    emit showRequested();
}

void AutomationService::announce(const QString& property, const QVariant& value) {
    auto signal = QDBusMessage::createSignal(QString::fromLatin1(kPath),
                                             QStringLiteral("org.freedesktop.DBus.Properties"),
                                             QStringLiteral("PropertiesChanged"));
    signal << QString::fromLatin1(kInterface) << QVariantMap{{property, value}} << QStringList{};
    QDBusConnection::sessionBus().send(signal);
}

} // namespace kavelo
