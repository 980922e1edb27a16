#include "platform/network_state.h"

#include <QFileInfo>
#include <QNetworkInformation>

namespace postiq {

namespace {

class ReachabilityState : public NetworkState {
public:
    // NetworkManager's word only: it knows when the computer is connected. Qt's other backend
    // (GLib's netlink monitor) calls a computer with no default route disconnected, which a
    // relay handing mail to a server on this computer or its own network is not.
    ReachabilityState()
    {
        // Without a system bus there is no NetworkManager to ask, nor any plugin to load.
        if (!systemBusAdvertised() || !QNetworkInformation::loadBackendByName(QStringLiteral("networkmanager")))
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
    static bool systemBusAdvertised()
    {
        return !qEnvironmentVariableIsEmpty("DBUS_SYSTEM_BUS_ADDRESS")
            || QFileInfo::exists(QStringLiteral("/run/dbus/system_bus_socket"));
    }

    static bool isOnline(QNetworkInformation::Reachability reachability)
    {
        return reachability != QNetworkInformation::Reachability::Disconnected;
    }

    bool online_ = true;
};

} // namespace

std::unique_ptr<NetworkState> SystemNetworkState() { return std::make_unique<ReachabilityState>(); }

} // namespace postiq
