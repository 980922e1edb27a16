#include <QElapsedTimer>
#include <QTimer>
#include <gtest/gtest.h>

#include <memory>
#include <optional>

#include "config/settings.h"
#include "dns/address_resolver.h"
#include "dns/dnsmasq.h"
#include "dns/fake_dns_server.h"
#include "dns/resolver.h"
#include "support/fakes.h"
#include "support/mail_client.h"

using namespace postiq;
using namespace postiq::test;
using namespace std::chrono_literals;

namespace {

QByteArray texts(const QList<QHostAddress>& addresses)
{
    QByteArrayList list;
    for (const QHostAddress& address : addresses)
        list += address.toString().toLatin1();
    return list.join(' ');
}

// An address resolver asking `server`, with the workers and logs it needs.
struct AddressBench {
    LogBench bench;
    Settings settings;
    MxLookupPool pool;
    AddressResolver resolver{bench.logs, settings, pool};

    explicit AddressBench(const QString& server)
    {
        bench.debug.debug = true;
        settings.ActiveSettings.DNSServer = server;
        resolver.lookupTiming = LookupTiming{300ms, 1};
        resolver.deadline = 3s;
    }
    // The addresses given back, as text; "no call" when none came.
    QByteArray resolve(const QByteArray& host, const QByteArray& known = {}, bool throughSystem = false)
    {
        std::optional<QByteArray> result;
        QObject context;
        const auto done = [&](const QList<QHostAddress>& found) { result = texts(found); };
        if (throughSystem)
            resolver.resolveThroughSystem(host, &context, done);
        else
            resolver.resolve(host, known, &context, done);
        EXPECT_FALSE(result) << "never called back from inside resolve";
        spinUntil([&] { return result.has_value(); });
        return result.value_or("no call");
    }
};

TEST(AddressResolver, AsksTheConfiguredServerForBothFamilies)
{
    FakeDnsServer server;
    server.zones["mx1.test"] = {FakeReply::Records, {}, {QHostAddress("::1"), QHostAddress("127.0.0.9")}};
    server.zones["v6.test"] = {FakeReply::Records, {}, {QHostAddress("::2")}};
    server.zones["v4.test"] = {FakeReply::Records, {}, {QHostAddress("127.0.0.4")}};
    AddressBench a(server.server());

    EXPECT_EQ(a.resolve("mx1.test"), "127.0.0.9 ::1") << "IPv4 first";
    EXPECT_EQ(a.resolve("v6.test"), "::2");
    EXPECT_EQ(a.resolve("v4.test."), "127.0.0.4");
    EXPECT_EQ(a.resolve("nowhere.test"), "") << "a name error";
    EXPECT_EQ(a.resolve("a..b"), "") << "not a name";
    EXPECT_EQ(server.queries, 8) << "an A and an AAAA question per name";
    EXPECT_TRUE(readFile(a.bench.path("Debug.html")).contains("DNS: mx1.test is 127.0.0.9 ::1"));
    EXPECT_TRUE(readFile(a.bench.path("Debug.html")).contains("DNS: nowhere.test has no address"));
}

TEST(AddressResolver, LiteralsAndKnownAddressesAskNobody)
{
    FakeDnsServer server;
    server.zones["mx.test"] = {FakeReply::Records, {}, {QHostAddress("127.0.0.7")}};
    AddressBench a(server.server());

    EXPECT_EQ(a.resolve("127.0.0.1"), "127.0.0.1");
    EXPECT_EQ(a.resolve("[127.0.0.2]"), "127.0.0.2");
    EXPECT_EQ(a.resolve("[IPv6:::1]"), "::1");
    EXPECT_EQ(a.resolve("mx.test", "::5 junk 127.0.0.5"), "127.0.0.5 ::5");
    EXPECT_EQ(server.queries, 0);
    EXPECT_EQ(a.resolve("mx.test", "junk"), "127.0.0.7") << "nothing usable known: asked";
    EXPECT_EQ(a.resolve("fe80::1%lo"), "") << "a scoped address is a name, and no such name exists";
}

TEST(AddressResolver, ASilentServerCostsAtMostTheDeadline)
{
    FakeDnsServer server;
    server.zones["slow.test"] = {FakeReply::Silent, {}};
    AddressBench a(server.server());
    int ticks = 0;
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, [&] { ++ticks; });
    timer.start(20);

    QElapsedTimer clock;
    clock.start();
    EXPECT_EQ(a.resolve("slow.test"), "");
    EXPECT_LT(clock.elapsed(), 2000) << "both questions time out side by side";
    EXPECT_GE(ticks, 5) << "the event loop runs while the server keeps silent";

    // Questions that would wait longer than the caller may: the deadline answers.
    a.resolver.lookupTiming = LookupTiming{1500ms, 1};
    a.resolver.deadline = 400ms;
    clock.restart();
    EXPECT_EQ(a.resolve("slow.test"), "");
    EXPECT_LT(clock.elapsed(), 1500);
}

TEST(AddressResolver, NoCallOnceTheContextIsGone)
{
    FakeDnsServer server;
    server.zones["mx.test"] = {FakeReply::Records, {}, {QHostAddress("127.0.0.7")}};
    server.zones["slow.test"] = {FakeReply::Silent, {}};
    AddressBench a(server.server());
    a.resolver.deadline = 200ms;
    int calls = 0;
    for (const QByteArray host : {"mx.test", "slow.test", "127.0.0.1"}) {
        auto context = std::make_unique<QObject>();
        a.resolver.resolve(host, {}, context.get(), [&](const QList<QHostAddress>&) { ++calls; });
        context.reset();
    }
    spinUntil([] { return false; }, 800);
    EXPECT_EQ(calls, 0);
}

TEST(AddressResolver, FiftyLookupsAtOnce)
{
    FakeDnsServer server;
    for (int i = 0; i < 50; ++i)
        server.zones["h" + QByteArray::number(i) + ".test"] = {
            FakeReply::Records, {}, {QHostAddress(QStringLiteral("127.0.1.%1").arg(i))}};
    AddressBench a(server.server());
    QObject context;
    QHash<QByteArray, QByteArray> found;
    for (int i = 0; i < 50; ++i) {
        const QByteArray host = "h" + QByteArray::number(i) + ".test";
        a.resolver.resolve(host, {}, &context, [&found, host](const QList<QHostAddress>& addresses) {
            found.insert(host, texts(addresses));
        });
    }
    EXPECT_TRUE(spinUntil([&] { return found.size() == 50; }, 10000)) << found.size();
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ(found.value("h" + QByteArray::number(i) + ".test"), "127.0.1." + QByteArray::number(i));
}

TEST(AddressResolver, TheSystemResolverOnlyWithoutADnsServerOrForAFixedServer)
{
    FakeDnsServer server; // never asked
    AddressBench a(QStringLiteral("  "));
    const QByteArray local = a.resolve("localhost");
    EXPECT_TRUE(local.contains("127.0.0.1") || local.contains("::1")) << local.constData();
    EXPECT_EQ(server.queries, 0);

    // A fixed outgoing server is found as the computer finds it, whatever DNSServer says.
    AddressBench fixed(server.server());
    const QByteArray name = fixed.resolve("localhost", {}, true);
    EXPECT_TRUE(name.contains("127.0.0.1") || name.contains("::1")) << name.constData();
    EXPECT_EQ(server.queries, 0);
}

TEST(MxAdditionalSection, AddressesComeAlongForThisDeliveryOnly)
{
    FakeDnsServer server;
    server.zones["add.test"] = {
        FakeReply::Records, {{10, {"mx1", "add", "test"}, 60}, {20, {"mx2", "add", "test"}, 60}}, {}, true};
    server.zones["mx1.add.test"] = {FakeReply::Records, {}, {QHostAddress("127.0.0.9"), QHostAddress("::1")}};
    {
        MxLookupPool pool; // on a worker, while this thread serves the fake server
        std::optional<QByteArray> answer;
        pool.LookupMX("add.test", server.server(), {300ms, 1}, [&](const QByteArray& result) { answer = result; });
        ASSERT_TRUE(spinUntil([&] { return answer.has_value(); }));
        EXPECT_EQ(*answer, "10\xA4mx1.add.test\xA4" "60\xA4" "127.0.0.9 ::1|20\xA4mx2.add.test\xA4" "60|");
    }

    LogBench bench;
    Settings settings;
    settings.ActiveSettings.DNSServer = server.server();
    DnsCache cache;
    CDns dns(bench.logs, settings, cache);
    bool done = false;
    dns.ResolveMx("add.test", [&] { done = true; });
    ASSERT_TRUE(spinUntil([&] { return done; }));
    EXPECT_EQ(dns.MX.record(1).Addresses, "127.0.0.9 ::1");
    EXPECT_EQ(dns.MX.record(2).Addresses, "");
    EXPECT_EQ(cache.DNSCache.value(1).MX.value(1).Addresses, "") << "the cache keeps names only";
    EXPECT_EQ(cache.DNSCache.value(1).MX.value(1).Host, "mx1.add.test");
}

TEST(AddressResolver, ThroughDnsmasq)
{
    if (!Dnsmasq::installed())
        GTEST_SKIP() << "dnsmasq is not installed";
    Dnsmasq dnsmasq({"--host-record=mx1.example.test,127.0.0.9,::1", "--host-record=v6.example.test,::2",
                     "--mx-host=example.test,mx1.example.test,10"});
    ASSERT_TRUE(dnsmasq.started()) << dnsmasq.log().constData();
    AddressBench a(dnsmasq.server());

    // The exchanger's name through the MX route, then its addresses, known or asked.
    CMXServer list;
    ASSERT_EQ(CDns::AddLookupRecords(list, DNSLookup::LookupMXBlocking("example.test", dnsmasq.server(), {1000ms, 2})), 1);
    EXPECT_EQ(list.Host(1), "mx1.example.test");
    EXPECT_EQ(list.Order(1), 10);
    EXPECT_EQ(list.record(1).Addresses, "127.0.0.9 ::1") << "sent along in the additional section";
    EXPECT_EQ(a.resolve(list.Host(1), list.record(1).Addresses), "127.0.0.9 ::1");
    EXPECT_EQ(a.resolve("mx1.example.test"), "127.0.0.9 ::1");
    EXPECT_EQ(a.resolve("v6.example.test"), "::2");
    EXPECT_EQ(a.resolve("missing.example.test"), "");

    QObject context;
    int right = 0;
    int calls = 0;
    for (int i = 0; i < 50; ++i) {
        const bool v6 = i % 2;
        a.resolver.resolve(v6 ? "v6.example.test" : "mx1.example.test", {}, &context,
                           [&, v6](const QList<QHostAddress>& found) {
                               ++calls;
                               right += texts(found) == (v6 ? "::2" : "127.0.0.9 ::1");
                           });
    }
    EXPECT_TRUE(spinUntil([&] { return calls == 50; }, 10000)) << calls;
    EXPECT_EQ(right, 50);
}

} // namespace
