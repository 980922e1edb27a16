#include "dns/dns_server_address.h"

namespace postiq {

namespace {

std::optional<uint16_t> parsePort(const QString& text)
{
    if (text.isEmpty() || text.size() > 5)
        return std::nullopt;
    for (const QChar c : text) {
        if (c < u'0' || c > u'9')
            return std::nullopt;
    }
    const int port = text.toInt();
    if (port < 1 || port > 65535)
        return std::nullopt;
    return static_cast<uint16_t>(port);
}

} // namespace

std::optional<DnsServerAddress> ParseDnsServer(const QString& text)
{
    const QString server = text.trimmed();
    DnsServerAddress address;

    if (server.startsWith(u'[')) {
        const qsizetype close = server.indexOf(u']');
        if (close < 0)
            return std::nullopt;
        address.host = server.mid(1, close - 1);
        const QString rest = server.mid(close + 1);
        if (!rest.isEmpty()) {
            if (!rest.startsWith(u':'))
                return std::nullopt;
            const auto port = parsePort(rest.mid(1));
            if (!port)
                return std::nullopt;
            address.port = *port;
        }
    } else if (server.count(u':') == 1) {
        const qsizetype colon = server.indexOf(u':');
        address.host = server.left(colon);
        const auto port = parsePort(server.mid(colon + 1));
        if (!port)
            return std::nullopt;
        address.port = *port;
    } else {
        address.host = server; // a name, an IPv4 address or a bare IPv6 address
    }

    if (address.host.isEmpty())
        return std::nullopt;
    return address;
}

} // namespace postiq
