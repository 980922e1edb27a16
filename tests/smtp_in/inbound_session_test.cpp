#include <QThread>
#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

#include "line_client.h"
#include "smtp_bench.h"

using namespace postiq;
using namespace postiq::test;

namespace {

const QByteArray kGreeting = "220 Server Postiq 3.0 on 127.0.0.1 Ready (www.postiq.example)";

// The greeting, then the reply to each command, from one connection.
QList<QByteArray> converse(quint16 port, const QList<QByteArray>& commands, bool expectClose = false,
                           bool* closed = nullptr)
{
    QList<QByteArray> replies;
    runClient([&] {
        LineClient client;
        if (!client.connectTo(port))
            return;
        replies << client.readLine();
        for (const QByteArray& command : commands)
            replies << client.command(command);
        if (expectClose && closed)
            *closed = client.closedByPeer();
    });
    return replies;
}

// One message on a fresh connection; true when it was accepted and the server closed after QUIT.
bool sendMessage(quint16 port, const QByteArray& from, const QList<QByteArray>& recipients,
                 const QByteArray& content)
{
    QList<QByteArray> commands{"HELO box\r\n", "MAIL FROM:" + from + "\r\n"};
    for (const QByteArray& to : recipients)
        commands << "RCPT TO:" + to + "\r\n";
    commands << "DATA\r\n" << content << "QUIT\r\n";
    bool closed = false;
    const QList<QByteArray> replies = converse(port, commands, true, &closed);
    return closed && replies.size() == commands.size() + 1
        && replies[replies.size() - 2] == "250 Message accepted for delivery";
}

QByteArray field(const QByteArray& text)
{
    return QByteArray(1, char(text.size() & 0xFF)) + char(text.size() >> 8) + text;
}

} // namespace

TEST(InboundSession, AnswersEachCommandByStateAndVerb)
{
    const struct {
        const char* name;
        QList<QPair<QByteArray, QByteArray>> dialogue; // command, reply
    } cases[] = {
        {"lower-case verbs; the sender reply echoes the raw text",
         {{"helo Box.Local\r\n", "250 Hello Box.Local"},
          {"mail from: <A@X.com>\r\n", "250 sender is  <a@x.com> sender ok"},
          {"rcpt to:  <B@Y.org> \r\n", "250 recipient is <b@y.org> recipient ok"},
          {"noop\r\n", "250 Noop Ok."},
          {"quit\r\n", "221 Postiq Goodbye"}}},
        {"EHLO is unknown, HELO then succeeds",
         {{"EHLO box\r\n", "500 Unrecognized command."}, {"HELO box\r\n", "250 Hello box"}}},
        {"invalid addresses are refused and may be given again",
         {{"HELO box\r\n", "250 Hello box"},
          {"MAIL FROM: a@x.com\r\n", "504 sender is  a@x.com sender is not a valid email"},
          {"MAIL FROM:<>\r\n", "504 sender is <> sender is not a valid email"},
          {"MAIL FROM:<a@x.com>\r\n", "250 sender is <a@x.com> sender ok"},
          {"RCPT TO:<b@y>\r\n", "504 recipient is <b@y> recipient is not a valid email"}}},
        {"RSET before HELO lets MAIL follow",
         {{"RSET\r\n", "250 Reset Ok."}, {"MAIL FROM:<a@x.com>\r\n", "250 sender is <a@x.com> sender ok"}}},
        {"commands out of sequence and malformed ones",
         {{"MAIL FROM:<a@x.com>\r\n", "500 Unrecognized command."},
          {"HELO\r\n", "250 Hello "},
          {"HELO box\r\n", "500 Unrecognized command."},
          {"RCPT TO:<b@y.org>\r\n", "500 Unrecognized command."},
          {"DATA\r\n", "500 Unrecognized command."},
          {"MAIL <a@x.com>\r\n", "504 sender is  sender is not a valid email"}}},
    };
    for (const auto& c : cases) {
        SmtpBench bench;
        ASSERT_TRUE(bench.start());
        QList<QByteArray> commands;
        for (const auto& exchange : c.dialogue)
            commands << exchange.first;
        const QList<QByteArray> replies = converse(bench.port, commands);
        ASSERT_EQ(replies.size(), c.dialogue.size() + 1) << c.name;
        EXPECT_EQ(replies[0], kGreeting) << c.name;
        for (int i = 0; i < c.dialogue.size(); ++i)
            EXPECT_EQ(replies[i + 1], c.dialogue[i].second) << c.name;
    }
}

TEST(InboundSession, JoinsSegmentsUntilALineEnds)
{
    SmtpBench bench;
    ASSERT_TRUE(bench.start());
    QList<QByteArray> replies;
    const auto sendInPieces = [](LineClient& client, const QList<QByteArray>& pieces) {
        for (const QByteArray& piece : pieces) {
            client.send(piece);
            QThread::msleep(60);
        }
    };
    runClient([&] {
        LineClient client;
        if (!client.connectTo(bench.port))
            return;
        replies << client.readLine();
        sendInPieces(client, {"HE", "LO box\r\n"});
        replies << client.readLine() << client.command("MAIL FROM:<a@x.com>\r\n") << client.command("DATA\r\n");
        sendInPieces(client, {"Hel", "lo\r\n", ".\r", "\n"});
        replies << client.readLine() << client.command("NOOP\r\n");
    });
    // Each is answered once, after its line is complete.
    EXPECT_EQ(replies, (QList<QByteArray>{kGreeting, "250 Hello box", "250 sender is <a@x.com> sender ok",
                                          "354 OK End with <CRLF>.<CRLF>", "250 Message accepted for delivery",
                                          "250 Noop Ok."}));
    ASSERT_EQ(bench.outBoxFiles().size(), 1);
    EXPECT_EQ(bench.queued(bench.outBoxFiles()[0]).Data, QByteArray("Hello\r\n"));
}

TEST(InboundSession, StoresAMessageByteForByte)
{
    SmtpBench bench;
    ASSERT_TRUE(bench.start());
    // No unstuffing, no re-encoding; a dot line followed by more text in one unit is content.
    const QByteArray content = "Subject: test\r\n\r\nbody line\r\n..stuffed\r\n.\r\nQUIT\r\n\x80\xff\r\n";
    ASSERT_TRUE(sendMessage(bench.port, "<Ann@X.com>", {"<bob@y.org>"}, content + ".\r\n"));
    const QStringList files = bench.outBoxFiles();
    ASSERT_EQ(files.size(), 1);
    EXPECT_FALSE(files[0].contains('-'));
    const QByteArray expected = field(files[0].toLatin1())
        + field("\r\n==> DO NOT ALTER THIS FILE !\r\n") + field("\r\n==> NE PAS MODIFIER CE FICHIER !\r\n")
        + QByteArray(1, '\0') + field("") + QByteArray(2, '\0') // Essai, LastError, ForSender
        + field("<ann@x.com>") + QByteArray("\x01\x00\x02\x00\x00\x00\x00\x00\x00\x00", 10) + field("")
        + field("<bob@y.org>") + field(content);
    EXPECT_EQ(readFile(bench.path("OutBox/" + files[0])), expected);
    const CMessage message = bench.queued(files[0]);
    EXPECT_EQ(message.Data, content);
    EXPECT_EQ(message.RcptTo(1), QByteArray("<bob@y.org>"));
}

TEST(InboundSession, DataWithoutRecipientIsStoredAsOneFile)
{
    SmtpBench bench;
    ASSERT_TRUE(bench.start());
    ASSERT_TRUE(sendMessage(bench.port, "<a@x.com>", {}, "Hi\r\n.\r\n"));
    ASSERT_EQ(bench.outBoxFiles().size(), 1);
    EXPECT_EQ(bench.queued(bench.outBoxFiles()[0]).MRcptToCount(), 0);
    EXPECT_TRUE(bench.mailLogLines("smtplocal").contains(kStamp + " Postiq/smtplocal[1]:  to= status=outbox"));
}

TEST(InboundSession, SplitsRecipientsOfSeveralDomainsIntoOneFilePerDomain)
{
    SmtpBench bench;
    ASSERT_TRUE(bench.start());
    ASSERT_TRUE(sendMessage(bench.port, "<s@w.net>", {"<a@x.com>", "<b@y.org>", "<c@x.com>"}, "Body\r\n.\r\n"));
    QStringList files = bench.outBoxFiles();
    ASSERT_EQ(files.size(), 2);
    std::sort(files.begin(), files.end(), [](const QString& a, const QString& b) { return a.right(2) < b.right(2); });
    ASSERT_TRUE(files[0].endsWith("-1") && files[1].endsWith("-2"));
    const CMessage x = bench.queued(files[0]);
    const CMessage y = bench.queued(files[1]);
    EXPECT_EQ(x.RcptTo(1) + x.RcptTo(2), QByteArray("<a@x.com><c@x.com>"));
    EXPECT_EQ(y.MRcptToCount(), 1);
    EXPECT_EQ(y.RcptTo(1), QByteArray("<b@y.org>"));
    EXPECT_EQ(y.From + y.Data + y.TxtFr, "<s@w.net>Body\r\n\r\n==> NE PAS MODIFIER CE FICHIER !\r\n");
    // The log names only the first recipient.
    EXPECT_TRUE(bench.mailLogLines("smtplocal").contains(kStamp + " Postiq/smtplocal[1]:  to=<a@x.com> status=outbox"));
}

TEST(InboundSession, CarriesTwoMessagesOnOneConnectionAndLogsTheSession)
{
    SmtpBench bench;
    bench.settings.ActiveSettings.DebugMode = true;
    ASSERT_TRUE(bench.start());
    bool closed = false;
    const QList<QByteArray> replies = converse(
        bench.port,
        {"HELO box\r\n", "MAIL FROM:<a@x.com>\r\n", "RCPT TO:<b@y.org>\r\n", "DATA\r\n", "one\r\n.\r\n",
         "MAIL FROM:<c@x.com>\r\n", "RCPT TO:<d@z.org>\r\n", "DATA\r\n", "two\r\n.\r\n", "NOOP\r\n", "QUIT\r\n"},
        true, &closed);
    ASSERT_EQ(replies.size(), 12);
    EXPECT_EQ(replies[6], QByteArray("250 sender is <c@x.com> sender ok"));
    EXPECT_EQ(replies[11], QByteArray("221 Postiq Goodbye"));
    EXPECT_TRUE(closed);
    ASSERT_TRUE(spinUntil([&] { return bench.tables.Smtp(1) == nullptr; }));
    EXPECT_EQ(bench.tables.CnxIn(1).Status(), 0);

    QList<QByteArray> stored;
    for (const QString& file : bench.outBoxFiles()) {
        const CMessage message = bench.queued(file);
        stored << message.From + " " + QByteArray::number(message.MRcptToCount()) + " " + message.Data;
    }
    std::sort(stored.begin(), stored.end());
    EXPECT_EQ(stored, (QList<QByteArray>{"<a@x.com> 1 one\r\n", "<c@x.com> 1 two\r\n"}));

    EXPECT_EQ(bench.mailLogLines("smtplocal"),
              (QList<QByteArray>{kStamp + " Postiq/smtplocal[1]: connect from  [127.0.0.1]",
                                 kStamp + " Postiq/smtplocal[1]: client= [127.0.0.1]",
                                 kStamp + " Postiq/smtplocal[1]:  to=<b@y.org> status=outbox",
                                 kStamp + " Postiq/smtplocal[1]:  to=<d@z.org> status=outbox",
                                 kStamp + " Postiq/smtplocal[1]: disconnect from  [127.0.0.1]"}));
    const QByteArray debug = readFile(bench.path("Debug.html"));
    for (const QByteArray& entry :
         {"<FONT COLOR='#0000FF'>Send to Smtp local: " + kGreeting + "\r\n</FONT><BR>",
          QByteArray("Receive from Smtp local[1]: <I> ********** Message Corps du mail **********</I><BR>"),
          QByteArray("Receive from Smtp local[1]: MAIL FROM:&lt;a@x.com&gt;<BR>"),
          QByteArray("<FONT COLOR='#0000FF'><B>Send to Smtp local[1]: 250 Noop Ok.\r\n</B></FONT><BR>"),
          QByteArray("<FONT COLOR='#FF0000'><B>TCP local fermé</B></FONT><BR>")})
        EXPECT_TRUE(debug.contains(entry)) << entry.constData();
}

TEST(InboundSession, RefusesAClientThatMayNotRelayWithoutAReply)
{
    SmtpBench bench;
    ASSERT_TRUE(bench.start());
    bool closedSilently = false;
    runClient([&] {
        LineClient client;
        closedSilently = client.connectTo(bench.port, "127.0.0.2") && client.closedByPeer();
    });
    EXPECT_TRUE(closedSilently);
    ASSERT_TRUE(spinUntil([&] { return bench.tables.Smtp(1) == nullptr; }));
    EXPECT_EQ(bench.tables.CnxIn(1).Status(), 0);
    EXPECT_EQ(bench.mailLogLines("smtplocal"),
              QList<QByteArray>{kStamp + " Postiq/smtplocal[1] REJECT Host 127.0.0.2 relay: deny"});
}

TEST(InboundSession, AClientThatVanishesFreesItsSlotAtOnce)
{
    SmtpBench bench;
    ASSERT_TRUE(bench.start());
    runClient([&] {
        LineClient client;
        if (!client.connectTo(bench.port) || client.readLine().isEmpty())
            return;
        client.command("HELO box\r\n");
        client.command("MAIL FROM:<a@x.com>\r\n");
        client.command("DATA\r\n");
        client.send("half a message\r\n");
    });
    ASSERT_TRUE(spinUntil([&] { return bench.tables.Smtp(1) == nullptr; }));
    EXPECT_EQ(bench.tables.CnxIn(1).Status(), 0);
    EXPECT_TRUE(bench.outBoxFiles().isEmpty());
    EXPECT_EQ(bench.mailLogLines("smtplocal").last(),
              kStamp + " Postiq/smtplocal[1]: lost connection from  [127.0.0.1]");

    // A QUIT sent just before closing is a normal end, not a lost connection.
    runClient([&] {
        LineClient client;
        if (client.connectTo(bench.port) && !client.readLine().isEmpty())
            client.send("QUIT\r\n");
    });
    ASSERT_TRUE(spinUntil([&] { return bench.tables.Smtp(1) == nullptr; }));
    const QList<QByteArray> lines = bench.mailLogLines("smtplocal");
    ASSERT_EQ(lines.size(), 5);
    EXPECT_EQ(lines[3], kStamp + " Postiq/smtplocal[1]: connect from  [127.0.0.1]"); // slot 1 again
    EXPECT_EQ(lines[4], kStamp + " Postiq/smtplocal[1]: disconnect from  [127.0.0.1]");
}

TEST(InboundSession, NinetyNineClientsAtOnceAndTheHundredthIsToldToComeBack)
{
    SmtpBench bench;
    ASSERT_TRUE(bench.start());
    std::vector<std::unique_ptr<LineClient>> clients;
    int greeted = 0;
    QByteArray busyReply;
    bool busyClosed = false;
    runClient([&] {
        for (int i = 0; i < 99; ++i) {
            clients.push_back(std::make_unique<LineClient>());
            greeted += clients.back()->connectTo(bench.port) && clients.back()->readLine() == kGreeting;
        }
        LineClient extra;
        if (extra.connectTo(bench.port)) {
            busyReply = extra.readLine();
            busyClosed = extra.closedByPeer();
        }
    });
    EXPECT_EQ(greeted, 99);
    EXPECT_EQ(busyReply, QByteArray("421 Postiq busy, try again later"));
    EXPECT_TRUE(busyClosed);
    for (int i = 1; i <= 99; ++i)
        EXPECT_EQ(bench.tables.CnxIn(i).Status(), 4) << i;
    EXPECT_EQ(bench.tables.CnxIn(100).Status(), 0);
    EXPECT_EQ(bench.mailLogLines("smtplocal").last(),
              kStamp + " Postiq/smtplocal: 421 busy, reject from  [127.0.0.1]");

    clients.clear(); // all of them vanish
    ASSERT_TRUE(spinUntil([&] { return bench.mailLogLines("lost connection").size() == 99; }));
    EXPECT_EQ(converse(bench.port, {}), QList<QByteArray>{kGreeting});
    EXPECT_TRUE(bench.mailLogLines("smtplocal").contains(kStamp + " Postiq/smtplocal[99]: connect from  [127.0.0.1]"));
}
