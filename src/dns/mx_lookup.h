#pragma once

#include <QByteArray>
#include <QString>
#include <chrono>

namespace postiq {

// How long one MX query may wait. A DNS server that stays silent costs timeout x tries before the
// lookup reports "ERROR_DNS_TIMEOUT"; 3 s and 2 tries keep a dead server from holding a delivery
// much longer than a slow but working one needs to answer.
struct LookupTiming {
    std::chrono::milliseconds timeout{3000}; // per try
    int tries = 2;
};

// The MX query component. LookupMX answers with one of:
//   "ERROR_DNS_TIMEOUT"   no answer at all, or a server that cannot be reached or named;
//   empty text            no such domain, no MX record, or a server failure;
//   records               "Order" 0xA4 "Host" 0xA4 "TTL" "|" per MX record, in the answer's order.
// The query runs in a worker thread while a nested event loop keeps the program responsive.
class DNSLookup {
public:
    DNSLookup() = default;
    explicit DNSLookup(LookupTiming timing) : timing_(timing) {}

    static QString Version(); // "3.0"

    // dnsServer: an IPv4 or IPv6 address or a host name, optionally with ":port"
    // ("[addr]:port" for IPv6). The domain is queried exactly as given, as an absolute name.
    QByteArray LookupMX(const QByteArray& domain, const QString& dnsServer);

    // The same query, blocking the calling thread. This is what the worker runs.
    static QByteArray LookupMXBlocking(const QByteArray& domain, const QString& dnsServer,
                                       LookupTiming timing);

private:
    LookupTiming timing_;
};

inline constexpr char kDnsTimeoutText[] = "ERROR_DNS_TIMEOUT";
// The separators of the records text.
inline constexpr char kMxFieldSeparator = '\xA4';
inline constexpr char kMxRecordEnd = '|';

} // namespace postiq
