#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>

#include "dns/mx_lookup.h"
#include "dns/mx_server.h"

namespace postiq {

class Logs;

// One cached domain; MX[0] is a blank record, the hosts are at 1..n in sorted lookup order.
struct DNSCacheEntry {
    QByteArray Domain;
    QList<MXRecord> MX{MXRecord{}};
    QByteArray Spare;
    double Count = 0; // only entry 0 uses it: the number of domain entries
};

// The program-wide MX cache, shared by every resolver. Entry 0 is the header; domains follow in
// the order they were first resolved. Keys compare exactly (case-sensitive). The workers that
// ask the DNS server for the domains the cache lacks live with it.
struct DnsCache {
    QList<DNSCacheEntry> DNSCache{DNSCacheEntry{}};
    QHash<QByteArray, int> DNSCacheIndex;
    MxLookupPool lookups;
};

// Loads Hosts.dns from the program folder (at most 256 entries are read).
void DNSOpenCache(DnsCache& cache, Logs& logs);
// Writes the whole cache to Hosts.dns in the program folder, durably.
void DNSWriteCache(DnsCache& cache, Logs& logs);

} // namespace postiq
