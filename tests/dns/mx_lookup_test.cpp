#include <gtest/gtest.h>

#include "dns/dns_server_address.h"
#include "dns/fake_dns_server.h"
#include "dns/mx_lookup.h"

using namespace postiq;
using namespace postiq::test;
using namespace std::chrono_literals;

namespace {

// Short enough that a silent server costs a fraction of a second.
const LookupTiming kQuick{300ms, 1};
const QByteArray kTimeout = "ERROR_DNS_TIMEOUT";

QByteArray lookup(const FakeDnsServer& server, const QByteArray& domain)
{
    return DNSLookup(kQuick).LookupMX(domain, server.server());
}

TEST(DnsLookup, VersionIsThreeZero) { EXPECT_EQ(DNSLookup::Version(), "3.0"); }

struct LookupCase {
    const char* what;
    FakeZone zone;
    QByteArray expected;
};

TEST(DnsLookup, ResultTextForEachKindOfAnswer)
{
    const QList<LookupCase> cases = {
        {"records in answer order",
         {FakeReply::Records, {{20, {"mx2", "example", "test"}, 300}, {10, {"mx1", "example", "test"}, 3600}}},
         "20\xA4mx2.example.test\xA4" "300|10\xA4mx1.example.test\xA4" "3600|"},
        {"full 16-bit preference and TTL",
         {FakeReply::Records, {{65535, {"mx"}, 4294967295u}}},
         "65535\xA4mx\xA4" "4294967295|"},
        {"no MX record", {FakeReply::Records, {}}, ""},
        {"name error", {FakeReply::NameError, {}}, ""},
        {"server failure", {FakeReply::ServerFailure, {}}, ""},
        {"null MX", {FakeReply::Records, {{0, {}, 300}}}, ""},
        {"reply to another query", {FakeReply::WrongId, {{10, {"mx"}, 1}}}, kTimeout},
        {"silence", {FakeReply::Silent, {}}, kTimeout},
        {"truncated, then over TCP",
         {FakeReply::Truncated, {{10, {"big", "test"}, 60}}},
         "10\xA4" "big.test\xA4" "60|"},
    };
    FakeDnsServer server;
    ASSERT_TRUE(server.listening());
    for (const LookupCase& c : cases) {
        server.set("example.test", c.zone);
        EXPECT_EQ(lookup(server, "example.test"), c.expected) << c.what;
    }
}

TEST(DnsLookup, HostileExchangerNamesAreLeftOut)
{
    FakeDnsServer server;
    ASSERT_TRUE(server.listening());
    QList<FakeMx> records;
    for (const QByteArray& bad : {QByteArray("a\xA4" "b"), QByteArray("a|b"), QByteArray("a b"),
                                  QByteArray("a.b"), QByteArray("a\x01" "b"), QByteArray("a\x7F"),
                                  QByteArray("a\0b", 3), QByteArray("a\r\nb")}) {
        records.append({5, {bad, "test"}, 60});
    }
    records.insert(3, {10, {"good", "test"}, 60});
    records.append({20, {"caf\xE9", "test"}, 60}); // 8-bit bytes that break nothing stay
    server.set("hostile.test", {FakeReply::Records, records});

    EXPECT_EQ(lookup(server, "hostile.test"),
              "10\xA4good.test\xA4" "60|20\xA4" "caf\xE9.test\xA4" "60|");
}

TEST(DnsLookup, NameIsAskedAsGivenWithoutSearchDomains)
{
    FakeDnsServer server;
    ASSERT_TRUE(server.listening());
    server.set("Mixed.Case.test", {FakeReply::Records, {{1, {"mx"}, 1}}});

    EXPECT_EQ(lookup(server, "Mixed.Case.test"), "1\xA4mx\xA4" "1|");
    EXPECT_EQ(lookup(server, "Mixed.Case.test."), "1\xA4mx\xA4" "1|"); // already absolute
    EXPECT_EQ(lookup(server, "mixed.case.test"), "");                  // a different name here
    EXPECT_EQ(lookup(server, "Mixed"), "");                             // nothing appended

    const int before = server.queries();
    for (const QByteArray& unusable : {QByteArray(), QByteArray("."), QByteArray("a..b"), QByteArray(64, 'x')})
        EXPECT_EQ(lookup(server, unusable), "") << unusable.constData();
    EXPECT_EQ(server.queries(), before) << "a name that cannot exist is not sent";
}

TEST(DnsLookup, ServerAsHostNameAndPort)
{
    FakeDnsServer server;
    ASSERT_TRUE(server.listening());
    server.set("named.test", {FakeReply::Records, {{7, {"mx"}, 9}}});
    const QString port = QString::number(server.port());

    EXPECT_EQ(DNSLookup(kQuick).LookupMX("named.test", "127.0.0.1:" + port), "7\xA4mx\xA4" "9|");
    EXPECT_EQ(DNSLookup(kQuick).LookupMX("named.test", "localhost:" + port), "7\xA4mx\xA4" "9|");
}

TEST(DnsLookup, ServerOverIpv6)
{
    FakeDnsServer server("::1");
    if (!server.listening())
        GTEST_SKIP() << "no IPv6 loopback here";
    server.set("six.test", {FakeReply::Records, {{1, {"mx6"}, 2}}});
    EXPECT_EQ(lookup(server, "six.test"), "1\xA4mx6\xA4" "2|");
}

TEST(DnsLookup, UnusableServerTextIsATimeout)
{
    for (const char* server : {"", "127.0.0.1:", "127.0.0.1:0", "127.0.0.1:99999", "[::1"})
        EXPECT_EQ(DNSLookup(kQuick).LookupMX("example.test", server), kTimeout) << server;
}

struct ServerTextCase {
    const char* text;
    std::optional<DnsServerAddress> expected;
};

TEST(DnsServerText, Forms)
{
    const QList<ServerTextCase> cases = {
        {"192.0.2.1", DnsServerAddress{"192.0.2.1", 53}},
        {" 192.0.2.1:5353 ", DnsServerAddress{"192.0.2.1", 5353}},
        {"dns.example:1053", DnsServerAddress{"dns.example", 1053}},
        {"::1", DnsServerAddress{"::1", 53}},
        {"fe80::1:2", DnsServerAddress{"fe80::1:2", 53}},
        {"[::1]", DnsServerAddress{"::1", 53}},
        {"[::1]:5353", DnsServerAddress{"::1", 5353}},
        {"", std::nullopt},
        {":53", std::nullopt},
        {"host:", std::nullopt},
        {"host:0", std::nullopt},
        {"host:65536", std::nullopt},
        {"host:+53", std::nullopt},
        {"[::1", std::nullopt},
        {"[::1]5353", std::nullopt},
        {"[]:53", std::nullopt},
    };
    for (const ServerTextCase& c : cases)
        EXPECT_EQ(ParseDnsServer(c.text), c.expected) << c.text;
}

} // namespace
