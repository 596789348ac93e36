#include "app/desktop/SleepWatcher.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>

namespace kavelo {

SleepWatcher::SleepWatcher(QObject* parent) : QObject(parent) {
    auto bus = QDBusConnection::systemBus();
    const QString service = QStringLiteral("org.freedesktop.login1");
    if (!bus.isConnected() || !bus.interface() || !bus.interface()->isServiceRegistered(service).value()) {
        qInfo("kavely: no login manager on the system bus; waking from sleep is not noticed");
        return;
    }
    listening_ = bus.connect(service, QStringLiteral("/org/freedesktop/login1"),
                             QStringLiteral("org.freedesktop.login1.Manager"),
                             QStringLiteral("PrepareForSleep"), this, SLOT(prepareForSleep(bool)));
    if (!listening_) {
        qInfo("kavely: the login manager's sleep signal cannot be heard; waking from sleep is not noticed");
    }
}

void SleepWatcher::prepareForSleep(bool goingToSleep) {
    if (!goingToSleep) {
        emit woke();
    }
}

} // namespace kavelo
