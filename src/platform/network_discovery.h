#pragma once

#include <QString>
#include <QStringList>

namespace postiq {

// What the operating system says about this computer's network: its host name and its DNS
// servers in the order the system lists them.
struct NetworkParams {
    QString hostName;
    QStringList dnsServers;
};

class NetworkDiscovery {
public:
    virtual ~NetworkDiscovery() = default;
    virtual NetworkParams query() = 0;
};

} // namespace postiq
