#include <QSet>
#include <memory>

#include "delivery_bench.h"
#include "support/fake_exchanger.h"

using namespace postiq;
using namespace postiq::test;

namespace {

constexpr int kDomains = 6;
constexpr int kMessages = 300;

QByteArray domain(int k) { return "d" + QByteArray::number(k) + ".test"; }

// Many deliveries at once to slow exchangers, over a few connections each that carry one message
// after another: each message reaches its exchanger exactly once, the queue empties, and the
// relay takes inbound mail all the while.
TEST(DeliveryLoad, ThreeHundredMessagesToSlowExchangers)
{
    DeliveryBench b;
    b.dispatcher.timeouts = {std::chrono::seconds(20), std::chrono::seconds(20)};
    b.dispatcher.concurrency.fix(4);
    ASSERT_TRUE(b.listen());
    ExchangerScript slow;
    slow.endOfData = reply("250 2.0.0 Queued", 40);
    std::vector<std::unique_ptr<FakeExchanger>> exchangers;
    for (int k = 0; k < kDomains; ++k) {
        const QByteArray address = "127.0.1." + QByteArray::number(10 + k);
        exchangers.push_back(std::make_unique<FakeExchanger>(slow));
        ASSERT_TRUE(exchangers.back()->listen(QHostAddress(QString::fromLatin1(address)), 25)) << address.constData();
        b.mx(domain(k), {{10, address}});
    }
    for (int i = 0; i < kMessages; ++i) {
        const QByteArray id = "M" + QByteArray::number(i);
        b.queue(id, {"<r" + QByteArray::number(i) + "@" + domain(i % kDomains) + ">"}, "Subject: " + id + "\r\n\r\nx\r\n");
    }

    int mostBusy = 0;
    QTimer sampler;
    QObject::connect(&sampler, &QTimer::timeout, [&] {
        int busy = 0;
        for (int i = 1; i <= 99; ++i)
            busy += b.tables.CnxOut(i).Status() != 0;
        mostBusy = std::max(mostBusy, busy);
    });
    sampler.start(5);
    b.dispatcher.startTimers();
    b.dispatcher.VerifOutBox();

    Client client(b.port); // a mail program in the middle of it all
    play(client, kEnvelope + Dialogue{{"Subject: inbound\r\n\r\nhi\r\n.\r\n", kAccepted}, {"QUIT\r\n", "221 Postiq Goodbye"}});

    const auto delivered = [&] {
        int transactions = 0;
        for (const auto& exchanger : exchangers)
            for (int s = 0; s < exchanger->sessionCount(); ++s)
                transactions += int(exchanger->session(s).bodies.size());
        return transactions;
    };
    ASSERT_TRUE(spinUntil([&] { return delivered() >= kMessages && b.idle(); }, 60000)) << delivered();
    int connections = 0;

    QSet<QByteArray> seen;
    int bodies = 0;
    for (int k = 0; k < kDomains; ++k) {
        connections += exchangers[k]->sessionCount();
        EXPECT_LE(exchangers[k]->sessionCount(), 50 / 4 + 4) << "connections carry several messages";
        for (int s = 0; s < exchangers[k]->sessionCount(); ++s) {
            const ExchangerSession& session = exchangers[k]->session(s);
            ASSERT_TRUE(session.dataEnded);
            for (const QByteArray& body : session.bodies) {
                const QByteArray id = body.mid(9, body.indexOf("\r\n") - 9);
                EXPECT_FALSE(seen.contains(id)) << "delivered twice: " << id.constData();
                EXPECT_TRUE(session.commands.contains("RCPT TO:<r" + id.mid(1) + "@" + domain(k) + ">"));
                seen.insert(id);
                ++bodies;
            }
        }
    }
    EXPECT_EQ(bodies, kMessages);
    EXPECT_EQ(b.mailLog("status=sent").size(), kMessages);
    // Sessions overlap, yet each line names the message of its own slot: M<i> went to r<i>.
    for (const QByteArray& line : b.mailLog(" connect to ") + b.mailLog("status=sent")) {
        const qsizetype at = line.indexOf("]: M") + 4;
        const QByteArray number = line.mid(at, line.indexOf(' ', at) - at);
        if (line.contains("status=sent")) {
            EXPECT_TRUE(line.contains(" to=<r" + number + "@")) << line.constData();
        }
        EXPECT_TRUE(line.contains(" Postiq/smtpdistant[")) << line.constData();
    }
    EXPECT_TRUE(b.files("OutBox").isEmpty()) << b.files("OutBox").join(' ').toStdString();
    EXPECT_EQ(b.files("Deferred").size(), 1) << "only the inbound message, whose domain has no mail host";
    EXPECT_GT(mostBusy, 10) << "deliveries overlap";
    EXPECT_LE(mostBusy, kDomains * 4 + 1) << "no more connections to an exchanger than allowed";
}

} // namespace

namespace {

// Exchangers that talk garbage, hang up at any step, stall or answer slowly: whatever they do,
// each message is sent exactly once or waits in Deferred, never lost and never both, and every
// slot comes free.
TEST(DeliveryLoad, HostileExchangersLoseNothing)
{
    DeliveryBench b;
    b.dispatcher.timeouts = {std::chrono::milliseconds(800), std::chrono::milliseconds(800)};
    b.dispatcher.concurrency.fix(8);
    const QList<ExchangerScript> behaviours = [] {
        QList<ExchangerScript> list(8);
        list[0].greeting = reply("\x01\x02\xff garbage");
        list[1].greeting = closeInstead();
        list[2].mail = closeInstead(20);
        list[3].rcpt = {replyAndClose("450 4.7.1 later")};
        list[4].greeting = silent();
        list[5].data = reply("999 what");
        list[6].endOfData = closeInstead(10);
        list[7].endOfData = reply("250 2.0.0 slow but fine", 150);
        return list;
    }();
    FakeExchanger exchanger;
    ASSERT_TRUE(exchanger.listen(QHostAddress(QStringLiteral("127.0.2.1")), 25));
    const auto behaviourOf = [](int session) { return (session * 5 + session / 8) % 8; };
    for (int s = 0; s < 200; ++s)
        exchanger.setScriptFor(s, behaviours[behaviourOf(s)]);
    b.mx("hostile.test", {{10, "127.0.2.1"}});
    constexpr int kCount = 60;
    for (int i = 0; i < kCount; ++i)
        b.queue("H" + QByteArray::number(i), {"<r@hostile.test>"}, "Subject: H" + QByteArray::number(i) + "\r\n\r\nx\r\n");
    b.dispatcher.VerifOutBox();
    ASSERT_TRUE(spinUntil([&] { return b.idle() && b.files("OutBox").filter("H").isEmpty(); }, 30000));

    // Delivered: the exchanger took the whole text and said 250 (every behaviour but the hang-up
    // after the text). A connection that ended a transaction cleanly carried more.
    QMap<QByteArray, int> delivered;
    for (int s = 0; s < exchanger.sessionCount(); ++s) {
        if (behaviourOf(s) == 6)
            continue;
        for (const QByteArray& body : exchanger.session(s).bodies)
            ++delivered[body.mid(9, body.indexOf("\r\n") - 9)];
    }
    const QStringList deferred = b.files("Deferred");
    int sent = 0;
    for (int i = 0; i < kCount; ++i) {
        const QByteArray id = "H" + QByteArray::number(i);
        const bool waiting = deferred.contains(QString::fromLatin1(id));
        EXPECT_EQ(delivered.value(id) + int(waiting), 1) << id.constData();
        sent += delivered.value(id);
    }
    EXPECT_EQ(b.mailLog("status=sent").size(), sent);
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, kCount);
    EXPECT_TRUE(b.files("Error").isEmpty());
}

} // namespace
