// A stand-in for the desktop's notification server, for the end-to-end test: it owns
// org.freedesktop.Notifications on the session bus, writes one line per Notify to standard output
// ("notify<TAB>summary<TAB>action keys joined by commas") and, when told to by a file of the test, answers
// with ActionInvoked for the last notification.
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QFile>
#include <QObject>
#include <QStringList>
#include <QTimer>
#include <QVariantMap>

#include <cstdio>

class FakeNotificationServer : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")

  public:
    explicit FakeNotificationServer(QString invokeFile) : invokeFile_(std::move(invokeFile)) {
        auto* poll = new QTimer(this);
        connect(poll, &QTimer::timeout, this, [this] {
            if (lastId_ > 0 && QFile::exists(invokeFile_)) {
                QFile::remove(invokeFile_);
                auto signal = QDBusMessage::createSignal(QStringLiteral("/org/freedesktop/Notifications"),
                                                         QStringLiteral("org.freedesktop.Notifications"),
                                                         QStringLiteral("ActionInvoked"));
                signal << lastId_ << QStringLiteral("open");
                QDBusConnection::sessionBus().send(signal);
                std::printf("invoked\t%u\n", lastId_);
                std::fflush(stdout);
            }
        });
        poll->start(50);
    }

  public slots:
    uint Notify(const QString&, uint, const QString&, const QString& summary, const QString&,
                const QStringList& actions, const QVariantMap&, int) {
        QStringList keys;
        for (int i = 0; i + 1 < actions.size(); i += 2) {
            keys << actions[i];
        }
        std::printf("notify\t%s\t%s\n", qPrintable(summary), qPrintable(keys.join(QLatin1Char(','))));
        std::fflush(stdout);
        return ++lastId_;
    }
    QStringList GetCapabilities() { return {QStringLiteral("actions"), QStringLiteral("body")}; }
    void CloseNotification(uint) {}
    QString GetServerInformation(QString& vendor, QString& version, QString& specVersion) {
        vendor = QStringLiteral("kavely-tests");
        version = QStringLiteral("1");
        specVersion = QStringLiteral("1.2");
        return QStringLiteral("fake-notifications");
    }

  private:
    QString invokeFile_;
    uint lastId_ = 0;
};

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: fake-notification-server INVOKE_FILE\n");
        return 2;
    }
    FakeNotificationServer server(QString::fromLocal8Bit(argv[1]));
    auto bus = QDBusConnection::sessionBus();
    if (!bus.registerObject(QStringLiteral("/org/freedesktop/Notifications"), &server,
                            QDBusConnection::ExportAllSlots) ||
        !bus.registerService(QStringLiteral("org.freedesktop.Notifications"))) {
        std::fprintf(stderr, "fake-notification-server: cannot own org.freedesktop.Notifications\n");
        return 1;
    }
    std::printf("ready\n");
    std::fflush(stdout);
    return app.exec();
}

#include "FakeNotificationServer.moc"
