#pragma once

#include <QObject>
#include <memory>

namespace postiq {

// Whether the computer has a network at all, as the system reports it. Mail that cannot leave
// waits without spending its attempts while there is none.
class NetworkState : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;
    // False only when the system says there is no network; not knowing counts as online.
    virtual bool online() const = 0;

signals:
    void onlineChanged(bool online);
};

// NetworkManager's report, through Qt's network information (reachability). Where it does not
// run, the computer counts as online for good, so that delivery works as it always has.
std::unique_ptr<NetworkState> SystemNetworkState();

} // namespace postiq
