#pragma once

#include <QString>
#include <cstdint>
#include <optional>

namespace postiq {

// Where to send a DNS query: a host (address or name) and a UDP/TCP port.
struct DnsServerAddress {
    QString host;
    uint16_t port = 53;

    bool operator==(const DnsServerAddress&) const = default;
};

// Reads "host", "host:port", "[v6]" or "[v6]:port". A bare IPv6 address (more than one colon,
// no brackets) carries no port. Nothing (an empty host, a bad port) gives no value.
std::optional<DnsServerAddress> ParseDnsServer(const QString& text);

} // namespace postiq
