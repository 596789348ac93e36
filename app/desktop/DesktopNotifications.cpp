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
    auto bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        if (!unavailableReported_) {
            unavailableReported_ = true;
            qInfo("kavely: no session bus; notifications are off");
        }
        return;
    }
    auto call = QDBusMessage::createMethodCall(kService, kPath, kService, QStringLiteral("Notify"));
    // The default action is what a click on the notification itself does.
    call << QStringLiteral("Kavely") << uint(0) << QStringLiteral("nl.kavely.Kavely") << title << body
         << QStringList{QStringLiteral("default"), openLabel, kOpenAction, openLabel}
         << QVariantMap{{QStringLiteral("desktop-entry"), QStringLiteral("nl.kavely.Kavely")}} << int(-1);
    auto* watcher = new QDBusPendingCallWatcher(bus.asyncCall(call, 5000), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* finished) {
        finished->deleteLater();
        const QDBusPendingReply<uint> reply = *finished;
        if (reply.isError() && !unavailableReported_) {
            unavailableReported_ = true;
            qInfo("kavely: no notification server on the session bus (%s); notifications are off",
                  qPrintable(reply.error().name()));
        }
    });
}

void DesktopNotifications::onActionInvoked(uint, const QString& action) {
    if (action == kOpenAction || action == QStringLiteral("default")) {
        emit openRequested();
    }
}

} // namespace kavelo
