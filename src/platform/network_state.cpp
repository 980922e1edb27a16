#include "platform/network_state.h"

#include <QNetworkInformation>

namespace postiq {

namespace {

class ReachabilityState : public NetworkState {
public:
    ReachabilityState()
    {
        if (!QNetworkInformation::loadBackendByFeatures(QNetworkInformation::Feature::Reachability))
            return;
        QNetworkInformation* information = QNetworkInformation::instance();
        online_ = isOnline(information->reachability());
        connect(information, &QNetworkInformation::reachabilityChanged, this,
                [this](QNetworkInformation::Reachability reachability) {
                    const bool online = isOnline(reachability);
                    if (online == online_)
                        return;
                    online_ = online;
                    emit onlineChanged(online);
                });
    }

    bool online() const override { return online_; }

private:
    static bool isOnline(QNetworkInformation::Reachability reachability)
    {
        return reachability != QNetworkInformation::Reachability::Disconnected;
    }

    bool online_ = true;
};

} // namespace

std::unique_ptr<NetworkState> SystemNetworkState() { return std::make_unique<ReachabilityState>(); }

} // namespace postiq
