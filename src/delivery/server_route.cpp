#include "delivery/server_route.h"

namespace postiq {

namespace {
// Splits "host", "host:port" or "[v6]:port"; a port that is not a number from 1 to 65535 leaves
// the whole text as the host name.
void splitHostAndPort(const QString& text, quint16 defaultPort, ServerRoute& route)
{
    const qsizetype colon = text.lastIndexOf(':');
    const bool bracketed = text.startsWith('[');
    if (colon > 0 && (bracketed ? text.at(colon - 1) == ']' : text.indexOf(':') == colon)) {
        bool ok = false;
        const uint port = text.mid(colon + 1).toUInt(&ok);
        if (ok && port > 0 && port <= 65535) {
            QString host = text.left(colon);
            if (bracketed)
                host = host.mid(1, host.size() - 2);
            route.host = host;
            route.port = quint16(port);
            return;
        }
    }
    route.host = text;
    route.port = defaultPort;
}
} // namespace

QByteArray ServerRoute::hostAndPort() const
{
    const QByteArray name = host.toUtf8();
    return (host.contains(':') ? '[' + name + ']' : name) + ':' + QByteArray::number(port);
}

ServerRoute ParseServerRoute(const QByteArray& configured)
{
    QString text = QString::fromUtf8(configured).trimmed();
    ServerRoute route;
    quint16 defaultPort = kSmtpPort;
    if (text.startsWith(QLatin1String("smtp://"), Qt::CaseInsensitive)) {
        route.security = Security::StartTls;
        defaultPort = kSubmissionPort;
        text = text.mid(7);
    } else if (text.startsWith(QLatin1String("smtps://"), Qt::CaseInsensitive)) {
        route.security = Security::ImplicitTls;
        defaultPort = kSubmissionsPort;
        text = text.mid(8);
    }
    if (route.submission()) {
        while (text.endsWith('/'))
            text.chop(1);
        const qsizetype at = text.lastIndexOf('@');
        if (at >= 0) {
            route.user = QByteArray::fromPercentEncoding(text.left(at).toUtf8());
            text = text.mid(at + 1);
        }
    }
    splitHostAndPort(text, defaultPort, route);
    if (route.submission() && route.host.startsWith('[') && route.host.endsWith(']'))
        route.host = route.host.mid(1, route.host.size() - 2); // "[v6]" without a port
    return route;
}

} // namespace postiq
