#pragma once

#include <QByteArray>

#include "dns/dns_cache.h"
#include "dns/mx_lookup.h"
#include "dns/mx_server.h"

namespace postiq {

class Logs;
class Settings;

// The mail-host resolver of one outbound connection slot. ResolveMx appends to MX (the slot empties
// it with Clear when it is released) either the fixed outgoing server or the domain's MX hosts, taken
// from the shared cache or asked of the DNS server and then cached.
class CDns {
public:
    CDns(Logs& logs, const Settings& settings, DnsCache& cache);

    CMXServer MX;
    int CurrentMX = 0; // the host the delivery is trying, kept here for the slot

    // Appends the hosts of the domain to MX. While the DNS server is asked, the event loop keeps
    // running (other handlers may run); Host(0) becomes "NONE" when nothing was found.
    void ResolveMx(const QByteArray& domain);

    // Stable bubble sort of entries 1..n by Order.
    static void SortMx(int n, CMXServer& list, bool ascending);

    // Copies entries 1..mx.Count() into a new cache entry for the domain.
    void DNSAddCache(const QByteArray& domain, const CMXServer& mx);

    // Appends one host per record of a lookup result ("Order" 0xA4 "Host" 0xA4 "TTL" "|" ...) and
    // gives the number of records. Text after the last "|" is not a record. A record that cannot
    // be read is a Fault.
    static int AddLookupRecords(CMXServer& list, const QByteArray& result);

    LookupTiming lookupTiming; // how long a query may wait (tests shorten it)

private:
    void resolveThroughDns(const QByteArray& domain);

    Logs& logs_;
    const Settings& settings_;
    DnsCache& cache_;
};

} // namespace postiq
