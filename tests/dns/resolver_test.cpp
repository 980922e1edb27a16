#include <QElapsedTimer>
#include <QTimer>
#include <gtest/gtest.h>

#include "config/settings.h"
#include "dns/fake_dns_server.h"
#include "dns/resolver.h"
#include "support/fakes.h"

using namespace postiq;
using namespace postiq::test;
using namespace std::chrono_literals;

namespace {

struct Host {
    int16_t order;
    QByteArray host;
    double ttl;
    bool operator==(const Host&) const = default;
};

QList<Host> hostsOf(const CMXServer& list)
{
    QList<Host> hosts;
    for (int i = 1; i <= list.Count(); ++i)
        hosts.append({list.Order(i), list.Host(i), list.TTL(i)});
    return hosts;
}

CMXServer listOf(const QList<Host>& hosts)
{
    CMXServer list;
    for (const Host& h : hosts)
        list.Add(h.order, h.host, "", h.ttl);
    return list;
}

void PrintTo(const Host& h, std::ostream* os) { *os << h.order << ' ' << h.host.constData() << ' ' << h.ttl; }

// A resolver wired to a fake DNS server, with logs in a temporary program folder.
struct ResolverBench {
    LogBench bench;
    Settings settings;
    DnsCache cache;
    FakeDnsServer server;
    CDns dns{bench.logs, settings, cache};

    ResolverBench()
    {
        settings.ActiveSettings.DNSServer = server.server();
        dns.lookupTiming = LookupTiming{300ms, 1};
    }
    CDns freshResolver()
    {
        CDns other(bench.logs, settings, cache);
        other.lookupTiming = dns.lookupTiming;
        return other;
    }
    QByteArray mailLog() const { return readFile(bench.path("maillog.txt")); }
};

TEST(MxServer, FreshListAndBadIndex)
{
    CMXServer list;
    EXPECT_EQ(list.Count(), 0);
    EXPECT_EQ(list.Host(0), "");
    list.Add(10, "a", "", 5);
    list.setHost(0, "NONE");
    EXPECT_EQ(list.Count(), 1);
    for (int bad : {-1, 2}) {
        try {
            list.Host(bad);
            ADD_FAILURE() << "index " << bad;
        } catch (const Fault& fault) {
            EXPECT_EQ(fault.number(), ErrOutOfRange);
        }
    }
    list.Clear();
    EXPECT_EQ(list.Count(), 0);
    EXPECT_EQ(list.Host(0), "");
}

struct SortCase {
    const char* what;
    QList<Host> before;
    int n;
    bool ascending;
    QList<Host> after;
};

TEST(SortMx, StableBubbleSortOverTheFirstN)
{
    const QList<SortCase> cases = {
        {"ties keep lookup order", {{20, "a", 1}, {10, "b", 2}, {10, "c", 3}}, 3, true,
         {{10, "b", 2}, {10, "c", 3}, {20, "a", 1}}},
        {"descending", {{10, "a", 0}, {30, "b", 0}, {20, "c", 0}, {30, "d", 0}}, 4, false,
         {{30, "b", 0}, {30, "d", 0}, {20, "c", 0}, {10, "a", 0}}},
        {"only entries 1..n", {{30, "a", 0}, {20, "b", 0}, {10, "c", 0}}, 2, true,
         {{20, "b", 0}, {30, "a", 0}, {10, "c", 0}}},
        {"negative orders", {{5, "a", 0}, {-3, "b", 0}}, 2, true, {{-3, "b", 0}, {5, "a", 0}}},
        {"nothing to sort", {{5, "a", 0}}, 0, true, {{5, "a", 0}}},
    };
    for (const SortCase& c : cases) {
        CMXServer list = listOf(c.before);
        CDns::SortMx(c.n, list, c.ascending);
        EXPECT_EQ(hostsOf(list), c.after) << c.what;
    }
}

TEST(LookupRecords, ParsedUpToTheLastBar)
{
    CMXServer list;
    EXPECT_EQ(CDns::AddLookupRecords(list, "10\xA4" "a.example\xA4" "300"), 0);
    EXPECT_EQ(list.Count(), 0) << "a record without its final bar is not read";

    EXPECT_EQ(CDns::AddLookupRecords(list, "10\xA4" "a\xA4" "300|40000\xA4" "b\xA4" "1.5|x"), 2);
    EXPECT_EQ(hostsOf(list), (QList<Host>{{10, "a", 300}, {32767, "b", 1.5}}));

    for (const QByteArray& bad : {QByteArray("10\xA4" "a|"), QByteArray("x\xA4" "a\xA4" "1|"),
                                  QByteArray("10\xA4" "a\xA4" "soon|"), QByteArray("70000\xA4" "a\xA4" "1|"),
                                  QByteArray("|")}) {
        CMXServer other;
        EXPECT_THROW(CDns::AddLookupRecords(other, bad), Fault) << bad.constData();
    }
}

TEST(ResolveMx, SortsCachesAndLogsAFreshLookup)
{
    ResolverBench r;
    ASSERT_TRUE(r.server.listening());
    r.bench.debug.debug = true;
    r.server.set("example.test", {FakeReply::Records,
                                  {{20, {"a", "example", "test"}, 100},
                                   {10, {"b", "example", "test"}, 200},
                                   {10, {"c", "example", "test"}, 300}}});
    r.dns.MX.setHost(0, "stale");

    r.dns.ResolveMx("example.test");

    const QList<Host> sorted = {{10, "b.example.test", 200}, {10, "c.example.test", 300}, {20, "a.example.test", 100}};
    EXPECT_EQ(hostsOf(r.dns.MX), sorted);
    EXPECT_EQ(r.dns.MX.Host(0), "");
    ASSERT_EQ(r.cache.DNSCache.size(), 2);
    EXPECT_EQ(r.cache.DNSCache[1].Domain, "example.test");
    EXPECT_EQ(r.cache.DNSCache[1].MX.size(), 4);
    EXPECT_EQ(r.cache.DNSCache[1].MX[1].Host, "b.example.test");
    EXPECT_EQ(r.cache.DNSCacheIndex.value("example.test"), 1);

    const QByteArray debug = readFile(r.bench.path("Debug.html"));
    EXPECT_TRUE(debug.contains("<FONT COLOR='#FF8000'>DNS: example.test not in cache</FONT><BR>"));
    EXPECT_TRUE(debug.contains("<FONT COLOR='#FF8000'>Add in DNS cache #1: example.test MX=b.example.test</FONT><BR>"));
    EXPECT_TRUE(debug.contains("#1: example.test MX=a.example.test</FONT>"));
    EXPECT_EQ(r.mailLog(), "");
}

TEST(ResolveMx, CacheHitAsksNothingAndCaseMatters)
{
    ResolverBench r;
    ASSERT_TRUE(r.server.listening());
    r.bench.debug.debug = true;
    r.server.set("example.test", {FakeReply::Records, {{5, {"mx", "example", "test"}, 60}}});
    r.server.set("Example.test", {FakeReply::Records, {{7, {"other", "test"}, 60}}});
    r.dns.ResolveMx("example.test");
    const int asked = r.server.queries();

    CDns second = r.freshResolver();
    second.MX.setHost(0, "NONE");
    second.ResolveMx("example.test");
    EXPECT_EQ(r.server.queries(), asked);
    EXPECT_EQ(hostsOf(second.MX), (QList<Host>{{5, "mx.example.test", 60}}));
    EXPECT_EQ(second.MX.Host(0), "NONE") << "a hit leaves the status entry alone";
    EXPECT_TRUE(readFile(r.bench.path("Debug.html"))
                    .contains("<FONT COLOR='#FF8000'>DNS: example.test found in cache</FONT><BR>"));

    CDns third = r.freshResolver();
    third.ResolveMx("Example.test");
    EXPECT_GT(r.server.queries(), asked);
    EXPECT_EQ(hostsOf(third.MX), (QList<Host>{{7, "other.test", 60}}));
    EXPECT_EQ(r.cache.DNSCache.size(), 3);
}

TEST(ResolveMx, TimeoutLogsOnceAndCachesNothing)
{
    ResolverBench r;
    ASSERT_TRUE(r.server.listening());
    r.server.set("slow.test", {FakeReply::Silent, {}});

    r.dns.ResolveMx("slow.test");

    EXPECT_EQ(r.mailLog(), "Feb 05 2004 09:05:07 Postiq/smtpdistant: 421 No MX DNS available for slow.test using NS "
                               + r.server.server().toUtf8() + " (time out) status=error\r\n");
    EXPECT_EQ(r.dns.MX.Host(0), "NONE");
    EXPECT_EQ(r.dns.MX.Count(), 0);
    EXPECT_EQ(r.cache.DNSCache.size(), 1);
    EXPECT_TRUE(r.cache.DNSCacheIndex.isEmpty());
}

TEST(ResolveMx, EmptyAnswerIsNoneAndAskedAgainNextTime)
{
    ResolverBench r;
    ASSERT_TRUE(r.server.listening());
    r.dns.ResolveMx("nowhere.test"); // unknown to the server: name error
    EXPECT_EQ(r.dns.MX.Host(0), "NONE");
    EXPECT_EQ(r.cache.DNSCache.size(), 1);
    EXPECT_FALSE(r.cache.DNSCacheIndex.contains("nowhere.test")) << "no key left behind";

    const int asked = r.server.queries();
    r.freshResolver().ResolveMx("nowhere.test");
    EXPECT_GT(r.server.queries(), asked);
    EXPECT_EQ(r.mailLog(), "");
}

TEST(ResolveMx, FixedServerRouteMakesNoQuery)
{
    ResolverBench r;
    ASSERT_TRUE(r.server.listening());
    r.bench.debug.debug = true;
    r.settings.UserSettings.SmtpServerDefined = true;
    r.settings.ActiveSettings.SmtpServer = "smtp.example.test";
    r.dns.MX.setHost(0, "NONE");

    r.dns.ResolveMx("example.test");

    EXPECT_EQ(r.server.queries(), 0);
    ASSERT_EQ(r.dns.MX.Count(), 1);
    EXPECT_EQ(r.dns.MX.Order(1), 0);
    EXPECT_EQ(r.dns.MX.Host(1), "smtp.example.test");
    EXPECT_EQ(r.dns.MX.IP(1), "");
    EXPECT_EQ(r.dns.MX.TTL(1), 0);
    EXPECT_EQ(r.dns.MX.Host(0), "NONE");
    EXPECT_EQ(r.cache.DNSCache.size(), 1);
    EXPECT_TRUE(readFile(r.bench.path("Debug.html"))
                    .contains("<FONT COLOR='#FF8000'>Send using SMTP server: smtp.example.test</FONT><BR>"));
}

TEST(ResolveMx, TimersRunWhileTheServerIsSilent)
{
    ResolverBench r;
    ASSERT_TRUE(r.server.listening());
    r.server.set("slow.test", {FakeReply::Silent, {}});
    r.dns.lookupTiming = LookupTiming{400ms, 1};
    int ticks = 0;
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, [&] { ++ticks; });
    timer.start(20);

    QElapsedTimer clock;
    clock.start();
    r.dns.ResolveMx("slow.test");
    EXPECT_GE(ticks, 5);
    EXPECT_LT(clock.elapsed(), 3000);
    EXPECT_EQ(r.dns.MX.Host(0), "NONE");
}

TEST(ResolveMx, BrokenCacheIndexIsFatal)
{
    ResolverBench r;
    r.cache.DNSCacheIndex.insert("ghost.test", 9);
    EXPECT_THROW(r.dns.ResolveMx("ghost.test"), ProgramEnded);
    ASSERT_EQ(r.bench.desktop.diagnostics.size(), 1);
    EXPECT_TRUE(r.bench.desktop.diagnostics[0].startsWith("Where: CLS:DNS[ResolveMx], number 9:"));
}

} // namespace
