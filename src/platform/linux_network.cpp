#include "platform/linux_network.h"

#include <QFile>
#include <QHostInfo>

namespace postiq {

LinuxNetworkDiscovery::LinuxNetworkDiscovery(QString resolvConfPath)
    : resolvConfPath_(std::move(resolvConfPath))
{
}

NetworkParams LinuxNetworkDiscovery::query()
{
    NetworkParams params;
    params.hostName = QHostInfo::localHostName();
    QFile file(resolvConfPath_);
    if (file.open(QIODevice::ReadOnly))
        params.dnsServers = NameServersOf(file.readAll());
    return params;
}

QStringList NameServersOf(const QByteArray& resolvConf)
{
    QStringList servers;
    for (const QByteArray& line : resolvConf.split('\n')) {
        QString text = QString::fromUtf8(line).trimmed();
        if (text.startsWith(u'#') || text.startsWith(u';'))
            continue;
        // Words apart by spaces, tabs or carriage returns. No regular expression: compiling one at
        // every start would page in its engine, half a megabyte, for this alone.
        const QStringList words = text.replace(u'\t', u' ').replace(u'\r', u' ').split(u' ', Qt::SkipEmptyParts);
        if (words.size() >= 2 && words[0] == QLatin1String("nameserver"))
            servers.append(words[1]);
    }
    return servers;
}

} // namespace postiq
