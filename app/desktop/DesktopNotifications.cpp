#include "app/desktop/DesktopNotifications.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QVariantMap>

namespace kavelo {
namespace {

const QString kService = QStringLiteral("org.freedesktop.Notifications");
const QString kPath = QStringLiteral("/org/freedesktop/Notifications");
const QString kOpenAction = QStringLiteral("open");

} // namespace

DesktopNotifications::DesktopNotifications(QObject* parent) : QObject(parent) {
    auto bus = QDBusConnection::sessionBus();
    if (bus.isConnected()) {
        bus.connect(kService, kPath, kService, QStringLiteral("ActionInvoked"), this,
                    SLOT(onActionInvoked(uint, QString)));
    }
}

void DesktopNotifications::post(const QString& title, const QString& body, const QString& openLabel) {
    // The default action is what a click on the notification itself does.
    send(title, body, {QStringLiteral("default"), openLabel, kOpenAction, openLabel}, 0, false);
}

void DesktopNotifications::postMeetingPrompt(const QString& title, const QString& body,
                                             const QString& recordLabel, const QString& ignoreLabel,
                                             const QString& muteLabel) {
    send(title, body,
         {QStringLiteral("record"), recordLabel, QStringLiteral("ignore"), ignoreLabel,
          QStringLiteral("mute"), muteLabel},
         meetingPromptId_, true);
}

void DesktopNotifications::send(const QString& title, const QString& body, const QStringList& actions,
                                uint replaces, bool meetingPrompt) {
    auto bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        if (!unavailableReported_) {
            unavailableReported_ = true;
            qInfo("kavely: no session bus; notifications are off");
        }
        return;
    }
    auto call = QDBusMessage::createMethodCall(kService, kPath, kService, QStringLiteral("Notify"));
    call << QStringLiteral("Kavely") << replaces << QStringLiteral("nl.kavely.Kavely") << title << body
         << actions << QVariantMap{{QStringLiteral("desktop-entry"), QStringLiteral("nl.kavely.Kavely")}}
         << int(-1);
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, 5000), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, meetingPrompt](QDBusPendingCallWatcher* finished) {
                finished->deleteLater();
                const QDBusPendingReply<uint> reply = *finished;
                if (reply.isError()) {
                    if (!unavailableReported_) {
                        unavailableReported_ = true;
                        qInfo("kavely: no notification server on the session bus (%s); notifications are off",
                              qPrintable(reply.error().name()));
                    }
                    return;
                }
                if (meetingPrompt) {
                    meetingPromptId_ = reply.value();
                }
            });
}

void DesktopNotifications::onActionInvoked(uint id, const QString& action) {
    // Other programs' notifications share the signal: only our meeting offer's id answers it.
    if (id != 0 && id == meetingPromptId_) {
        if (action == QStringLiteral("record") || action == QStringLiteral("ignore") ||
            action == QStringLiteral("mute")) {
            emit meetingAnswered(action);
        }
        return;
    }
    if (action == kOpenAction || action == QStringLiteral("default")) {
        emit openRequested();
    }
}

} // namespace kavelo
