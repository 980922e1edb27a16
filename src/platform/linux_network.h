#pragma once

#include <QString>

#include "platform/network_discovery.h"

namespace postiq {

// The host name the system reports and the DNS servers of the resolver configuration, in the
// order of its "nameserver" lines.
class LinuxNetworkDiscovery : public NetworkDiscovery {
public:
    explicit LinuxNetworkDiscovery(QString resolvConfPath = QStringLiteral("/etc/resolv.conf"));

    NetworkParams query() override;

private:
    QString resolvConfPath_;
};

// The addresses of the "nameserver" lines of a resolver configuration, as written.
QStringList NameServersOf(const QByteArray& resolvConf);

} // namespace postiq
