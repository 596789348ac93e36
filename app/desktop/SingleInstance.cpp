#include "app/desktop/SingleInstance.h"

#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>
#include <QStandardPaths>

#include <unistd.h>

namespace kavelo {

SingleInstance::SingleInstance(const QString& mode, QObject* parent) : QObject(parent) {
    auto runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (runtime.isEmpty() || !QDir(runtime).exists()) {
        runtime = QDir::tempPath();
    }
    socketPath_ =
        runtime + QStringLiteral("/kavely-") + QString::number(::getuid()) + QLatin1Char('-') + mode;
}

SingleInstance::~SingleInstance() = default;

bool SingleInstance::handOver(const QStringList& arguments) {
    QLocalSocket socket;
    socket.connectToServer(socketPath_);
    if (socket.waitForConnected(1000)) {
        socket.write(arguments.join(QLatin1Char('\n')).toUtf8().left(kMaxMessageBytes));
        socket.waitForBytesWritten(2000);
        socket.disconnectFromServer();
        if (socket.state() != QLocalSocket::UnconnectedState) {
            socket.waitForDisconnected(1000);
        }
        return true;
    }
    // Nobody answers: a socket left by a program that crashed is taken over.
    QLocalServer::removeServer(socketPath_);
    server_ = new QLocalServer(this);
    server_->setSocketOptions(QLocalServer::UserAccessOption);
    if (!server_->listen(socketPath_)) {
        qWarning("kavely: cannot listen on %s (%s); a second start will open a second window",
                 qPrintable(socketPath_), qPrintable(server_->errorString()));
        return false;
    }
    connect(server_, &QLocalServer::newConnection, this, [this] {
        while (auto* client = server_->nextPendingConnection()) {
            auto buffer = std::make_shared<QByteArray>();
            connect(client, &QLocalSocket::readyRead, client, [client, buffer] {
                buffer->append(client->readAll());
                if (buffer->size() > kMaxMessageBytes) {
                    buffer->truncate(kMaxMessageBytes);
                    client->abort();
                }
            });
            connect(client, &QLocalSocket::disconnected, this, [this, client, buffer] {
                buffer->append(client->readAll());
                client->deleteLater();
                const auto text = QString::fromUtf8(buffer->left(kMaxMessageBytes));
                emit argumentsReceived(text.isEmpty() ? QStringList{} : text.split(QLatin1Char('\n')));
            });
        }
    });
    return false;
}

} // namespace kavelo
