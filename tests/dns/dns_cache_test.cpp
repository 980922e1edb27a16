#include <QFile>
#include <QtEndian>
#include <cmath>
#include <cstring>
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
    void addDomain(const QByteArray& domain, QList<MXRecord> hosts)
    {
        DNSCacheEntry entry;
        entry.Domain = domain;
        entry.MX += hosts;
        cache.DNSCache.append(entry);
        cache.DNSCacheIndex.insert(domain, int(cache.DNSCache.size() - 1));
    }
};

QByteArray hex(const char* text) { return QByteArray::fromHex(text); }

QByteArray littleEndianDouble(double value)
{
    quint64 bits;
    std::memcpy(&bits, &value, sizeof bits);
    char bytes[8];
    qToLittleEndian(bits, bytes);
    return QByteArray(bytes, 8);
}

// The header entry of a file whose table holds `elements` entries, with its Count given.
QByteArray fileStart(qint32 elements, double count)
{
    char n[4];
    qToLittleEndian(elements, n);
    return hex("0100") + QByteArray(n, 4) + hex("00000000")
        + hex("0000" "0100" "01000000" "00000000" "0000" "0000" "0000" "0000000000000000" "0000")
        + littleEndianDouble(count);
}

TEST(DnsCacheFile, WritesTheKnownLayout)
{
    CacheBench c;
    c.bench.debug.debug = true;
    c.addDomain("a.test", {MXRecord{10, "mx.a.test", "", 3600}});

    DNSWriteCache(c.cache, c.bench.logs);

    const QByteArray expected = fileStart(2, 1.0)
        + hex("0600") + "a.test" + hex("0100" "02000000" "00000000")
        + hex("0000" "0000" "0000" "0000000000000000")
        + hex("0a00" "0900") + "mx.a.test" + hex("0000" "00000000" "0020ac40")
        + hex("0000" "0000000000000000");
    EXPECT_EQ(readFile(c.file()).toHex(), expected.toHex());
    EXPECT_EQ(c.cache.DNSCache[0].Count, 1.0);
    EXPECT_EQ(c.mailLog(), "Feb 05 2004 09:05:07 Postiq Writing DNS cache (1) [OK]\r\n");
    EXPECT_TRUE(readFile(c.bench.path("Debug.html"))
                    .contains("<FONT face='Verdana' size='2' COLOR='#FF8000'>Writing DNS cache: 1<BR>\r\n</FONT>"));
    EXPECT_FALSE(QFile::exists(c.file() + ".new"));
}

TEST(DnsCacheFile, EmptyCacheAndMissingFile)
{
    CacheBench c;
    DNSOpenCache(c.cache, c.bench.logs); // no file yet
    EXPECT_EQ(c.cache.DNSCache.size(), 1);
    DNSWriteCache(c.cache, c.bench.logs);
    EXPECT_EQ(readFile(c.file()).toHex(), fileStart(1, 0).toHex());

    c.cache.DNSCacheIndex.insert("stale.test", 3);
    DNSOpenCache(c.cache, c.bench.logs);
    EXPECT_EQ(c.cache.DNSCache.size(), 1);
    EXPECT_TRUE(c.cache.DNSCacheIndex.isEmpty());
    EXPECT_EQ(c.mailLog(), "Feb 05 2004 09:05:07 Postiq Loading DNS cache (0) [OK]\r\n"
                           "Feb 05 2004 09:05:07 Postiq Writing DNS cache (0) [OK]\r\n"
                           "Feb 05 2004 09:05:07 Postiq Loading DNS cache (0) [OK]\r\n");
}

TEST(DnsCacheFile, RoundTripKeepsEveryField)
{
    CacheBench c;
    c.addDomain("one.test", {MXRecord{-5, "mx1", "192.0.2.7", 1.5}, MXRecord{32767, "mx2", "", 0}});
    c.addDomain("Two.test", {});
    c.cache.DNSCache[2].Spare = "x";
    DNSWriteCache(c.cache, c.bench.logs);

    DnsCache loaded;
    DNSOpenCache(loaded, c.bench.logs);
    ASSERT_EQ(loaded.DNSCache.size(), 3);
    for (int i = 1; i < 3; ++i) {
        EXPECT_EQ(loaded.DNSCache[i].Domain, c.cache.DNSCache[i].Domain);
        EXPECT_EQ(loaded.DNSCache[i].Spare, c.cache.DNSCache[i].Spare);
        ASSERT_EQ(loaded.DNSCache[i].MX.size(), c.cache.DNSCache[i].MX.size());
        for (int j = 0; j < loaded.DNSCache[i].MX.size(); ++j) {
            const MXRecord& a = loaded.DNSCache[i].MX[j];
            const MXRecord& b = c.cache.DNSCache[i].MX[j];
            EXPECT_TRUE(a.Order == b.Order && a.Host == b.Host && a.IP == b.IP && a.TTL == b.TTL);
        }
    }
    EXPECT_EQ(loaded.DNSCacheIndex, c.cache.DNSCacheIndex);
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
    EXPECT_EQ(loaded.DNSCache[255].Domain, "d255.test");
    EXPECT_EQ(loaded.DNSCache[255].MX.value(1).Host, "mx255");
    EXPECT_EQ(loaded.DNSCache[256].Domain, "");
    EXPECT_EQ(loaded.DNSCache[300].MX.size(), 1);
    EXPECT_EQ(loaded.DNSCacheIndex.value("d255.test"), 255);
    EXPECT_EQ(loaded.DNSCacheIndex.value("d256.test"), 0);
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
        {"truncated", sound.left(sound.size() - 1)},
        {"cut in the header", sound.left(5)},
        {"two dimensions", hex("0200") + sound.mid(2)},
        {"lower bound 1", sound.left(6) + hex("01000000") + sound.mid(10)},
        {"element count past the end", sound.left(2) + hex("ffffff7f") + sound.mid(6)},
        {"negative element count", sound.left(2) + hex("ffffffff") + sound.mid(6)},
        {"string past the end", sound.left(46) + hex("fefe") + sound.mid(48)},
        {"count NaN", fileStart(1, std::numeric_limits<double>::quiet_NaN())},
        {"count 1e12", fileStart(1, 1e12)},
        {"count negative", fileStart(1, -1)},
        {"count not whole", fileStart(1, 0.5)},
        {"count past the entries", fileStart(1, 1)},
    };
    for (const auto& [what, bytes] : files) {
        CacheBench c;
        writeFile(c.file(), bytes);
        EXPECT_THROW(DNSOpenCache(c.cache, c.bench.logs), ProgramEnded) << what;
        ASSERT_EQ(c.bench.desktop.diagnostics.size(), 1) << what;
        EXPECT_TRUE(c.bench.desktop.diagnostics[0].startsWith("Where: MOD:DNS[DNSOpenCache]")) << what;
    }
}

TEST(DnsCacheFile, NameTooLongForTheFormatIsFatal)
{
    CacheBench c;
    c.addDomain(QByteArray(65534, 'a'), {});
    DNSWriteCache(c.cache, c.bench.logs);
    EXPECT_TRUE(c.bench.desktop.diagnostics.isEmpty());

    c.addDomain("b.test", {MXRecord{1, QByteArray(65535, 'h'), "", 1}});
    EXPECT_THROW(DNSWriteCache(c.cache, c.bench.logs), ProgramEnded);
    ASSERT_EQ(c.bench.desktop.diagnostics.size(), 1);
    EXPECT_TRUE(c.bench.desktop.diagnostics[0].startsWith("Where: MOD:DNS[DNSWriteCache], number 6:"));
}

} // namespace
