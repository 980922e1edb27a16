#include "delivery_bench.h"
#include "support/fake_exchanger.h"

using namespace postiq;
using namespace postiq::test;

namespace {

const QHostAddress kMx1(QStringLiteral("127.0.0.2"));
const QHostAddress kMx2(QStringLiteral("127.0.0.3"));

// A bench whose domain dst.test has one mail exchanger, `exchanger`, on 127.0.0.2 port 25.
struct SessionBench : DeliveryBench {
    FakeExchanger exchanger;
    SessionBench()
    {
        settings.ActiveSettings.DebugMode = true;
        EXPECT_TRUE(exchanger.listen(kMx1, 25)) << "port 25 of 127.0.0.2";
        mx("dst.test", {{10, "127.0.0.2"}});
    }
    // Queues one message and lets the relay work until every slot is free and every session with
    // the exchanger is over. Bounces and notices join in: their sender's domain has no mail host,
    // so they end in Deferred.
    void deliver(const QByteArray& id, const QList<QByteArray>& recipients,
                 const QByteArray& data = "Subject: t\r\n\r\nhi\r\n", bool forSender = false)
    {
        queue(id, recipients, data, 0, forSender);
        // Notices of earlier messages may come first in OutBox: dispatch until this one has gone.
        EXPECT_TRUE(spinUntil(
            [this, id] {
                if (!idle() || exchanger.openSessions() > 0)
                    return false;
                if (!files("OutBox").contains(QString::fromLatin1(id)))
                    return true;
                dispatcher.VerifOutBox();
                return false;
            },
            10000))
            << id.constData();
    }
    QByteArray debugLog() const { return readFile(path(QStringLiteral("Debug.html"))); }
};

TEST(OutboundSession, ThreeRecipientsOneTransaction)
{
    SessionBench b;
    b.deliver("OK3", {"<a@dst.test>", "<b@other.test>", "<c@dst.test>"}, "Subject: three\r\n\r\nbody\r\n");

    ASSERT_EQ(b.exchanger.sessionCount(), 1);
    const ExchangerSession& s = b.exchanger.session(0);
    EXPECT_EQ(s.commands, (QList<QByteArray>{"EHLO relay.test", "MAIL FROM:<s@src.test>", "RCPT TO:<a@dst.test>",
                                             "RCPT TO:<b@other.test>", "RCPT TO:<c@dst.test>", "DATA", "QUIT"}));
    EXPECT_EQ(s.body, "Subject: three\r\n\r\nbody\r\n") << "the text, and the dot right after its last line end";
    const QByteArray relay = ", relay=127.0.0.2[127.0.0.2], status=sent (250 2.0.0 Queued as FAKE)";
    EXPECT_EQ(b.mailLog("smtpdistant"),
              (QList<QByteArray>{" Postiq/smtpdistant[1]: OK3 connect to 127.0.0.2 [127.0.0.2]",
                                 " Postiq/smtpdistant[1]: OK3 to=<a@dst.test>" + relay,
                                 " Postiq/smtpdistant[1]: OK3 to=<b@other.test>" + relay,
                                 " Postiq/smtpdistant[1]: OK3 to=<c@dst.test>" + relay}));
    EXPECT_TRUE(b.files("OutBox").isEmpty()) << "no copy of a sent message is kept";
    EXPECT_TRUE(b.debugLog().contains("<FONT COLOR='#0000FF'>Send to SMTPDISTANT[1]: OK3 MAIL FROM:<s@src.test>\r\n</FONT><BR>"));
    EXPECT_TRUE(b.debugLog().contains("<FONT COLOR='#0000FF'>Send to SMTPDISTANT[1]: OK3 **** DATA ****</FONT><BR>"));
    EXPECT_TRUE(b.debugLog().contains("<FONT COLOR='#008800'>Receive from SMTPDISTANT[1]: OK3 250 2.1.0 Sender OK<BR></FONT>"));
}

// A stored lone dot or bare line end never ends the data early at a server that reads a bare LF
// as a line end: the whole text arrives, and the next command is a command.
TEST(OutboundSession, NothingInTheTextEndsTheDataEarly)
{
    SessionBench b;
    b.deliver("DOTS", {"<a@dst.test>"}, "a\n.\nQUIT\r.\r\n..b\r\n");
    const ExchangerSession& s = b.exchanger.session(0);
    EXPECT_EQ(s.body, "a\r\n.\r\nQUIT\r\n.\r\n..b\r\n"); // as the server reads it, unstuffed
    EXPECT_EQ(s.commands.last(), "QUIT");
    EXPECT_EQ(s.commands.count("QUIT"), 1);
    EXPECT_TRUE(b.files("OutBox").isEmpty());
}

// A 5xx at the host's own steps (MAIL, the end of data) refuses every recipient: one bounce for
// them all, or Error for a notice. A 5xx to one RCPT refuses that recipient alone.
TEST(OutboundSession, RefusalsBounceOrGoToError)
{
    SessionBench b;
    ExchangerScript atMail;
    atMail.mail = reply("553 5.1.8 no such sender");
    ExchangerScript atRcpt;
    atRcpt.rcpt = {reply("250 ok"), reply("550 5.1.1 no such user")};
    ExchangerScript afterData;
    afterData.endOfData = reply("554 content rejected");
    b.exchanger.setScriptFor(0, atMail);
    b.exchanger.setScriptFor(1, atRcpt);
    b.exchanger.setScriptFor(2, afterData);
    b.exchanger.setScriptFor(3, afterData);
    b.deliver("R1", {"<a@dst.test>", "<b@dst.test>"});
    b.deliver("R2", {"<a@dst.test>", "<b@dst.test>"});
    b.deliver("R3", {"<a@dst.test>"});
    b.deliver("R4", {"<a@dst.test>"}, "bounce\r\n", true);

    const QByteArray tail = " status=error, return error to=<s@src.test>";
    QList<QByteArray> refusals;
    for (const QByteArray& line : b.mailLog(" Error 5"))
        refusals << line.mid(line.indexOf("]: ")); // the slot numbers depend on the bounces' turns
    EXPECT_EQ(refusals, (QList<QByteArray>{"]: R1 Error 553 (553 5.1.8 no such sender), error for=<a@dst.test>" + tail,
                                           "]: R1 Error 553 (553 5.1.8 no such sender), error for=<b@dst.test>" + tail,
                                           "]: R2 Error 550 (550 5.1.1 no such user), error for=<b@dst.test>" + tail,
                                           "]: R3 Error 554 (554 content rejected), error for=<a@dst.test>" + tail,
                                           "]: R4 Error 554 (554 content rejected), error for=<a@dst.test> status=error, "
                                           "not return error because it's already a return-error-mail: deny loop"}));
    EXPECT_EQ(b.mailLog("R2 to=<a@dst.test>").value(0).mid(24),
              "R2 to=<a@dst.test>, relay=127.0.0.2[127.0.0.2], status=sent (250 2.0.0 Queued as FAKE)");
    EXPECT_EQ(b.exchanger.session(1).commands.mid(3, 2), (QList<QByteArray>{"RCPT TO:<b@dst.test>", "DATA"}));
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(b.exchanger.session(i).commands.last(), "QUIT") << i;
    // Each message gone, one bounce each in its place: it waits in Deferred, as the sender's
    // domain has no mail host. The notice's own refusal breeds nothing.
    EXPECT_TRUE(b.files("OutBox").isEmpty());
    const QStringList bounces = b.files("Deferred");
    ASSERT_EQ(bounces.size(), 3);
    for (const QString& name : bounces) {
        const CMessage bounce = b.read("Deferred/" + name);
        EXPECT_TRUE(bounce.ForSender);
        EXPECT_EQ(bounce.From, "<>");
        EXPECT_EQ(bounce.MRcptToCount(), 1);
        EXPECT_EQ(bounce.RcptTo(1), "<s@src.test>");
        if (bounce.Data.contains("no such user")) {
            EXPECT_TRUE(bounce.Data.contains("Final-Recipient: rfc822; b@dst.test"));
            EXPECT_FALSE(bounce.Data.contains("Final-Recipient: rfc822; a@dst.test")) << "a got the message";
            EXPECT_TRUE(bounce.Data.contains("Status: 5.1.1"));
        }
    }
    EXPECT_EQ(b.files("Error"), QStringList{"R4"});
    EXPECT_EQ(b.read("Error/R4").LastError, "554 content rejected");
    EXPECT_EQ(b.errorLog().mid(20), " See log file at this time : The corresponding message is not routable => placed "
                                    "in the error directory\r\n");
}

// Every reply code as RFC 5321 means it: 251 and 252 accept, a 4xx to one RCPT defers that
// recipient only, a 4xx greeting or MAIL is a failure of the host for now, and garbage or a
// reply out of place is one too, with a line that says so and no box for anyone.
TEST(OutboundSession, RepliesReadAsTheyAreMeant)
{
    SessionBench b;
    ExchangerScript forwarded;
    forwarded.rcpt = {reply("251 User not local; will forward"), reply("252 Cannot verify"),
                      reply("450 4.2.1 greylisted, try later")};
    ExchangerScript busy;
    busy.greeting = reply("421 Too busy");
    ExchangerScript later;
    later.mail = reply("450 Try again later");
    ExchangerScript garbage;
    garbage.mail = reply("hello there");
    ExchangerScript outOfPlace;
    outOfPlace.mail = reply("354 go ahead");
    b.exchanger.setScriptFor(0, forwarded);
    b.exchanger.setScriptFor(1, busy);
    b.exchanger.setScriptFor(2, later);
    b.exchanger.setScriptFor(3, garbage);
    b.exchanger.setScriptFor(4, outOfPlace);
    b.deliver("U1", {"<a@dst.test>", "<b@dst.test>", "<c@dst.test>"});
    for (const char* id : {"U2", "U3", "U4", "U5"})
        b.deliver(id, {"<a@dst.test>"});

    EXPECT_TRUE(b.desktop.notices.isEmpty());
    EXPECT_EQ(b.exchanger.session(0).commands.mid(4),
              (QList<QByteArray>{"RCPT TO:<c@dst.test>", "DATA", "QUIT"}));
    EXPECT_EQ(b.mailLog("U1 to=").size(), 3);
    EXPECT_TRUE(b.mailLog("U1 to=<c@dst.test>").value(0).endsWith(
        "status=deferred (450 4.2.1 greylisted, try later), attempt=1"));
    const CMessage rest = b.read("Deferred/U1");
    EXPECT_EQ(rest.MRcptToCount(), 1) << "only the deferred recipient waits";
    EXPECT_EQ(rest.RcptTo(1), "<c@dst.test>");
    for (const QByteArray id : {"U2", "U3", "U4", "U5"})
        EXPECT_TRUE(b.files("Deferred").contains(id)) << id.constData();
    EXPECT_EQ(b.mailLog("U2 connection failed").value(0).mid(24),
              "U2 connection failed (421 Too busy) for 127.0.0.2 [127.0.0.2], status=deferred, attempt=1");
    EXPECT_EQ(b.mailLog("U4 unexpected reply").value(0).mid(24),
              "U4 unexpected reply (hello there) from 127.0.0.2 [127.0.0.2] in state 5");
    EXPECT_EQ(b.mailLog("U4 connection failed").value(0).mid(24),
              "U4 connection failed (unexpected reply) for 127.0.0.2 [127.0.0.2], status=deferred, attempt=1");
    EXPECT_EQ(b.mailLog("U5 unexpected reply").size(), 1);
    for (int i = 1; i < 5; ++i)
        EXPECT_EQ(b.exchanger.session(i).commands.last(), "QUIT") << i;
}

// An exchanger that offers STARTTLS but cannot carry it through is tried once more in clear,
// with a line that says so; the message is not held up.
TEST(OutboundSession, AFailedHandshakeIsRetriedInClear)
{
    SessionBench b;
    ExchangerScript broken;
    broken.helo = reply("250-mx.fake.example\r\n250-SIZE 1000000\r\n250 STARTTLS");
    broken.unknown = reply("220 2.0.0 Ready to start TLS"); // and then no TLS at all
    b.exchanger.setScript(broken);
    b.deliver("CLEAR", {"<a@dst.test>"});

    ASSERT_EQ(b.exchanger.sessionCount(), 2);
    EXPECT_EQ(b.exchanger.session(0).commands.mid(0, 2), (QList<QByteArray>{"EHLO relay.test", "STARTTLS"}));
    EXPECT_EQ(b.exchanger.session(1).commands.mid(0, 2),
              (QList<QByteArray>{"EHLO relay.test", "MAIL FROM:<s@src.test> SIZE=18"}));
    EXPECT_TRUE(b.exchanger.session(1).dataEnded);
    const QList<QByteArray> retry = b.mailLog("TLS handshake failed");
    ASSERT_EQ(retry.size(), 1);
    EXPECT_TRUE(retry[0].startsWith(" Postiq/smtpdistant[1]: CLEAR TLS handshake failed (")) << retry[0].constData();
    EXPECT_TRUE(retry[0].endsWith(") with 127.0.0.2 [127.0.0.2], status=retrying without TLS")) << retry[0].constData();
    EXPECT_EQ(b.mailLog("CLEAR connect to").size(), 2);
    EXPECT_TRUE(b.files("OutBox").isEmpty());
    EXPECT_TRUE(b.files("Deferred").isEmpty());
}

// A server that never speaks, and one that stops in the middle, end as a time-out; the next mail
// exchanger gets the message.
TEST(OutboundSession, SilentServersTimeOutAndTheNextExchangerTakesOver)
{
    SessionBench b;
    FakeExchanger second;
    ASSERT_TRUE(second.listen(kMx2, 25));
    b.mx("dst.test", {{10, "127.0.0.2"}, {20, "127.0.0.3"}});
    ExchangerScript mute;
    mute.greeting = silent();
    b.exchanger.setScript(mute);
    b.deliver("T1", {"<a@dst.test>"});

    EXPECT_EQ(b.mailLog("connection failed"),
              QList<QByteArray>{" Postiq/smtpdistant[1]: T1 connection failed (time out) for 127.0.0.2 [127.0.0.2], "
                                "status=trying other MX server, attempt=1"});
    EXPECT_EQ(second.sessionCount(), 1);
    EXPECT_TRUE(second.session(0).dataEnded);
    EXPECT_TRUE(b.files("OutBox").isEmpty());
}

// A message goes from a mail program through the relay to the exchanger, byte for byte under the
// relay's Received header, by the MX route and through a fixed server on a port of its own.
TEST(OutboundSession, RoundTripFromAMailProgramToTheExchanger)
{
    SessionBench b;
    ASSERT_TRUE(b.listen());
    FakeExchanger fixed;
    ASSERT_TRUE(fixed.listen(QHostAddress::LocalHost));
    const QByteArray content = "From: a@x.com\r\nSubject: round trip\r\n\r\n..leading dot\r\n\x80\xff bytes\r\n";
    const Dialogue send = {{"", kGreeting},
                           {"HELO box\r\n", "250 Hello box"},
                           {"MAIL FROM:<a@x.com>\r\n", "250 sender is <a@x.com> sender ok"},
                           {"RCPT TO:<b@dst.test>\r\n", "250 recipient is <b@dst.test> recipient ok"},
                           {"DATA\r\n", kGoAhead},
                           {content + ".\r\n", kAccepted},
                           {"QUIT\r\n", "221 Postiq Goodbye"}};
    for (FakeExchanger* exchanger : {&b.exchanger, &fixed}) {
        if (exchanger == &fixed)
            b.useServer("127.0.0.1:" + QString::number(fixed.port()));
        Client client(b.port);
        play(client, send);
        b.dispatcher.VerifOutBox();
        ASSERT_TRUE(spinUntil([&] { return exchanger->sessionCount() == 1 && b.idle(); }));
        EXPECT_EQ(WithoutReceived(exchanger->session(0).body), Unstuffed(content));
        EXPECT_TRUE(b.files("OutBox").isEmpty());
    }
}

} // namespace
