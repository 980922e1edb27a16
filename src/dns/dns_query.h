#pragma once

#include <QByteArray>
#include <QString>

#include <ldns/ldns.h>

#include <memory>

#include "dns/mx_lookup.h"

namespace postiq {

// The longest label of a DNS name.
inline constexpr int kMaxDnsLabel = 63;

struct PacketFree {
    void operator()(ldns_pkt* p) const { ldns_pkt_free(p); }
};
using Packet = std::unique_ptr<ldns_pkt, PacketFree>;

// What one question to a DNS server came to.
struct DnsReply {
    enum class Kind {
        TimedOut, // no answer, or a server that cannot be reached or named
        NoData,   // not a name that can exist, no such name, or a server failure
        Answered, // `packet` is the answer (it may still hold no record of the type asked)
    };
    Kind kind = Kind::TimedOut;
    Packet packet;
};

// Asks `dnsServer` (an address or a name, optionally with ":port") one question of `type` about
// `name`, taken exactly as given as an absolute name. Blocks the calling thread for at most about
// timing.timeout x timing.tries per address of the server: only lookup workers call it.
DnsReply AskDnsServer(const QByteArray& name, ldns_rr_type type, const QString& dnsServer, LookupTiming timing);

// The A and AAAA records of a section as address texts separated by spaces ("192.0.2.1 ::1"),
// those of `owner` only when one is given (compared without regard to case).
QByteArray AddressesIn(const ldns_rr_list* section, const ldns_rdf* owner = nullptr);

} // namespace postiq
