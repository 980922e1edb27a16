#include <QTimer>
#include <gtest/gtest.h>

#include "config/settings.h"
#include "dns/fake_dns_server.h"
#include "dns/resolver.h"
#include "support/fakes.h"
#include "support/mail_client.h"

using namespace postiq;
using namespace postiq::test;
using namespace std::chrono_literals;

namespace {

// "order host ttl;" per host of the list.
QByteArray hostsOf(const CMXServer& list)
{
    QByteArray text;
    for (int i = 1; i <= list.Count(); ++i)
        text += QByteArray::number(list.Order(i)) + ' ' + list.Host(i) + ' ' + QByteArray::number(list.TTL(i)) + ';';
    return text;
}

// Resolvers wired to a fake DNS server and one cache, with logs in a temporary program folder.
struct ResolverBench {
    LogBench bench;
    Settings settings;
    DnsCache cache;
    FakeDnsServer server;

    ResolverBench()
    {
        bench.debug.debug = true;
        settings.ActiveSettings.DNSServer = server.server();
    }
    CMXServer resolve(const QByteArray& domain, const QByteArray& status = "")
    {
        CDns dns(bench.logs, settings, cache);
        dns.lookupTiming = LookupTiming{300ms, 1};
        dns.MX.setHost(0, status);
        bool done = false;
        dns.ResolveMx(domain, [&] { done = true; });
        EXPECT_TRUE(spinUntil([&] { return done; })) << domain.constData();
        return dns.MX;
    }
    QByteArray mailLog() const { return readFile(bench.path("maillog.txt")); }
    bool debugHas(const QByteArray& line) const { return readFile(bench.path("Debug.html")).contains(line); }
};

TEST(MxList, ReadFromLookupTextAndSorted)
{
    CMXServer list;
    EXPECT_EQ(CDns::AddLookupRecords(list, "10\xA4" "a.example\xA4" "300"), 0) << "no final bar, no record";
    EXPECT_EQ(CDns::AddLookupRecords(list, "10\xA4" "a\xA4" "300|40000\xA4" "b\xA4" "1.5|x"), 2);
    EXPECT_EQ(hostsOf(list), "10 a 300;32767 b 1.5;");
    for (const QByteArray& bad : {QByteArray("10\xA4" "a|"), QByteArray("x\xA4" "a\xA4" "1|"),
                                  QByteArray("10\xA4" "a\xA4" "soon|"), QByteArray("70000\xA4" "a\xA4" "1|")})
        EXPECT_THROW(CDns::AddLookupRecords(list, bad), Fault) << bad.constData();

    CDns::AddLookupRecords(list, "20\xA4" "c\xA4" "0|32767\xA4" "d\xA4" "0|99\xA4" "e\xA4" "0|");
    CDns::SortMx(4, list, false); // the last entry is left where it is
    EXPECT_EQ(hostsOf(list), "32767 b 1.5;32767 d 0;20 c 0;10 a 300;99 e 0;");
    EXPECT_THROW(list.Host(6), Fault);
}

TEST(ResolveMx, SortsCachesThenAnswersFromTheCache)
{
    ResolverBench r;
    r.server.zones["example.test"] = {FakeReply::Records,
                                      {{20, {"a", "test"}, 100}, {10, {"b", "test"}, 200}, {10, {"c", "test"}, 300}}};
    r.server.zones["Example.test"] = {FakeReply::Records, {{7, {"other", "test"}, 60}}};

    const CMXServer fresh = r.resolve("example.test", "stale");
    EXPECT_EQ(hostsOf(fresh), "10 b.test 200;10 c.test 300;20 a.test 100;");
    EXPECT_EQ(fresh.Host(0), "");
    ASSERT_EQ(r.cache.DNSCache.size(), 2);
    EXPECT_TRUE(r.debugHas("<FONT COLOR='#FF8000'>DNS: example.test not in cache</FONT><BR>"));
    EXPECT_TRUE(r.debugHas("<FONT COLOR='#FF8000'>Add in DNS cache #1: example.test MX=b.test</FONT><BR>"));

    const CMXServer hit = r.resolve("example.test", "NONE");
    EXPECT_EQ(r.server.queries, 1);
    EXPECT_EQ(hostsOf(hit), hostsOf(fresh));
    EXPECT_EQ(hit.Host(0), "NONE") << "a hit leaves the status entry alone";
    EXPECT_TRUE(r.debugHas("<FONT COLOR='#FF8000'>DNS: example.test found in cache</FONT><BR>"));

    EXPECT_EQ(hostsOf(r.resolve("Example.test")), "7 other.test 60;") << "keys are case-sensitive";
    EXPECT_EQ(r.server.queries, 2);
    EXPECT_EQ(r.mailLog(), "");
}

TEST(ResolveMx, NothingFoundIsNoneAndNothingCached)
{
    ResolverBench r;
    r.server.zones["slow.test"] = {FakeReply::Silent, {}};
    int ticks = 0;
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, [&] { ++ticks; });
    timer.start(20);

    EXPECT_EQ(r.resolve("slow.test").Host(0), "NONE");
    EXPECT_GE(ticks, 5) << "the event loop runs while the server keeps silent";
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(r.resolve("nowhere.test").Host(0), "NONE"); // a name error, asked each time

    EXPECT_EQ(r.server.queries, 3);
    EXPECT_EQ(r.mailLog(), "Feb 05 2004 09:05:07 Postiq/smtpdistant: 421 No MX DNS available for slow.test using NS "
                               + r.server.server().toUtf8() + " (time out) status=error\r\n");
    EXPECT_EQ(r.cache.DNSCache.size(), 1);
    EXPECT_TRUE(r.cache.DNSCacheIndex.isEmpty());
}

TEST(ResolveMx, FixedServerRouteMakesNoQuery)
{
    ResolverBench r;
    r.settings.UserSettings.SmtpServerDefined = true;
    r.settings.ActiveSettings.SmtpServer = "smtp.example.test";

    const CMXServer mx = r.resolve("example.test", "NONE");

    EXPECT_EQ(r.server.queries, 0);
    EXPECT_EQ(hostsOf(mx), "0 smtp.example.test 0;");
    EXPECT_EQ(mx.Host(0), "NONE");
    EXPECT_TRUE(r.debugHas("<FONT COLOR='#FF8000'>Send using SMTP server: smtp.example.test</FONT><BR>"));
}

} // namespace
