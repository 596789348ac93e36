#pragma once

#include <QObject>

namespace kavelo {

// Whether this computer can reach the network, as the desktop's network service tells Qt. Where nothing
// can tell (no backend for the platform's network service), the program counts as online and says so once:
// a recorder that refuses to start because it cannot ask is worse than one that tries.
class NetworkReachability : public QObject {
    Q_OBJECT

  public:
    explicit NetworkReachability(QObject* parent = nullptr);
    bool online() const { return online_; }

  signals:
    void onlineChanged(bool online);

  private:
    void update();
    bool online_ = true;
};

} // namespace kavelo
