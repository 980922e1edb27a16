// One connection, several messages: RSET between them, pipelined commands where offered, and
// whatever the server does between two messages, each message keeps its own fate.
#include "delivery_bench.h"
#include "support/fake_exchanger.h"

using namespace postiq;
using namespace postiq::test;

namespace {

const QHostAddress kMx(QStringLiteral("127.0.0.2"));
const QByteArray kPipelining = "250-mx.fake.example\r\n250-PIPELINING\r\n250 8BITMIME";

int countStarting(const QList<QByteArray>& lines, const QByteArray& start)
{
    return int(std::count_if(lines.begin(), lines.end(), [&](const QByteArray& line) { return line.startsWith(start); }));
}

struct ReuseBench : DeliveryBench {
    FakeExchanger exchanger;
    ReuseBench()
    {
        EXPECT_TRUE(exchanger.listen(kMx, 25)) << "port 25 of 127.0.0.2";
        mx("dst.test", {{10, "127.0.0.2"}});
    }
    // Queues `count` messages M0, M1... (one recipient each) and lets the relay work until OutBox
    // holds none of them and every slot is free.
    void deliverAll(int count, int milliseconds = 10000)
    {
        for (int i = 0; i < count; ++i)
            queue(id(i), {"<r" + QByteArray::number(i) + "@dst.test>"}, "Subject: " + id(i) + "\r\n\r\nhi\r\n");
        dispatcher.VerifOutBox();
        EXPECT_TRUE(spinUntil(
            [&] { return idle() && exchanger.openSessions() == 0 && files("OutBox").filter("M").isEmpty(); },
            milliseconds));
    }
    static QByteArray id(int i) { return "M" + QByteArray::number(i); }
    // The messages a session's transactions carried, by the subject of each.
    QList<QByteArray> carried(int session) const
    {
        QList<QByteArray> ids;
        for (const QByteArray& body : exchanger.session(session).bodies)
            ids << body.mid(9, body.indexOf("\r\n") - 9);
        return ids;
    }
};

// Ten messages for one exchanger: one connection, ten MAIL transactions with RSET between them,
// QUIT once. The server refuses the second message's recipient: that one is bounced, the third
// and the others still go over the same connection, each with its own log lines.
TEST(ConnectionReuse, TenMessagesOverOneConnection)
{
    ReuseBench b;
    ExchangerScript script;
    script.rcpt = {reply("250 ok"), reply("550 5.1.1 no such user")};
    b.exchanger.setScript(script);
    b.deliverAll(10);

    ASSERT_EQ(b.exchanger.sessionCount(), 1);
    const ExchangerSession& s = b.exchanger.session(0);
    EXPECT_EQ(s.commands.count("RSET"), 9);
    EXPECT_EQ(countStarting(s.commands, "MAIL FROM:"), 10);
    EXPECT_EQ(s.commands.count("DATA"), 9) << "no DATA for the refused one";
    EXPECT_EQ(s.commands.last(), "QUIT");
    EXPECT_EQ(s.commands.count("QUIT"), 1);
    const QList<QByteArray> carried = b.carried(0);
    ASSERT_EQ(carried.size(), 9);
    EXPECT_EQ(QSet<QByteArray>(carried.begin(), carried.end()).size(), 9) << "each message once";

    // The refused one is the second on the connection: its RCPT came right after the first RSET.
    const qsizetype firstReset = s.commands.indexOf("RSET");
    const QByteArray refusedRcpt = s.commands.value(firstReset + 2);
    const QByteArray refused = "M" + refusedRcpt.mid(10, refusedRcpt.indexOf('@') - 10);
    EXPECT_FALSE(carried.contains(refused));
    EXPECT_EQ(b.mailLog(refused + " Error 550").size(), 1);
    for (int i = 0; i < 10; ++i) {
        const QByteArray id = ReuseBench::id(i);
        if (id == refused)
            continue;
        EXPECT_EQ(b.mailLog(" " + id + " to=").size(), 1) << id.constData();
        EXPECT_TRUE(b.mailLog(" " + id + " to=").value(0).endsWith("status=sent (250 2.0.0 Queued as FAKE)"));
    }
    EXPECT_EQ(b.mailLog(" connect to ").size(), 1);
    EXPECT_EQ(b.mailLog(" reusing connection to 127.0.0.2 [127.0.0.2]").size(), 9);
    EXPECT_EQ(b.files("Deferred").size(), 1) << "the bounce, whose sender's domain has no mail host";
}

} // namespace
