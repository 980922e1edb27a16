#include <chrono>
#include <list>

#include "smtp_bench.h"

using namespace postiq;
using namespace postiq::test;
using namespace std::chrono_literals;

// A full table answers every newcomer at once, however long the others stay silent.
TEST(InboundLimits, IdleClientsNeverKeepANewcomerFromBeingToldToRetry)
{
    SmtpBench bench;
    ASSERT_TRUE(bench.start());
    std::list<Client> idle; // never say a word
    int greeted = 0;
    for (int i = 0; i < ConnectionTables::kUpperBound && greeted == i; ++i) {
        idle.emplace_back(bench.port);
        if (idle.back().answer() == kGreeting)
            ++greeted;
    }
    ASSERT_GE(greeted, 90);
    ASSERT_LT(greeted, ConnectionTables::kUpperBound) << "the table never filled";
    for (int late = 0; late < 3; ++late) {
        Client newcomer(bench.port);
        EXPECT_EQ(newcomer.answer({}, 2000), "421 Postiq busy, try again later");
        EXPECT_TRUE(newcomer.closed());
    }
}

TEST(InboundLimits, AnIdleSessionIsClosedAndLoggedWhileABusyOneStays)
{
    SmtpBench bench;
    bench.service.sessions().setIdleLimit(300ms);
    ASSERT_TRUE(bench.start());
    Client quiet(bench.port);
    Client talking(bench.port);
    EXPECT_EQ(quiet.answer(), kGreeting);
    EXPECT_EQ(talking.answer(), kGreeting);
    // Each command restarts the clock of its own session only.
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(talking.answer("NOOP\r\n"), "250 Noop Ok.");
        spinUntil([] { return false; }, 100);
    }
    EXPECT_EQ(quiet.answer({}, 2000), "421 Postiq idle time-out, closing connection");
    EXPECT_TRUE(quiet.closed());
    EXPECT_TRUE(bench.slotFreed(1));
    EXPECT_EQ(bench.mailLog("idle time-out").size(), 1);
    EXPECT_EQ(bench.mailLog("idle time-out").value(0),
              kStamp + " Postiq/smtplocal[1]: idle time-out after 0 s from  [127.0.0.1]");
    EXPECT_EQ(talking.answer("NOOP\r\n"), "250 Noop Ok.");
}

// An endless line or message is refused once it passes its limit, the connection is closed and
// nothing is stored; the held bytes go with it.
TEST(InboundLimits, EndlessLinesAndMessagesAreCutOff)
{
    SmtpBench bench;
    ASSERT_TRUE(bench.start());
    {
        Client client(bench.port);
        EXPECT_EQ(client.answer(), kGreeting);
        const QByteArray chunk(64 * 1024, 'x');
        QByteArray reply;
        for (int i = 0; i < 40 && reply.isEmpty(); ++i)
            reply = client.answer(chunk, 20);
        EXPECT_EQ(reply.isEmpty() ? client.answer({}, 2000) : reply, "500 Line too long");
        EXPECT_TRUE(client.closed());
    }
    {
        Client client(bench.port);
        play(client, kEnvelope);
        QByteArray lines; // complete lines, so that every arrival is handed to the message
        while (lines.size() < 1024 * 1024)
            lines += QByteArray(998, 'm') + "\r\n";
        QByteArray reply;
        const int enough = int(InboundSession::kMostMessageBytes / lines.size()) + 8;
        for (int i = 0; i < enough && reply.isEmpty(); ++i)
            reply = client.answer(lines, 5);
        // Every byte up to the limit is written to disk first, which takes a while under the
        // sanitizers on a busy machine.
        EXPECT_EQ(reply.isEmpty() ? client.answer({}, 30000) : reply, "552 Message too big, the limit is 64 MB");
        EXPECT_TRUE(client.closed());
        EXPECT_TRUE(bench.outBoxWithStaging().isEmpty()); // what was written of it is gone
        EXPECT_EQ(bench.mailLog("552 message too big, cut off").size(), 1);
    }
    EXPECT_TRUE(bench.slotFreed(1));
    EXPECT_TRUE(bench.slotFreed(2));
    EXPECT_EQ(bench.mailLog("lost connection").size(), 0);
}
