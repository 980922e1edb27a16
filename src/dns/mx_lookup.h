#pragma once

#include <QByteArray>
#include <QString>
#include <QObject>
#include <QThreadPool>
#include <chrono>
#include <functional>

namespace postiq {

// How long one MX query may wait. A DNS server that stays silent costs timeout x tries before the
// lookup reports "ERROR_DNS_TIMEOUT"; 3 s and 2 tries keep a dead server from holding a delivery
// much longer than a slow but working one needs to answer.
struct LookupTiming {
    std::chrono::milliseconds timeout{3000}; // per try
    int tries = 2;
};

// The MX query component. A query answers with one of:
//   "ERROR_DNS_TIMEOUT"   no answer at all, or a server that cannot be reached or named;
//   empty text            no such domain, no MX record, or a server failure;
//   records               "Order" 0xA4 "Host" 0xA4 "TTL" "|" per MX record, in the answer's order;
//                         0xA4 and the exchanger's addresses, separated by spaces, come before
//                         the "|" when the answer's additional section held them.
class DNSLookup {
public:
    static QString Version(); // "3.0"

    // dnsServer: an IPv4 or IPv6 address or a host name, optionally with ":port"
    // ("[addr]:port" for IPv6). The domain is queried exactly as given, as an absolute name.
    // Blocks the calling thread: only the workers of MxLookupPool run it.
    static QByteArray LookupMXBlocking(const QByteArray& domain, const QString& dnsServer,
                                       LookupTiming timing);
    // The A (or, with ipv6, AAAA) addresses of a host, separated by spaces; the same
    // "ERROR_DNS_TIMEOUT" and empty text as above.
    static QByteArray LookupAddressesBlocking(const QByteArray& host, const QString& dnsServer,
                                              LookupTiming timing, bool ipv6);
};

// A few worker threads that run MX queries, so that a slow DNS server never holds up the event
// loop. Each answer comes back to the thread that owns the pool as a queued call: never inside
// LookupMX itself, and never once the pool is gone. The workers touch nothing of the program's:
// they get the query's text and give back the answer's text.
class MxLookupPool {
public:
    using Done = std::function<void(const QByteArray& result)>;

    explicit MxLookupPool(int workers = 4);
    // Waits for the queries under way, each bounded by its timing; queued ones are dropped.
    ~MxLookupPool();
    MxLookupPool(const MxLookupPool&) = delete;
    MxLookupPool& operator=(const MxLookupPool&) = delete;

    void LookupMX(const QByteArray& domain, const QString& dnsServer, LookupTiming timing, Done done);
    // Runs any query of the same kind: `query` gets only values and touches nothing of the
    // program's, and `done` gets its answer on the owning thread.
    void Run(std::function<QByteArray()> query, Done done);

private:
    QObject receiver_; // lives on the owning thread; the answers are posted to it
    QThreadPool pool_; // after receiver_, so that it is gone (and its workers done) first
};

inline constexpr char kDnsTimeoutText[] = "ERROR_DNS_TIMEOUT";
// The separators of the records text.
inline constexpr char kMxFieldSeparator = '\xA4';
inline constexpr char kMxRecordEnd = '|';

} // namespace postiq
