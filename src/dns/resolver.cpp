#include "dns/resolver.h"

#include <cmath>
#include <limits>
#include <utility>

#include "config/settings.h"
#include "log/logs.h"
#include "log/dates.h"

namespace postiq {

namespace {

const QByteArray kNoHost = "NONE";

// The preference of a record. DNS preferences run to 65535 while a list holds 16-bit signed
// orders: a preference above 32767 is kept as 32767, so that it still sorts after every lower one
// instead of making a valid answer fatal.
int16_t readOrder(const QByteArray& text)
{
    bool ok = false;
    const int value = text.toInt(&ok);
    if (!ok || value < std::numeric_limits<int16_t>::min() || value > 65535)
        throw Fault(ErrTypeMismatch, "Bad MX preference in lookup result: " + QString::fromLatin1(text));
    return static_cast<int16_t>(std::min(value, int(std::numeric_limits<int16_t>::max())));
}

double readTtl(const QByteArray& text)
{
    bool ok = false;
    const double value = text.toDouble(&ok);
    if (!ok || !std::isfinite(value))
        throw Fault(ErrTypeMismatch, "Bad MX TTL in lookup result: " + QString::fromLatin1(text));
    return value;
}

} // namespace

CDns::CDns(Logs& logs, const Settings& settings, DnsCache& cache)
    : logs_(logs), settings_(settings), cache_(cache)
{
}

void CDns::ResolveMx(const QByteArray& domain, std::function<void()> done)
{
    const bool answered = logs_.guarded("CLS:DNS[ResolveMx]", [&] {
        if (settings_.UserSettings.SmtpServerDefined) {
            const QByteArray server = settings_.ActiveSettings.SmtpServer.toUtf8();
            logs_.DbgAdd("<FONT COLOR='#FF8000'>Send using SMTP server: " + server + "</FONT><BR>");
            MX.Add(0, server, QByteArray(), 0);
            return true;
        }

        const int index = cache_.DNSCacheIndex.value(domain);
        if (index == 0) {
            askDns(domain, done);
            return false;
        }
        logs_.DbgAdd("<FONT COLOR='#FF8000'>DNS: " + domain + " found in cache</FONT><BR>");
        if (index >= cache_.DNSCache.size())
            throw Fault(ErrOutOfRange, QStringLiteral("DNS cache index %1 past its end").arg(index));
        const QList<MXRecord>& hosts = cache_.DNSCache[index].MX;
        for (qsizetype i = 1; i < hosts.size(); ++i)
            MX.Add(hosts[i].Order, hosts[i].Host, hosts[i].IP, hosts[i].TTL);
        return true;
    });
    if (answered)
        done();
}

void CDns::askDns(const QByteArray& domain, std::function<void()> done)
{
    logs_.DbgAdd("<FONT COLOR='#FF8000'>DNS: " + domain + " not in cache</FONT><BR>");
    // Read once: the settings may be reloaded while the query is under way.
    const QString dnsServer = settings_.ActiveSettings.DNSServer;
    const std::weak_ptr<CDns*> resolver = self_;
    cache_.lookups.LookupMX(domain, dnsServer, lookupTiming,
                            [resolver, domain, dnsServer, done](const QByteArray& result) {
                                const std::shared_ptr<CDns*> alive = resolver.lock();
                                if (!alive)
                                    return;
                                (*alive)->takeDnsAnswer(domain, dnsServer, result);
                                done();
                            });
}

void CDns::takeDnsAnswer(const QByteArray& domain, const QString& dnsServer, QByteArray result)
{
    logs_.guarded("CLS:DNS[ResolveMx]", [&] {
        if (result == kDnsTimeoutText) {
            logs_.MailLog(GMTDate(logs_.clock()) + " Postiq/smtpdistant: 421 No MX DNS available for "
                          + domain + " using NS " + dnsServer.toUtf8() + " (time out) status=error");
            result.clear();
        }
        if (result.isEmpty()) {
            MX.setHost(0, kNoHost); // nothing cached: the next request asks again
            return;
        }
        MX.setHost(0, QByteArray());
        const int records = AddLookupRecords(MX, result);
        SortMx(records, MX, true);
        DNSAddCache(domain, MX);
    });
}

int CDns::AddLookupRecords(CMXServer& list, const QByteArray& result)
{
    const QList<QByteArray> pieces = result.split(kMxRecordEnd);
    const int records = int(pieces.size() - 1);
    for (int i = 0; i < records; ++i) {
        const QList<QByteArray> fields = pieces[i].split(kMxFieldSeparator);
        if (fields.size() < 3) {
            throw Fault(ErrTypeMismatch,
                        "Malformed MX record in lookup result: " + QString::fromLatin1(pieces[i]));
        }
        list.Add(readOrder(fields[0]), fields[1], QByteArray(), readTtl(fields[2]));
        if (fields.size() > 3)
            list.record(list.Count()).Addresses = fields[3];
    }
    return records;
}

void CDns::SortMx(int n, CMXServer& list, bool ascending)
{
    for (int i = 1; i <= n; ++i) {
        for (int j = 1; j <= n - i; ++j) {
            const int16_t first = list.Order(j);
            const int16_t second = list.Order(j + 1);
            // Only a strict inversion swaps, so equal preferences keep the lookup's order.
            if (ascending ? first > second : first < second)
                std::swap(list.record(j), list.record(j + 1));
        }
    }
}

void CDns::DNSAddCache(const QByteArray& domain, const CMXServer& mx)
{
    // Reported under the resolver's label: a cache entry is only ever added while resolving.
    logs_.guarded("CLS:DNS[ResolveMx]", [&] {
        const int index = int(cache_.DNSCache.size());
        DNSCacheEntry entry;
        entry.Domain = domain;
        for (int i = 1; i <= mx.Count(); ++i) {
            entry.MX.append(mx.record(i));
            // The cache outlives any address: a hit asks for the addresses afresh.
            entry.MX.last().Addresses.clear();
            logs_.DbgAdd("<FONT COLOR='#FF8000'>Add in DNS cache #" + QByteArray::number(index) + ": "
                         + domain + " MX=" + mx.Host(i) + "</FONT><BR>");
        }
        cache_.DNSCache.append(std::move(entry));
        cache_.DNSCacheIndex.insert(domain, index);
    });
}

} // namespace postiq
