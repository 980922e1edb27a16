#pragma once

#include <QByteArray>
#include <functional>
#include <memory>

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
    CDns(const CDns&) = delete;
    CDns& operator=(const CDns&) = delete;

    CMXServer MX;
    int CurrentMX = 0; // the host the delivery is trying, kept here for the slot

    // Appends the hosts of the domain to MX, then calls `done`: at once for the fixed server and
    // a cached domain, from the event loop once the DNS server has answered otherwise (Host(0) is
    // then "NONE" when nothing was found). A resolver that is destroyed meanwhile is never called
    // back.
    void ResolveMx(const QByteArray& domain, std::function<void()> done);

    // Stable bubble sort of entries 1..n by Order.
    static void SortMx(int n, CMXServer& list, bool ascending);

    // Copies entries 1..mx.Count() into a new cache entry for the domain.
    void DNSAddCache(const QByteArray& domain, const CMXServer& mx);

    // Appends one host per record of a lookup result ("Order" 0xA4 "Host" 0xA4 "TTL" "|" ..., with
    // perhaps 0xA4 and the host's addresses before the "|") and
    // gives the number of records. Text after the last "|" is not a record. A record that cannot
    // be read is a Fault.
    static int AddLookupRecords(CMXServer& list, const QByteArray& result);

    LookupTiming lookupTiming; // how long a query may wait (tests shorten it)

    // The workers that ask the DNS server, shared with every other slot's resolver.
    MxLookupPool& lookups() const { return cache_.lookups; }

private:
    void askDns(const QByteArray& domain, std::function<void()> done);
    void takeDnsAnswer(const QByteArray& domain, const QString& dnsServer, QByteArray result);

    Logs& logs_;
    const Settings& settings_;
    DnsCache& cache_;
    // Answers hold it weakly: they reach this resolver only while it lives.
    std::shared_ptr<CDns*> self_ = std::make_shared<CDns*>(this);
};

} // namespace postiq
