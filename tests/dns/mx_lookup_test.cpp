#include <gtest/gtest.h>

#include "dns/dns_server_address.h"
#include "dns/fake_dns_server.h"
#include "dns/mx_lookup.h"
#include "support/mail_client.h"

#include <optional>

using namespace postiq;
using namespace postiq::test;
using namespace std::chrono_literals;

namespace {

// Short enough that a silent server costs a fraction of a second.
const LookupTiming kQuick{300ms, 1};
const QByteArray kTimeout = "ERROR_DNS_TIMEOUT";

// The answer of one query, run on a worker while this thread's loop serves the fake server.
QByteArray lookup(const QByteArray& domain, const QString& dnsServer)
{
    MxLookupPool pool;
    std::optional<QByteArray> answer;
    pool.LookupMX(domain, dnsServer, kQuick, [&](const QByteArray& result) { answer = result; });
    EXPECT_TRUE(spinUntil([&] { return answer.has_value(); })) << domain.constData();
    return answer.value_or("no answer");
}

QByteArray lookup(const FakeDnsServer& server, const QByteArray& domain)
{
    return lookup(domain, server.server());
}

TEST(DnsLookup, ResultTextForEachKindOfAnswer)
{
    // Labels that would break the result text or a host name, between two usable names.
    QList<FakeMx> mixed = {{10, {"good", "test"}, 60}, {20, {"caf\xE9", "test"}, 60}};
    for (const QByteArray& bad : {QByteArray("a\xA4" "b"), QByteArray("a|b"), QByteArray("a b"), QByteArray("a.b"),
                                  QByteArray("a\x01" "b"), QByteArray("a\x7F"), QByteArray("a\0b", 3)})
        mixed.insert(1, {5, {bad, "test"}, 60});

    const struct {
        const char* what;
        FakeZone zone;
        QByteArray expected;
    } cases[] = {
        {"records in answer order",
         {FakeReply::Records, {{20, {"mx2", "example", "test"}, 300}, {10, {"mx1", "example", "test"}, 3600}}},
         "20\xA4mx2.example.test\xA4" "300|10\xA4mx1.example.test\xA4" "3600|"},
        {"full 16-bit preference and TTL", {FakeReply::Records, {{65535, {"mx"}, 4294967295u}}},
         "65535\xA4mx\xA4" "4294967295|"},
        {"hostile names left out, 8-bit bytes kept", {FakeReply::Records, mixed},
         "10\xA4good.test\xA4" "60|20\xA4" "caf\xE9.test\xA4" "60|"},
        {"no MX record", {FakeReply::Records, {}}, ""},
        {"null MX", {FakeReply::Records, {{0, {}, 300}}}, ""},
        {"name error, even with records", {FakeReply::NameError, {{10, {"mx"}, 1}}}, ""},
        {"reply to another query", {FakeReply::WrongId, {{10, {"mx"}, 1}}}, kTimeout},
        {"silence", {FakeReply::Silent, {}}, kTimeout},
    };
    FakeDnsServer server;
    for (const auto& c : cases) {
        server.zones["example.test"] = c.zone;
        EXPECT_EQ(lookup(server, "example.test"), c.expected) << c.what;
    }
}

TEST(DnsLookup, NameAsGivenAndServerSettingForms)
{
    FakeDnsServer server;
    server.zones["Mixed.Case.test"] = {FakeReply::Records, {{7, {"mx"}, 9}}};
    const QString port = server.server().section(':', 1);

    // Already absolute; a server name with several addresses is asked at each in turn.
    for (const QString& setting : {"127.0.0.1:" + port, "localhost:" + port})
        EXPECT_EQ(lookup("Mixed.Case.test.", setting), "7\xA4mx\xA4" "9|") << qPrintable(setting);
    EXPECT_EQ(lookup(server, "Mixed"), "") << "no search domain appended";
    for (const QByteArray& unusable :
         {QByteArray(), QByteArray("."), QByteArray("a..b"), QByteArray(64, 'x'), QByteArray("abcdefgh.").repeated(32)})
        EXPECT_EQ(lookup(server, unusable), "") << unusable.constData();
    EXPECT_EQ(server.queries, 3) << "a name that cannot exist is not sent";
    for (const char* unusable : {"", "127.0.0.1:0", "[::1"})
        EXPECT_EQ(lookup("Mixed.Case.test", unusable), kTimeout) << unusable;

    EXPECT_EQ(ParseDnsServer(" dns.example:1053 "), (DnsServerAddress{"dns.example", 1053}));
    EXPECT_EQ(ParseDnsServer("fe80::1:2"), (DnsServerAddress{"fe80::1:2", 53})) << "a bare IPv6 address has no port";
    EXPECT_EQ(ParseDnsServer("[::1]:5353"), (DnsServerAddress{"::1", 5353}));
    for (const char* bad : {":53", "host:65536", "host:+53", "[::1]5353", "[]:53"})
        EXPECT_FALSE(ParseDnsServer(bad)) << bad;
}

} // namespace
