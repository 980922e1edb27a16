#include "dns/mx_lookup.h"

#include <QMetaObject>

#include <optional>

#include "dns/dns_query.h"

namespace postiq {

namespace {

// A byte that would break the record text or a host name: the separators, controls, a space,
// and a dot inside a label.
bool unsafeInHost(unsigned char c)
{
    return c < 0x20 || c == 0x7F || c == ' ' || c == '.' || c == kMxRecordEnd
        || c == static_cast<unsigned char>(kMxFieldSeparator);
}

// The exchanger's name from the raw labels of the rdata, without its final dot. Nothing when a
// label holds an unsafe byte or the name is the root (a "null MX": the domain takes no mail).
std::optional<QByteArray> exchangerName(const ldns_rdf* rdf)
{
    if (!rdf || ldns_rdf_get_type(rdf) != LDNS_RDF_TYPE_DNAME)
        return std::nullopt;
    const uint8_t* data = ldns_rdf_data(rdf);
    const size_t size = ldns_rdf_size(rdf);
    QByteArray host;
    size_t pos = 0;
    while (pos < size) {
        const size_t length = data[pos++];
        if (length == 0)
            break;
        if (length > kMaxDnsLabel || pos + length > size)
            return std::nullopt;
        for (size_t i = 0; i < length; ++i) {
            if (unsafeInHost(data[pos + i]))
                return std::nullopt;
        }
        if (!host.isEmpty())
            host += '.';
        host.append(reinterpret_cast<const char*>(data + pos), qsizetype(length));
        pos += length;
    }
    if (host.isEmpty())
        return std::nullopt;
    return host;
}

QByteArray recordsText(const ldns_pkt* answer)
{
    QByteArray text;
    const ldns_rr_list* rrs = ldns_pkt_answer(answer);
    const size_t count = rrs ? ldns_rr_list_rr_count(rrs) : 0;
    for (size_t i = 0; i < count; ++i) {
        const ldns_rr* rr = ldns_rr_list_rr(rrs, i);
        if (ldns_rr_get_type(rr) != LDNS_RR_TYPE_MX)
            continue;
        const ldns_rdf* preference = ldns_rr_mx_preference(rr);
        if (!preference || ldns_rdf_size(preference) != 2)
            continue;
        const auto host = exchangerName(ldns_rr_mx_exchange(rr));
        if (!host)
            continue;
        text += QByteArray::number(ldns_rdf2native_int16(preference)) + kMxFieldSeparator + *host
            + kMxFieldSeparator + QByteArray::number(ldns_rr_ttl(rr));
        // The exchanger's addresses, when the server sent them along, save asking for them.
        const QByteArray addresses = AddressesIn(ldns_pkt_additional(answer), ldns_rr_mx_exchange(rr));
        if (!addresses.isEmpty())
            text += kMxFieldSeparator + addresses;
        text += kMxRecordEnd;
    }
    return text;
}

} // namespace

QString DNSLookup::Version() { return QStringLiteral("3.0"); }

QByteArray DNSLookup::LookupMXBlocking(const QByteArray& domain, const QString& dnsServer,
                                       LookupTiming timing)
{
    const DnsReply reply = AskDnsServer(domain, LDNS_RR_TYPE_MX, dnsServer, timing);
    if (reply.kind == DnsReply::Kind::TimedOut)
        return kDnsTimeoutText;
    if (reply.kind == DnsReply::Kind::NoData)
        return {};
    return recordsText(reply.packet.get());
}

QByteArray DNSLookup::LookupAddressesBlocking(const QByteArray& host, const QString& dnsServer,
                                              LookupTiming timing, bool ipv6)
{
    const DnsReply reply = AskDnsServer(host, ipv6 ? LDNS_RR_TYPE_AAAA : LDNS_RR_TYPE_A, dnsServer, timing);
    if (reply.kind == DnsReply::Kind::TimedOut)
        return kDnsTimeoutText;
    if (reply.kind == DnsReply::Kind::NoData)
        return {};
    // The whole answer section: a name that is an alias comes with its target's records.
    return AddressesIn(ldns_pkt_answer(reply.packet.get()));
}

MxLookupPool::MxLookupPool(int workers) { pool_.setMaxThreadCount(workers); }

MxLookupPool::~MxLookupPool()
{
    pool_.clear();
    pool_.waitForDone();
}

void MxLookupPool::LookupMX(const QByteArray& domain, const QString& dnsServer, LookupTiming timing,
                            Done done)
{
    Run([domain, dnsServer, timing] { return DNSLookup::LookupMXBlocking(domain, dnsServer, timing); },
        std::move(done));
}

void MxLookupPool::Run(std::function<QByteArray()> query, Done done)
{
    pool_.start([this, query = std::move(query), done = std::move(done)] {
        QByteArray result = query();
        // Posted to the receiver: runs on its thread, after the events already pending there.
        QMetaObject::invokeMethod(
            &receiver_, [done, result = std::move(result)] { done(result); }, Qt::QueuedConnection);
    });
}

} // namespace postiq
