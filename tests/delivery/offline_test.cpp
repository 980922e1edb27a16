#include <QElapsedTimer>

#include "delivery_bench.h"
#include "platform/network_state.h"
#include "support/fake_exchanger.h"

using namespace postiq;
using namespace postiq::test;

namespace {

// The system's report, as a test sets it.
class ReportedNetwork : public NetworkState {
public:
    bool online() const override { return online_; }
    void set(bool online)
    {
        online_ = online;
        emit onlineChanged(online);
    }

private:
    bool online_ = false;
};

// Without a network, every dispatch (a new message, the outbox scan, a deferred file falling due)
// leaves the queue alone: no attempt is spent and no delay notice written. The queue goes as soon
// as the network is back, not at the next scan.
TEST(Offline, MailWaitsWithoutSpendingAttemptsAndLeavesWhenTheNetworkComesBack)
{
    DeliveryBench b;
    FakeExchanger mx;
    ASSERT_TRUE(mx.listen(QHostAddress(QStringLiteral("127.0.0.15")), 25));
    b.mx("away.test", {{10, "127.0.0.15"}});
    b.settings.ActiveSettings.AttemptDelay = 0;
    ReportedNetwork network;
    QObject::connect(&network, &NetworkState::onlineChanged, &b.dispatcher, &Dispatcher::setOnline);
    b.dispatcher.setOnline(network.online());
    b.dispatcher.startTimers();

    QStringList queued;
    for (int i = 0; i < 10; ++i)
        queued << b.queue("OFF" + QByteArray::number(i), {"<a@away.test>"});
    b.queue("DUE", {"<b@away.test>"}, "Subject: t\r\n\r\nhi\r\n", 1, false, "Deferred");
    queued << "DUE";
    queued.sort();
    b.dispatcher.queueChanged();
    b.dispatcher.VerifOutBox();
    b.clock.offsetSeconds = 5;
    b.dispatcher.VerifDeferred(); // due: back to OutBox, where it waits too
    spinUntil([] { return false; }, 500);

    EXPECT_TRUE(b.idle());
    EXPECT_EQ(b.files("OutBox"), queued) << "no delay notice, nothing deferred";
    EXPECT_TRUE(b.files("Deferred").isEmpty());
    for (const QString& name : queued)
        EXPECT_EQ(b.read("OutBox/" + name).Essai, name == "DUE" ? 1 : 0) << name.toStdString();
    EXPECT_EQ(b.dns.queries, 0);
    EXPECT_EQ(mx.sessionCount(), 0);

    QElapsedTimer clock;
    clock.start();
    network.set(true);
    ASSERT_TRUE(spinUntil([&] { return b.idle() && b.files("OutBox").isEmpty(); }, 8000));
    EXPECT_LT(clock.elapsed(), 5000) << "at once, not at the 10-second scan";
    EXPECT_EQ(b.mailLog("status=sent").size(), 11);
    EXPECT_TRUE(b.files("Deferred").isEmpty());
}

// A network that goes away stops the next dispatch; one that never left changes nothing.
TEST(Offline, GoingDownStopsTheNextDispatchOnly)
{
    DeliveryBench b;
    FakeExchanger mx;
    ASSERT_TRUE(mx.listen(QHostAddress(QStringLiteral("127.0.0.15")), 25));
    b.mx("away.test", {{10, "127.0.0.15"}});
    b.dispatcher.setOnline(true); // still online: nothing changes
    b.queue("ON1", {"<a@away.test>"});
    b.dispatcher.VerifOutBox();
    ASSERT_TRUE(spinUntil([&] { return b.idle() && b.files("OutBox").isEmpty(); }, 5000));

    b.dispatcher.setOnline(false);
    b.queue("ON2", {"<a@away.test>"});
    b.dispatcher.VerifOutBox();
    EXPECT_TRUE(b.idle());
    EXPECT_EQ(b.files("OutBox"), QStringList{"ON2"});
}

} // namespace
