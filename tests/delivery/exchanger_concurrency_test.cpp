// How many connections an exchanger gets: a window that grows while it answers, narrows when it
// fails, and is not shared while none of its hosts answers.
#include <QMap>
#include <QTimer>

#include "delivery/exchanger_concurrency.h"
#include "delivery_bench.h"
#include "support/fake_exchanger.h"

using namespace postiq;
using namespace postiq::test;

namespace {

using Ending = ExchangerConcurrency::Ending;

TEST(ExchangerConcurrency, TheWindowGrowsWhileTheExchangerAnswersAndNarrowsWhenItFails)
{
    ExchangerConcurrency c;
    c.initial = 3;
    c.limit = 5;
    EXPECT_EQ(c.window("a.test"), 3);
    EXPECT_FALSE(c.full("a.test", 2));
    EXPECT_TRUE(c.full("a.test", 3));

    for (int i = 0; i < 10; ++i)
        c.note("a.test", Ending::Carried);
    EXPECT_EQ(c.window("a.test"), 5) << "never beyond the limit";
    EXPECT_EQ(c.window("b.test"), 3) << "each exchanger has its own";

    c.note("a.test", Ending::Faltered);
    EXPECT_EQ(c.window("a.test"), 4);
    c.note("a.test", Ending::Answered);
    EXPECT_EQ(c.window("a.test"), 4) << "a refusal says nothing of the capacity";
    for (int i = 0; i < 10; ++i)
        c.note("a.test", Ending::Faltered);
    EXPECT_EQ(c.window("a.test"), 1) << "never below one";
    EXPECT_TRUE(c.full("a.test", 1));

    // Not a word from any host: not shared, however many connections are open; the first answer
    // shares it again from the initial window.
    c.note("a.test", Ending::Silent);
    EXPECT_FALSE(c.shared("a.test"));
    EXPECT_FALSE(c.full("a.test", 50));
    c.note("a.test", Ending::Carried);
    EXPECT_TRUE(c.shared("a.test"));
    EXPECT_EQ(c.window("a.test"), 4);

    c.fix(1);
    c.note("a.test", Ending::Carried);
    EXPECT_EQ(c.window("a.test"), 1) << "a fixed window never moves";
}

// The most connections open at once on the exchanger, sampled while the relay works.
struct Sampler {
    int most = 0;
    QTimer timer;
    explicit Sampler(const FakeExchanger& exchanger)
    {
        QObject::connect(&timer, &QTimer::timeout, [&] { most = std::max(most, exchanger.openSessions()); });
        timer.start(2);
    }
};

QByteArray subjectOf(const QByteArray& body) { return body.mid(9, body.indexOf("\r\n") - 9); }

// Against a slow exchanger the relay starts with the initial window and opens more connections
// as messages get through, never beyond the limit; each message arrives once.
TEST(ExchangerConcurrency, ASlowExchangerThatAnswersGetsMoreConnections)
{
    DeliveryBench b;
    b.dispatcher.concurrency.initial = 2;
    b.dispatcher.concurrency.limit = 6;
    ExchangerScript slow;
    slow.endOfData = reply("250 2.0.0 Queued", 60);
    FakeExchanger exchanger(slow);
    ASSERT_TRUE(exchanger.listen(QHostAddress(QStringLiteral("127.0.3.1")), 25));
    b.mx("window.test", {{10, "127.0.3.1"}});
    constexpr int kCount = 60;
    for (int i = 0; i < kCount; ++i)
        b.queue("W" + QByteArray::number(i), {"<w@window.test>"}, "Subject: W" + QByteArray::number(i) + "\r\n\r\nx\r\n");
    Sampler sampler(exchanger);
    b.dispatcher.VerifOutBox();
    ASSERT_TRUE(spinUntil([&] { return b.idle() && b.files("OutBox").filter("W").isEmpty(); }, 30000));

    QMap<QByteArray, int> arrived;
    for (int s = 0; s < exchanger.sessionCount(); ++s)
        for (const QByteArray& body : exchanger.session(s).bodies)
            ++arrived[subjectOf(body)];
    EXPECT_EQ(arrived.size(), kCount);
    for (auto it = arrived.cbegin(); it != arrived.cend(); ++it)
        EXPECT_EQ(it.value(), 1) << it.key().constData();
    EXPECT_GT(sampler.most, 2) << "the window grew";
    EXPECT_LE(sampler.most, 6) << "never beyond the limit";
    EXPECT_LE(exchanger.sessionCount(), 20) << "connections carry several messages";
    EXPECT_EQ(b.dispatcher.concurrency.window("window.test"), 6);
}

} // namespace

namespace {

// Many messages at once to one exchanger that is slow, and hangs up now between two messages,
// now in the middle of a transaction before the text: whatever it does, each message arrives
// exactly once in the end (those cut off wait in Deferred and go again), and every slot comes free.
TEST(ExchangerConcurrency, ManyMessagesToOneExchangerThatHangsUpLoseNothing)
{
    DeliveryBench b;
    b.settings.ActiveSettings.MaxNbrAttempt = 50;
    b.dispatcher.concurrency.initial = 3;
    b.dispatcher.concurrency.limit = 20;
    b.dispatcher.timeouts = {std::chrono::seconds(5), std::chrono::seconds(5)};
    FakeExchanger exchanger;
    ASSERT_TRUE(exchanger.listen(QHostAddress(QStringLiteral("127.0.3.2")), 25));
    for (int s = 0; s < 400; ++s) {
        ExchangerScript script;
        switch (s % 4) {
        case 0:
            script.endOfData = reply("250 2.0.0 slow but fine", 20);
            break;
        case 1:
            script.rset = {reply("250 ok"), closeInstead()}; // gone between the 2nd and 3rd message
            break;
        case 2:
            script.rcpt = {reply("250 ok"), closeInstead(5)}; // gone in the 2nd transaction
            break;
        case 3:
            break;
        }
        exchanger.setScriptFor(s, script);
    }
    b.mx("load.test", {{10, "127.0.3.2"}});
    constexpr int kCount = 200;
    for (int i = 0; i < kCount; ++i)
        b.queue("L" + QByteArray::number(i), {"<l" + QByteArray::number(i) + "@load.test>"},
                "Subject: L" + QByteArray::number(i) + "\r\n\r\nx\r\n");
    b.dispatcher.VerifOutBox();
    const auto settled = [&] { return b.idle() && exchanger.openSessions() == 0 && b.files("OutBox").filter("L").isEmpty(); };
    ASSERT_TRUE(spinUntil(settled, 60000));
    for (int round = 0; round < 10 && !b.files("Deferred").filter("L").isEmpty(); ++round) {
        b.dispatcher.ForceDeferred();
        ASSERT_TRUE(spinUntil(settled, 60000));
    }

    QMap<QByteArray, int> arrived;
    for (int s = 0; s < exchanger.sessionCount(); ++s)
        for (const QByteArray& body : exchanger.session(s).bodies)
            ++arrived[subjectOf(body)];
    for (int i = 0; i < kCount; ++i) {
        const QByteArray id = "L" + QByteArray::number(i);
        EXPECT_EQ(arrived.value(id), 1) << id.constData();
    }
    EXPECT_EQ(b.mailLog("status=sent").size(), kCount);
    EXPECT_TRUE(b.files("Deferred").filter("L").isEmpty());
    EXPECT_TRUE(b.files("Error").isEmpty());
    for (int i = 1; i <= 99; ++i)
        EXPECT_EQ(b.tables.CnxOut(i).Status(), 0) << i;
}

} // namespace
