#include "app/desktop/SingleInstance.h"

#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>
#include <QLockFile>
#include <QTimer>
#include <QtEndian>

#include <memory>

#include <unistd.h>

namespace kavelo {
namespace {

constexpr char kTaken = '1';
constexpr int kHeaderBytes = 4;

QByteArray encode(const QStringList& arguments) {
    QStringList kept;
    for (const auto& argument : arguments) {
        // A line per argument: one with a line break in it could only be a forged address.
        if (!argument.contains(QLatin1Char('\n')) && kept.size() < SingleInstance::kMaxArguments) {
            kept << argument;
        }
    }
    QByteArray payload = kept.join(QLatin1Char('\n')).toUtf8();
    while (payload.size() > SingleInstance::kMaxMessageBytes && !kept.isEmpty()) {
        kept.removeLast();
        payload = kept.join(QLatin1Char('\n')).toUtf8();
    }
    QByteArray message(kHeaderBytes, '\0');
    qToBigEndian<qint32>(static_cast<qint32>(payload.size()), message.data());
    return message + payload;
}

} // namespace

SingleInstance::SingleInstance(const QString& directory, const QString& mode, QObject* parent)
    : QObject(parent), socketPath_(directory + QStringLiteral("/kavely-") + QString::number(::getuid()) +
                                   QLatin1Char('-') + mode) {}

SingleInstance::~SingleInstance() {
    if (server_ != nullptr) {
        server_->close();
    }
}

QString SingleInstance::defaultDirectory() {
    const auto runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    return runtime.isEmpty() || !QDir(runtime).exists() ? QDir::tempPath() : runtime;
}

SingleInstance::Outcome SingleInstance::handOver(const QStringList& arguments) {
    // Two starts at the same moment would both find nobody listening and the later would pull the socket
    // from under the earlier: the look and the listen happen under a lock (one a crash leaves is stale by
    // its process id and taken over).
    QLockFile lock(socketPath_ + QStringLiteral(".lock"));
    if (!lock.tryLock(3000)) {
        qWarning("kavely: cannot take %s.lock (error %d); going on without it", qPrintable(socketPath_),
                 static_cast<int>(lock.error()));
    }
    QLocalSocket socket;
    socket.connectToServer(socketPath_);
    if (socket.waitForConnected(1000)) {
        socket.write(encode(arguments));
        while (socket.bytesToWrite() > 0 && socket.waitForBytesWritten(peerTimeoutMs_)) {
        }
        const bool taken = socket.bytesToWrite() == 0 && socket.waitForReadyRead(peerTimeoutMs_) &&
                           socket.read(1) == QByteArray(1, kTaken);
        return taken ? Outcome::handedOver : Outcome::unanswered;
    }
    // Nobody answers, and under the lock nobody is about to: a socket left by a program that crashed.
    QLocalServer::removeServer(socketPath_);
    server_ = new QLocalServer(this);
    server_->setSocketOptions(QLocalServer::UserAccessOption);
    if (!server_->listen(socketPath_)) {
        qWarning("kavely: cannot listen on %s (%s); a second start will open a second window",
                 qPrintable(socketPath_), qPrintable(server_->errorString()));
        delete server_;
        server_ = nullptr;
        return Outcome::alone;
    }
    connect(server_, &QLocalServer::newConnection, this, [this] {
        while (auto* peer = server_->nextPendingConnection()) {
            accept(peer);
        }
    });
    return Outcome::first;
}

void SingleInstance::accept(QLocalSocket* peer) {
    connect(peer, &QLocalSocket::disconnected, peer, &QObject::deleteLater);
    QTimer::singleShot(peerTimeoutMs_, peer, [peer] { peer->abort(); });
    auto buffer = std::make_shared<QByteArray>();
    connect(peer, &QLocalSocket::readyRead, this, [this, peer, buffer] {
        buffer->append(peer->readAll());
        if (buffer->size() < kHeaderBytes) {
            return;
        }
        const auto length = qFromBigEndian<qint32>(buffer->constData());
        if (length < 0 || length > kMaxMessageBytes) {
            qWarning("kavely: ignored a hand-over of %d bytes from another start", length);
            peer->abort();
            return;
        }
        if (buffer->size() < kHeaderBytes + length) {
            return;
        }
        const auto text = QString::fromUtf8(buffer->mid(kHeaderBytes, length));
        buffer->clear();
        // One message a connection: whatever follows it is not read.
        disconnect(peer, &QLocalSocket::readyRead, this, nullptr);
        auto received = text.isEmpty() ? QStringList{} : text.split(QLatin1Char('\n'));
        if (received.size() > kMaxArguments) {
            received.resize(kMaxArguments);
        }
        peer->write(QByteArray(1, kTaken));
        peer->flush();
        peer->disconnectFromServer();
        emit argumentsReceived(received);
    });
}

} // namespace kavelo
