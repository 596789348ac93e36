#include "app/desktop/NetworkReachability.h"

#include <QNetworkInformation>

namespace kavelo {

NetworkReachability::NetworkReachability(QObject* parent) : QObject(parent) {
    if (!QNetworkInformation::loadBackendByFeatures(QNetworkInformation::Feature::Reachability)) {
        qInfo("kavely: the desktop does not tell whether the network is reachable; counting as online");
        return;
    }
    connect(QNetworkInformation::instance(), &QNetworkInformation::reachabilityChanged, this,
            &NetworkReachability::update);
    update();
}

void NetworkReachability::update() {
    using Reachability = QNetworkInformation::Reachability;
    const auto reachability = QNetworkInformation::instance()->reachability();
    // Only a network service that says there is no way out counts as offline; "unknown" is not offline.
    const bool online = reachability != Reachability::Disconnected && reachability != Reachability::Local;
    if (online != online_) {
        online_ = online;
        emit onlineChanged(online_);
    }
}

} // namespace kavelo
