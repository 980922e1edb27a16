#include <QFile>
#include <QtEndian>
#include <gtest/gtest.h>
#include <limits>

#include "dns/dns_cache.h"
#include "support/fakes.h"

using namespace postiq;
using namespace postiq::test;

namespace {

struct CacheBench {
    LogBench bench;
    DnsCache cache;

    QString file() const { return bench.path("Hosts.dns"); }
    QByteArray mailLog() const { return readFile(bench.path("maillog.txt")); }
    void addDomain(const QByteArray& domain, const QList<MXRecord>& hosts)
    {
        cache.DNSCache.append({domain, QList<MXRecord>{MXRecord{}} + hosts, {}, 0});
        cache.DNSCacheIndex.insert(domain, int(cache.DNSCache.size() - 1));
    }
};

QByteArray hex(const char* text) { return QByteArray::fromHex(text); }

template <typename T>
QByteArray littleEndian(T value)
{
    QByteArray bytes(sizeof(T), '\0');
    qToLittleEndian(value, bytes.data());
    return bytes;
}

// The table header and entry 0 of a file whose table holds `elements` entries, with its Count.
QByteArray fileStart(qint32 elements, double count)
{
    return hex("0100") + littleEndian(elements) + hex("00000000")
        + hex("0000" "0100" "01000000" "00000000" "0000" "0000" "0000" "0000000000000000" "0000")
        + littleEndian(count);
}

TEST(DnsCacheFile, KnownLayoutsAndRoundTrip)
{
    CacheBench c;
    c.bench.debug.debug = true;
    c.cache.DNSCacheIndex.insert("stale.test", 3);
    DNSOpenCache(c.cache, c.bench.logs); // no file yet: an empty cache
    EXPECT_TRUE(c.cache.DNSCacheIndex.isEmpty());
    DNSWriteCache(c.cache, c.bench.logs);
    EXPECT_EQ(readFile(c.file()).toHex(), fileStart(1, 0).toHex());

    c.addDomain("a.test", {MXRecord{-2, "mx.a.test", "192.0.2.7", 3600}});
    c.cache.DNSCache[1].Spare = "x";
    DNSWriteCache(c.cache, c.bench.logs);
    const QByteArray expected = fileStart(2, 1.0)
        + hex("0600") + "a.test" + hex("0100" "02000000" "00000000")
        + hex("0000" "0000" "0000" "0000000000000000")
        + hex("feff" "0900") + "mx.a.test" + hex("0900") + "192.0.2.7" + hex("000000000020ac40")
        + hex("0100") + "x" + hex("0000000000000000");
    EXPECT_EQ(readFile(c.file()).toHex(), expected.toHex());
    EXPECT_FALSE(QFile::exists(c.bench.path(".Hosts.dns.new")));
    EXPECT_TRUE(readFile(c.bench.path("Debug.html"))
                    .contains("<FONT face='Verdana' size='2' COLOR='#FF8000'>Writing DNS cache: 1<BR>\r\n</FONT>"));

    DnsCache loaded; // every field read back: writing it again gives the same bytes
    DNSOpenCache(loaded, c.bench.logs);
    EXPECT_EQ(loaded.DNSCacheIndex, c.cache.DNSCacheIndex);
    DNSWriteCache(loaded, c.bench.logs);
    EXPECT_EQ(readFile(c.file()).toHex(), expected.toHex());
    EXPECT_EQ(c.mailLog(), "Feb 05 2004 09:05:07 Postiq Loading DNS cache (0) [OK]\r\n"
                           "Feb 05 2004 09:05:07 Postiq Writing DNS cache (0) [OK]\r\n"
                           "Feb 05 2004 09:05:07 Postiq Writing DNS cache (1) [OK]\r\n"
                           "Feb 05 2004 09:05:07 Postiq Loading DNS cache (1) [OK]\r\n"
                           "Feb 05 2004 09:05:07 Postiq Writing DNS cache (1) [OK]\r\n");
}

TEST(DnsCacheFile, ReloadKeepsTheFirst255Domains)
{
    CacheBench c;
    for (int i = 1; i <= 300; ++i)
        c.addDomain("d" + QByteArray::number(i) + ".test", {MXRecord{10, "mx" + QByteArray::number(i), "", 60}});
    DNSWriteCache(c.cache, c.bench.logs);

    DnsCache loaded;
    DNSOpenCache(loaded, c.bench.logs);
    ASSERT_EQ(loaded.DNSCache.size(), 301);
    EXPECT_EQ(loaded.DNSCache[255].MX.value(1).Host, "mx255");
    EXPECT_EQ(loaded.DNSCache[256].Domain, "");
    EXPECT_EQ(loaded.DNSCacheIndex.value("d255.test"), 255);
    EXPECT_FALSE(loaded.DNSCacheIndex.contains("d256.test"));
    EXPECT_TRUE(c.mailLog().endsWith(" Postiq Loading DNS cache (300) [OK]\r\n"));
}

// Every damaged file must end in the fatal report, never in a long read or a huge allocation.
TEST(DnsCacheFile, DamagedFilesAreFatal)
{
    CacheBench good;
    good.addDomain("a.test", {MXRecord{10, "mx.a.test", "", 3600}});
    DNSWriteCache(good.cache, good.bench.logs);
    const QByteArray sound = readFile(good.file());

    const QList<std::pair<const char*, QByteArray>> files = {
        {"truncated", sound.chopped(1)},
        {"two dimensions", hex("0200") + sound.mid(2)},
        {"lower bound 1", sound.left(6) + hex("01000000") + sound.mid(10)},
        {"element count past the end", sound.left(2) + hex("ffffff7f") + sound.mid(6)},
        {"negative element count", sound.left(2) + hex("ffffffff") + sound.mid(6)},
        {"string past the end", sound.left(46) + hex("fefe") + sound.mid(48)},
        {"count NaN", fileStart(1, std::numeric_limits<double>::quiet_NaN())},
        {"count negative", fileStart(1, -1)},
        {"count rounding past the entries", fileStart(1, 0.6)},
        {"count past the entries", fileStart(1, 1)},
    };
    for (const auto& [what, bytes] : files) {
        CacheBench c;
        writeFile(c.file(), bytes);
        EXPECT_THROW(DNSOpenCache(c.cache, c.bench.logs), ProgramEnded) << what;
        ASSERT_EQ(c.bench.desktop.diagnostics.size(), 1) << what;
        EXPECT_TRUE(c.bench.desktop.diagnostics[0].startsWith("Where: MOD:DNS[DNSOpenCache]")) << what;
    }

    CacheBench rounded; // a count that is not whole is rounded, half to even, not refused
    writeFile(rounded.file(), fileStart(1, 0.5));
    DNSOpenCache(rounded.cache, rounded.bench.logs);
    EXPECT_EQ(rounded.mailLog(), "Feb 05 2004 09:05:07 Postiq Loading DNS cache (0) [OK]\r\n");
}

} // namespace
