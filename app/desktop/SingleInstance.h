#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

class QLocalServer;

namespace kavelo {

// One running program per user and mode. The first start listens on a socket in $XDG_RUNTIME_DIR; a later
// start hands its arguments (kavely:// addresses, --show) to the first and ends.
class SingleInstance : public QObject {
    Q_OBJECT

  public:
    // A message larger than this is cut off: arguments are a few addresses at most.
    static constexpr qint64 kMaxMessageBytes = 64 * 1024;

    SingleInstance(const QString& mode, QObject* parent = nullptr);
    ~SingleInstance() override;

    // True when another instance took the arguments; the caller ends then. False when this process is the
    // first: it now listens for later starts.
    bool handOver(const QStringList& arguments);
    QString socketPath() const { return socketPath_; }

  signals:
    void argumentsReceived(const QStringList& arguments);

  private:
    QString socketPath_;
    QLocalServer* server_ = nullptr;
};

} // namespace kavelo
