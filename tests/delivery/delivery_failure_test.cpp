#include "delivery/socket_errors.h"
#include "delivery_bench.h"

using namespace postiq;
using namespace postiq::test;

namespace {

const QByteArray kNotRoutable =
    "See log file at this time : The corresponding message is not routable => placed in the error directory";

TEST(DeliveryFailure, ReasonWordsOfTheSocketErrors)
{
    EXPECT_EQ(ReasonText(SocketErrorNumber(QAbstractSocket::ConnectionRefusedError)), "refused by peer");
    EXPECT_EQ(ReasonText(SocketErrorNumber(QAbstractSocket::RemoteHostClosedError)), "reset by peer");
    EXPECT_EQ(ReasonText(SocketErrorNumber(QAbstractSocket::HostNotFoundError)), "host not found");
    EXPECT_EQ(ReasonText(SocketErrorNumber(QAbstractSocket::SocketTimeoutError)), "time out");
    EXPECT_EQ(ReasonText(SocketErrorNumber(QAbstractSocket::NetworkError)), "unknown reason: 20007");
}

TEST(DeliveryFailure, ThreeRefusingMailHostsDeferTheMessageWithANotice)
{
    DeliveryBench b;
    b.mx("dst.test", {{30, "127.0.0.68"}, {10, "127.0.0.66"}, {20, "127.0.0.67"}});
    b.queue("AAA1", {"<b@dst.test>", "<c@dst.test>"});
    b.dispatcher.VerifOutBox();
    ASSERT_TRUE(b.settle());

    const QByteArray head = " Postiq/smtpdistant[1]: AAA1 connection failed (refused by peer) for ";
    EXPECT_EQ(b.mailLog("smtpdistant"),
              (QList<QByteArray>{head + "127.0.0.66 [127.0.0.66], status=trying other MX server, attempt=1",
                                 head + "127.0.0.67 [127.0.0.67], status=trying other MX server, attempt=1",
                                 head + "127.0.0.68 [127.0.0.68], status=deferred, attempt=1"}));
    ASSERT_EQ(b.files("Deferred"), QStringList{"AAA1"});
    const CMessage deferred = b.read("Deferred/AAA1");
    EXPECT_EQ(deferred.Essai, 1);
    EXPECT_EQ(deferred.LastError, "10061: Connection refused");
    EXPECT_EQ(deferred.MRcptToCount(), 2);

    // The delay notice is the only file left in OutBox: to the sender alone, from <>, flagged,
    // counting afresh, one block per recipient.
    const QStringList outBox = b.files("OutBox");
    ASSERT_EQ(outBox.size(), 1);
    const CMessage notice = b.read("OutBox/" + outBox[0]);
    EXPECT_TRUE(notice.ForSender);
    EXPECT_EQ(notice.From, "<>");
    EXPECT_EQ(notice.Essai, 0);
    EXPECT_EQ(notice.MRcptToCount(), 1);
    EXPECT_EQ(notice.RcptTo(1), "<s@src.test>");
    EXPECT_EQ(notice.ID, outBox[0].toLatin1());
    EXPECT_TRUE(notice.Data.contains("Action: delayed"));
    EXPECT_TRUE(notice.Data.contains("Status: 4.4.1"));
    EXPECT_EQ(notice.Data.count("Final-Recipient:"), 2);
}

// Each dispatch counts one attempt; the message is dispatched MaxNbrAttempt + 1 times before it
// goes back to its sender, and a notice that cannot be delivered ends in Error, never bounced.
TEST(DeliveryFailure, AttemptsRunOutThenTheSenderGetsItBack)
{
    DeliveryBench b;
    b.mx("dst.test", {{10, kDeadHost}});
    b.dispatcher.concurrency.fix(3); // the three at once
    b.queue("THIRD", {"<b@dst.test>"}, "x\r\n", 2);
    b.queue("FOURTH", {"<b@dst.test>"}, "x\r\n", 3);
    b.queue("LOOP", {"<b@dst.test>"}, "x\r\n", 3, true);
    b.settings.ActiveSettings.KeepLocal = true; // the bounce waits in OutBox
    for (int i = 0; i < 3; ++i)
        b.dispatcher.SendOutSmtp(QStringList{"THIRD", "FOURTH", "LOOP"}[i]);
    ASSERT_TRUE(b.settle());

    const QByteArray failed = " connection failed (refused by peer) for 127.0.0.66 [127.0.0.66], status=";
    QList<QByteArray> lines = b.mailLog("connection failed");
    std::sort(lines.begin(), lines.end()); // the three connections fail in any order
    EXPECT_EQ(lines, (QList<QByteArray>{" Postiq/smtpdistant[1]: THIRD" + failed + "deferred, attempt=3",
                                        " Postiq/smtpdistant[2]: FOURTH 4st" + failed + "error, return error to=<s@src.test>",
                                        " Postiq/smtpdistant[3]: LOOP 4st" + failed
                                            + "error, not return error because it's already a return-error-mail: deny loop"}));
    EXPECT_EQ(b.read("Deferred/THIRD").Essai, 3);

    // The message is gone; its bounce is a file of its own, beside THIRD's delay notice.
    const QStringList outBox = b.files("OutBox");
    ASSERT_EQ(outBox.size(), 2);
    CMessage bounce = b.read("OutBox/" + outBox[0]);
    if (!bounce.Data.contains("Action: failed"))
        bounce = b.read("OutBox/" + outBox[1]);
    EXPECT_TRUE(bounce.ForSender);
    EXPECT_EQ(bounce.RcptTo(1), "<s@src.test>");
    EXPECT_TRUE(bounce.Data.contains("Action: failed"));
    EXPECT_TRUE(bounce.Data.contains("10061: refused by peer (Connection refused)"));

    EXPECT_EQ(b.files("Error"), QStringList{"LOOP"});
    EXPECT_EQ(b.read("Error/LOOP").LastError, "10061: Connection refused");
    EXPECT_TRUE(b.errorLog().endsWith(kNotRoutable + "\r\n"));
    EXPECT_EQ(b.errorLog().indexOf("See log file"), 20) << "no blank after the stamp in this entry";
    EXPECT_FALSE(b.files("OutBox").contains("LOOP"));
}

// A fixed server that cannot be reached (a laptop offline for a minute) defers the message like
// a mail exchanger would, and bounces it only once its attempts are spent.
TEST(DeliveryFailure, AFixedServerThatFailsDefersTheMessage)
{
    DeliveryBench b;
    b.useServer(QString::fromLatin1(kDeadHost) + ":2599");
    b.dispatcher.concurrency.fix(2); // both at once
    b.queue("FIX1", {"<b@dst.test>"});
    b.queue("FIX4", {"<b@dst.test>"}, "x\r\n", 3);
    b.dispatcher.SendOutSmtp("FIX1");
    b.dispatcher.SendOutSmtp("FIX4");
    ASSERT_TRUE(b.settle());

    EXPECT_EQ(b.mailLog("FIX1"),
              QList<QByteArray>{" Postiq/smtpdistant[1]: FIX1 connection failed (refused by peer) for 127.0.0.66:2599 "
                                "[127.0.0.66], status=deferred, attempt=1"});
    EXPECT_EQ(b.mailLog("FIX4").value(0).mid(24), "FIX4 4st connection failed (refused by peer) for 127.0.0.66:2599 "
                                                  "[127.0.0.66], status=error, return error to=<s@src.test>");
    EXPECT_EQ(b.files("Deferred"), QStringList{"FIX1"});
    EXPECT_TRUE(b.files("Error").isEmpty());
    EXPECT_EQ(b.files("OutBox").size(), 2) << "a delay notice for FIX1, a bounce for FIX4";
    EXPECT_EQ(b.dns.queries, 0);
}

// Without a mail host the message waits in Deferred until its attempts are used, then goes back
// to its sender; a notice without a route waits the same, then goes to Error. The slot is free
// at once.
TEST(DeliveryFailure, NoMailHostDefersThenBounces)
{
    DeliveryBench b;
    b.dispatcher.concurrency.fix(4); // all at once
    b.queue("NOMX1", {"<b@nowhere.test>"});
    b.queue("NOMX4", {"<b@nowhere.test>"}, "x\r\n", 3);
    b.queue("NOMXN", {"<b@nowhere.test>"}, "x\r\n", 9, true);
    b.queue("NOMXW", {"<b@nowhere.test>"}, "x\r\n", 0, true);
    b.settings.ActiveSettings.KeepLocal = true; // the bounce waits in OutBox
    for (const char* file : {"NOMX1", "NOMX4", "NOMXN", "NOMXW"})
        b.dispatcher.SendOutSmtp(QString::fromLatin1(file));
    ASSERT_TRUE(b.settle());

    const QByteArray noMx = " 421 No MX DNS available for nowhere.test using NS " + b.dns.server().toUtf8();
    QList<QByteArray> lines = b.mailLog("nowhere.test");
    std::sort(lines.begin(), lines.end()); // the lookups answer in any order
    EXPECT_EQ(lines, (QList<QByteArray>{" Postiq/smtpdistant: NOMX1" + noMx + " status=bounced",
                                                     " Postiq/smtpdistant: NOMX4" + noMx + " status=bounced",
                                                     " Postiq/smtpdistant: NOMXN" + noMx + " status=bounced",
                                                     " Postiq/smtpdistant: NOMXW" + noMx + " status=bounced"}));
    EXPECT_EQ(b.files("Deferred"), (QStringList{"NOMX1", "NOMXW"}));
    EXPECT_EQ(b.read("Deferred/NOMX1").LastError, noMx.mid(1));
    EXPECT_EQ(b.files("Error"), QStringList{"NOMXN"});
    const QStringList outBox = b.files("OutBox");
    ASSERT_EQ(outBox.size(), 1);
    const CMessage bounce = b.read("OutBox/" + outBox[0]);
    EXPECT_TRUE(bounce.ForSender);
    EXPECT_TRUE(bounce.Data.contains("Status: 5.1.2"));
    EXPECT_TRUE(bounce.Data.contains(noMx.mid(1)));
    EXPECT_TRUE(b.dispatcher.tmrVerifOutBox.isActive());
}

} // namespace
