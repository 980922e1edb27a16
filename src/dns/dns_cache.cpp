#include "dns/dns_cache.h"

#include <QFile>
#include <QtEndian>

#include <bit>
#include <cmath>

#include "log/logs.h"
#include "log/dates.h"
#include "platform/durable_file.h"

namespace postiq {

namespace {

const QString kCacheFile = QStringLiteral("Hosts.dns");

// Entries read from the file at most; entries past them come back blank.
constexpr int kReadLimit = 256;
// A string's length is 16 bits; the largest value is reserved by the format.
constexpr qsizetype kMaxText = 65534;

// Smallest possible sizes in the file, used to refuse counts the remaining bytes cannot hold.
constexpr qint64 kArrayHeaderSize = 2 + 4 + 4;
constexpr qint64 kMinRecordSize = 2 + 2 + 2 + 8;
constexpr qint64 kMinEntrySize = 2 + kArrayHeaderSize + kMinRecordSize + 2 + 8;

QString cachePath(const Logs& logs) { return logs.folder() + '/' + kCacheFile; }

QByteArray countText(double count) { return QByteArray::number(qint64(count)); }

// Little-endian fields of the cache file, each read only when the file still holds it.
class CacheReader {
public:
    explicit CacheReader(QFile& file) : file_(file), remaining_(file.size()) {}

    QByteArray bytes(qint64 size)
    {
        if (size > remaining_)
            throw Fault(ErrPastEndOfFile, kCacheFile + QStringLiteral(" ends before its contents"));
        const QByteArray data = file_.read(size);
        if (data.size() != size)
            throw Fault(ErrFileAccess, QStringLiteral("Cannot read %1: %2").arg(kCacheFile, file_.errorString()));
        remaining_ -= size;
        return data;
    }
    template <typename T>
    T number()
    {
        return qFromLittleEndian<T>(bytes(sizeof(T)).constData());
    }
    double real() { return std::bit_cast<double>(number<quint64>()); }
    QByteArray text()
    {
        const quint16 length = number<quint16>();
        if (length > kMaxText)
            throw Fault(ErrBadFileFormat, kCacheFile + QStringLiteral(": a string with a reserved length"));
        return bytes(length);
    }

    // An array header: one dimension from index 0. Gives the element count, once it is known that
    // the rest of the file can hold that many elements of at least elementSize bytes.
    qint64 arrayHeader(qint64 elementSize)
    {
        if (number<quint16>() != 1)
            throw Fault(ErrBadFileFormat, kCacheFile + QStringLiteral(": an array is not one-dimensional"));
        const qint64 count = number<qint32>();
        const qint32 lowerBound = number<qint32>();
        if (lowerBound != 0 || count < 1)
            throw Fault(ErrBadFileFormat, kCacheFile + QStringLiteral(": bad array bounds"));
        if (count > remaining_ / elementSize)
            throw Fault(ErrPastEndOfFile, kCacheFile + QStringLiteral(" ends before its contents"));
        return count;
    }

private:
    QFile& file_;
    qint64 remaining_;
};

DNSCacheEntry readEntry(CacheReader& in)
{
    DNSCacheEntry entry;
    entry.Domain = in.text();
    const qint64 hosts = in.arrayHeader(kMinRecordSize);
    entry.MX.clear();
    entry.MX.reserve(hosts);
    for (qint64 i = 0; i < hosts; ++i) {
        MXRecord record;
        record.Order = in.number<qint16>();
        record.Host = in.text();
        record.IP = in.text();
        record.TTL = in.real();
        entry.MX.append(record);
    }
    entry.Spare = in.text();
    entry.Count = in.real();
    return entry;
}

// The number of domains the header entry announces, rounded to the nearest whole number (half to
// even). More than the file's table holds is damage, and would size the table without bound.
qsizetype domainCount(double count, qint64 elements)
{
    const double rounded = std::nearbyint(count);
    if (!std::isfinite(rounded) || rounded < 0 || rounded > double(elements - 1))
        throw Fault(ErrBadFileFormat, kCacheFile + QStringLiteral(": bad domain count"));
    return qsizetype(rounded);
}

class CacheWriter {
public:
    QByteArray data;

    template <typename T>
    void number(T value)
    {
        char bytes[sizeof(T)];
        qToLittleEndian(value, bytes);
        data.append(bytes, sizeof(T));
    }
    void real(double value) { number(std::bit_cast<quint64>(value)); }
    void text(const QByteArray& value)
    {
        if (value.size() > kMaxText)
            throw Fault(ErrOverflow, QStringLiteral("A name of %1 bytes does not fit %2")
                                         .arg(value.size())
                                         .arg(kCacheFile));
        number<quint16>(quint16(value.size()));
        data.append(value);
    }
    void arrayHeader(qsizetype count)
    {
        number<quint16>(1);
        number<qint32>(qint32(count));
        number<qint32>(0);
    }
};

QByteArray encode(const QList<DNSCacheEntry>& table)
{
    CacheWriter out;
    out.arrayHeader(table.size());
    for (const DNSCacheEntry& entry : table) {
        out.text(entry.Domain);
        out.arrayHeader(entry.MX.size());
        for (const MXRecord& record : entry.MX) {
            out.number<qint16>(record.Order);
            out.text(record.Host);
            out.text(record.IP);
            out.real(record.TTL);
        }
        out.text(entry.Spare);
        out.real(entry.Count);
    }
    return out.data;
}

} // namespace

void DNSOpenCache(DnsCache& cache, Logs& logs)
{
    logs.guarded("MOD:DNS[DNSOpenCache]", [&] {
        QList<DNSCacheEntry> table(kReadLimit);
        double count = 0;

        QFile file(cachePath(logs));
        if (file.exists()) {
            if (!file.open(QIODevice::ReadOnly))
                throw Fault(ErrFileAccess, QStringLiteral("Cannot open %1: %2").arg(kCacheFile, file.errorString()));
            CacheReader in(file);
            const qint64 elements = in.arrayHeader(kMinEntrySize);
            const qint64 taken = std::min<qint64>(elements, kReadLimit);
            for (qint64 i = 0; i < taken; ++i)
                table[i] = readEntry(in);
            count = double(domainCount(table[0].Count, elements));
        }

        table.resize(qsizetype(count) + 1);
        cache.DNSCache = std::move(table);
        cache.DNSCacheIndex.clear();
        for (qsizetype i = 1; i < cache.DNSCache.size(); ++i)
            cache.DNSCacheIndex.insert(cache.DNSCache[i].Domain, int(i));

        logs.DbgAdd("Loading DNS cache: " + countText(count) + "<BR>", DbgCache);
        logs.MailLog(GMTDate(logs.clock()) + " Postiq Loading DNS cache (" + countText(count) + ") [OK]");
    });
}

void DNSWriteCache(DnsCache& cache, Logs& logs)
{
    logs.guarded("MOD:DNS[DNSWriteCache]", [&] {
        if (cache.DNSCache.isEmpty())
            cache.DNSCache.append(DNSCacheEntry{});
        const double count = double(cache.DNSCache.size() - 1);
        cache.DNSCache[0].Count = count;
        QString error;
        if (!ReplaceDurably(cachePath(logs), encode(cache.DNSCache), &error))
            throw Fault(ErrAccessDenied, error);

        logs.DbgAdd("Writing DNS cache: " + countText(count) + "<BR>", DbgCache);
        logs.MailLog(GMTDate(logs.clock()) + " Postiq Writing DNS cache (" + countText(count) + ") [OK]");
    });
}

} // namespace postiq
