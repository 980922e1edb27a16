#include "platform/linux_network.h"

#include <QFile>
#include <QHostInfo>
#include <QRegularExpression>

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
    static const QRegularExpression kBlanks(QStringLiteral("[ \\t\\r]+"));
    QStringList servers;
    for (const QByteArray& line : resolvConf.split('\n')) {
        const QString text = QString::fromUtf8(line).trimmed();
        if (text.startsWith(u'#') || text.startsWith(u';'))
            continue;
        const QStringList words = text.split(kBlanks, Qt::SkipEmptyParts);
        if (words.size() >= 2 && words[0] == QLatin1String("nameserver"))
            servers.append(words[1]);
    }
    return servers;
}

} // namespace postiq
