#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

class QLocalServer;
class QLocalSocket;

namespace kavelo {

// One running program per user and mode. The first start listens on a socket in $XDG_RUNTIME_DIR; a later
// start hands its arguments (kavely:// addresses, --show) to the first and ends.
//
// On the socket a message is a 4-byte big-endian length and that many bytes of UTF-8, one argument a line;
// the first answers one byte once it has taken the arguments, so a second start only reports success for
// arguments that really arrived.
class SingleInstance : public QObject {
    Q_OBJECT

  public:
    // Arguments are a few addresses at most; anything larger is refused whole rather than cut.
    static constexpr qint32 kMaxMessageBytes = 64 * 1024;
    static constexpr int kMaxArguments = 32;
    // A peer that connects and then says nothing is dropped after this long, and a second start waits as
    // long for the first to confirm.
    static constexpr int kPeerTimeoutMs = 5000;

    enum class Outcome {
        handedOver, // another instance took the arguments: this process ends
        first,      // this process is the first and now listens for later starts
        alone,      // no socket could be made; this process runs without hand-over (said in the log)
        unanswered, // another instance is there but did not confirm the arguments
    };

    // `directory` holds the socket; `mode` keeps the practice world and the live one apart.
    SingleInstance(const QString& directory, const QString& mode, QObject* parent = nullptr);
    ~SingleInstance() override;

    // $XDG_RUNTIME_DIR, or the temporary folder where the session has none.
    static QString defaultDirectory();

    Outcome handOver(const QStringList& arguments);
    // Tests shorten the wait for a peer that says nothing.
    void setPeerTimeout(int milliseconds) { peerTimeoutMs_ = milliseconds; }
    QString socketPath() const { return socketPath_; }

  signals:
    void argumentsReceived(const QStringList& arguments);

  private:
    void accept(QLocalSocket* peer);

    QString socketPath_;
    QLocalServer* server_ = nullptr;
    int peerTimeoutMs_ = kPeerTimeoutMs;
};

} // namespace kavelo
