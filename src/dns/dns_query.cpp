#include "dns/dns_query.h"

#include <QHostAddress>
#include <QtEndian>

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <vector>

#include "dns/dns_server_address.h"
#include "dns/ldns_on_demand.h"

namespace postiq {

namespace {

constexpr size_t kMaxServerAddresses = 3;
constexpr int kMaxWireName = 255;

struct ResolverFree {
    void operator()(ldns_resolver* r) const { ldns_resolver_deep_free(r); }
};
struct RdfFree {
    void operator()(ldns_rdf* r) const { ldns_rdf_deep_free(r); }
};
struct AddrInfoFree {
    void operator()(addrinfo* a) const { freeaddrinfo(a); }
};
using Resolver = std::unique_ptr<ldns_resolver, ResolverFree>;
using Rdf = std::unique_ptr<ldns_rdf, RdfFree>;

// The domain in wire form, label by label from its own bytes: nothing is unescaped and no search
// domain is appended. One final dot is allowed; empty or oversized labels make no name.
Rdf queryName(const QByteArray& domain)
{
    QByteArray name = domain;
    if (name.endsWith('.'))
        name.chop(1);
    if (name.isEmpty())
        return nullptr;
    QByteArray wire;
    for (const QByteArray& label : name.split('.')) {
        if (label.isEmpty() || label.size() > kMaxDnsLabel)
            return nullptr;
        wire += char(label.size());
        wire += label;
    }
    wire += '\0';
    if (wire.size() > kMaxWireName)
        return nullptr;
    return Rdf(ldns_rdf_new_frm_data(LDNS_RDF_TYPE_DNAME, size_t(wire.size()), wire.constData()));
}

// The server's addresses; a name goes through the system's resolver first. A name with several
// addresses (say ::1 and 127.0.0.1 for "localhost") gets each of them asked in turn, up to a few.
std::vector<Rdf> serverAddresses(const QString& host)
{
    std::vector<Rdf> addresses;
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.toUtf8().constData(), nullptr, &hints, &found) != 0 || !found)
        return addresses;
    const std::unique_ptr<addrinfo, AddrInfoFree> list(found);
    for (const addrinfo* a = found; a && addresses.size() < kMaxServerAddresses; a = a->ai_next) {
        Rdf address;
        if (a->ai_family == AF_INET) {
            const auto* in4 = reinterpret_cast<const sockaddr_in*>(a->ai_addr);
            address.reset(ldns_rdf_new_frm_data(LDNS_RDF_TYPE_A, sizeof in4->sin_addr, &in4->sin_addr));
        } else if (a->ai_family == AF_INET6) {
            const auto* in6 = reinterpret_cast<const sockaddr_in6*>(a->ai_addr);
            address.reset(ldns_rdf_new_frm_data(LDNS_RDF_TYPE_AAAA, sizeof in6->sin6_addr,
                                                &in6->sin6_addr));
        }
        const bool seen = std::any_of(addresses.begin(), addresses.end(), [&](const Rdf& known) {
            return address && ldns_rdf_compare(known.get(), address.get()) == 0;
        });
        if (address && !seen)
            addresses.push_back(std::move(address));
    }
    return addresses;
}

timeval toTimeval(std::chrono::milliseconds ms)
{
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(ms.count() / 1000);
    tv.tv_usec = static_cast<suseconds_t>((ms.count() % 1000) * 1000);
    return tv;
}

} // namespace

DnsReply AskDnsServer(const QByteArray& name, ldns_rr_type type, const QString& dnsServer, LookupTiming timing)
{
    const auto timedOut = [] { return DnsReply{DnsReply::Kind::TimedOut, nullptr}; };
    const auto noData = [] { return DnsReply{DnsReply::Kind::NoData, nullptr}; };
    const auto server = ParseDnsServer(dnsServer);
    if (!server || !LdnsLoaded()) // without its library no server can be asked: as if none answered
        return timedOut();
    const std::vector<Rdf> addresses = serverAddresses(server->host);
    if (addresses.empty())
        return timedOut();
    const Rdf question = queryName(name);
    if (!question)
        return noData(); // not a name that can exist

    const Resolver resolver(ldns_resolver_new());
    if (!resolver)
        return timedOut();
    ldns_resolver* r = resolver.get();
    for (const Rdf& address : addresses) {
        if (ldns_resolver_push_nameserver(r, address.get()) != LDNS_STATUS_OK)
            return timedOut();
    }
    ldns_resolver_set_port(r, server->port);
    ldns_resolver_set_timeout(r, toTimeval(timing.timeout));
    ldns_resolver_set_retry(r, static_cast<uint8_t>(std::clamp(timing.tries, 1, 255)));
    ldns_resolver_set_retrans(r, 0);
    ldns_resolver_set_recursive(r, true);
    ldns_resolver_set_fallback(r, true); // a truncated answer is asked again over TCP
    ldns_resolver_set_defnames(r, false);
    ldns_resolver_set_dnsrch(r, false);
    ldns_resolver_set_dnssec(r, false);
    ldns_resolver_set_random(r, false);

    ldns_pkt* rawQuery = nullptr;
    if (ldns_resolver_prepare_query_pkt(&rawQuery, r, question.get(), type, LDNS_RR_CLASS_IN,
                                        LDNS_RD)
        != LDNS_STATUS_OK) {
        ldns_pkt_free(rawQuery);
        return timedOut();
    }
    const Packet query(rawQuery);
    ldns_pkt* rawAnswer = nullptr;
    const ldns_status status = ldns_resolver_send_pkt(&rawAnswer, r, query.get());
    Packet answer(rawAnswer);
    // A packet that is not the reply to this very query counts as no answer.
    if (status != LDNS_STATUS_OK || !answer || !ldns_pkt_qr(answer.get())
        || ldns_pkt_id(answer.get()) != ldns_pkt_id(query.get())) {
        return timedOut();
    }
    if (ldns_pkt_get_rcode(answer.get()) != LDNS_RCODE_NOERROR)
        return noData();
    return {DnsReply::Kind::Answered, std::move(answer)};
}

QByteArray AddressesIn(const ldns_rr_list* section, const ldns_rdf* owner)
{
    QByteArrayList addresses;
    const size_t count = section ? ldns_rr_list_rr_count(section) : 0;
    for (size_t i = 0; i < count; ++i) {
        const ldns_rr* rr = ldns_rr_list_rr(section, i);
        if (owner && ldns_dname_compare(ldns_rr_owner(rr), owner) != 0)
            continue;
        const ldns_rdf* data = ldns_rr_rd_count(rr) == 1 ? ldns_rr_rdf(rr, 0) : nullptr;
        QHostAddress address;
        if (ldns_rr_get_type(rr) == LDNS_RR_TYPE_A && data && ldns_rdf_size(data) == 4)
            address.setAddress(qFromBigEndian<quint32>(ldns_rdf_data(data)));
        else if (ldns_rr_get_type(rr) == LDNS_RR_TYPE_AAAA && data && ldns_rdf_size(data) == 16)
            address.setAddress(ldns_rdf_data(data));
        const QByteArray text = address.toString().toLatin1();
        if (!address.isNull() && !addresses.contains(text))
            addresses += text;
    }
    return addresses.join(' ');
}

} // namespace postiq
