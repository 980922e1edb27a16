#include <algorithm>
#include <list>

#include "log/dates.h"
#include "store/queue_file_format.h"
#include "smtp_bench.h"

using namespace postiq;
using namespace postiq::test;

const QByteArray kSlot1 = kStamp + " Postiq/smtplocal[1]";

TEST(InboundSession, AnswersEachCommandByStateAndVerb)
{
    const Dialogue dialogues[] = {
        // Lines in pieces are answered once, when complete; verbs in any case; the sender reply
        // echoes the text up to the end of the address, the recipient reply the trimmed address;
        // a refused sender may be given again, also after a message; the null sender is valid.
        {{"he", ""},
         {"lo Box.Local\r\n", "250 Hello Box.Local"},
         {"mail from: <A@X.com> \r\n", "250 sender is  <a@x.com> sender ok"},
         {"rcpt to:  <B@Y.org> \r\n", "250 recipient is <b@y.org> recipient ok"},
         {"data\r\n", kGoAhead},
         {"Hel", ""},
         {"lo\r\n", ""},
         {".\r", ""},
         {"\n", kAccepted},
         {"MAIL FROM: a@x.com\r\n", "504 sender is  a@x.com sender is not a valid email"},
         {"MAIL <a@x.com>\r\n", "504 sender is  sender is not a valid email"},
         {"MAIL FROM:<>\r\n", "250 sender is <> sender ok"},
         {"RCPT TO:<b@y>\r\n", "504 recipient is <b@y> recipient is not a valid email"},
         {"noop\r\n", "250 Noop Ok."}},
        // Known verbs out of sequence; RSET before HELO lets MAIL follow; HELO again starts afresh.
        {{"MAIL FROM:<a@x.com>\r\n", "500 Unrecognized command."},
         {"RCPT TO:<b@y.org>\r\n", "500 Unrecognized command."},
         {"DATA\r\n", "500 Unrecognized command."},
         {"RSET\r\n", "250 Reset Ok."},
         {"MAIL FROM:<a@x.com>\r\n", "250 sender is <a@x.com> sender ok"},
         {"MAIL FROM:<c@x.com>\r\n", "500 Unrecognized command."},
         {"HELO again\r\n", "250 Hello again"},
         {"RCPT TO:<b@y.org>\r\n", "500 Unrecognized command."}},
        {{"HELO\r\n", "250 Hello "}}, // no name at all
        // EHLO and the parameters of MAIL; a refused parameter leaves the state as it was, and DATA
        // wants a recipient.
        {{"EHLO client.example\r\n", "250-Hello client.example"},
         {"", "250-PIPELINING"},
         {"", "250-8BITMIME"},
         {"", "250 SIZE 67108864"},
         {"MAIL FROM:<a@b.example> SIZE=67108865\r\n", "552 Message size exceeds fixed maximum message size"},
         {"MAIL FROM:<a@b.example> SIZE=1000000000000000000000000000000\r\n",
          "552 Message size exceeds fixed maximum message size"},
         {"MAIL FROM:<a@b.example> AUTH=<>\r\n", "555 Unsupported parameter"},
         {"MAIL FROM:<a@b.example> SIZE=12k\r\n", "555 Unsupported parameter"},
         {"RCPT TO:<b@y.org>\r\n", "500 Unrecognized command."},
         {"MAIL FROM:<a@b.example>  SIZE=67108864 BODY=8BITMIME\r\n", "250 sender is <a@b.example> sender ok"},
         {"DATA\r\n", "554 No valid recipients"},
         {"RCPT TO:<b@y.org>\r\n", "250 recipient is <b@y.org> recipient ok"},
         {"EHLO x\r\n", "250-Hello x"},
         {"", "250-PIPELINING"},
         {"", "250-8BITMIME"},
         {"", "250 SIZE 67108864"},
         {"DATA\r\n", "500 Unrecognized command."}},
    };
    SmtpBench bench;
    ASSERT_TRUE(bench.start());
    for (const Dialogue& rows : dialogues) {
        Client client(bench.port);
        EXPECT_EQ(client.answer(), kGreeting);
        play(client, rows);
    }
}

// The queue keeps the message as the client wrote it: dots unstuffed, every line end CR LF, 8-bit
// bytes untouched, a line of any length; only CR LF "." CR LF ends it. On top, a Received header
// names the file.
TEST(InboundSession, StoresTheMessageAsWrittenUnderAReceivedHeader)
{
    SmtpBench bench;
    bench.settings.LocalHostName = QStringLiteral("relay.test");
    ASSERT_TRUE(bench.start());
    const QByteArray sent = "Subject: test\r\n\r\nbody line\r\n..stuffed\r\n...two\r\n.lone\r\nbare LF\nbare CR\r"
                            "y\n.\r\nz\r\n.\nnot the end\r\n\x80\xff\r\n" + QByteArray(998, 'w') + "\r\n"
        + ".." + QByteArray(200 * 1024, 'L') + "..\r\n";
    const QByteArray written = "Subject: test\r\n\r\nbody line\r\n.stuffed\r\n..two\r\n.lone\r\nbare LF\r\nbare CR\r\n"
                               "y\r\n.\r\nz\r\n.\r\nnot the end\r\n\x80\xff\r\n" + QByteArray(998, 'w') + "\r\n"
                               + "." + QByteArray(200 * 1024, 'L') + "..\r\n"; // a line longer than any buffer
    Client client(bench.port);
    play(client, kEnvelope + Dialogue{{sent, ""}, {".\r\n", kAccepted}});
    const QStringList files = bench.outBox();
    ASSERT_EQ(files.size(), 1);
    const QByteArray id = files[0].toLatin1();
    const QByteArray received = "Received: from box ([127.0.0.1])\r\n\tby relay.test (Postiq) with SMTP id " + id
        + ";\r\n\t" + Rfc5322Date(bench.clock) + "\r\n";
    const auto field = [](const QByteArray& t) { return QByteArray(1, char(t.size() & 0xFF)) + char(t.size() >> 8) + t; };
    const QByteArray expected = field(id) + field("\r\n==> DO NOT ALTER THIS FILE !\r\n")
        + field("\r\n==> NE PAS MODIFIER CE FICHIER !\r\n")
        + QByteArray(1, '\0') + field("") + QByteArray(2, '\0') // Essai, LastError, ForSender
        + field("<a@x.com>") + QByteArray("\x01\x00\x02\x00\x00\x00\x00\x00\x00\x00", 10) + field("")
        + field("<b@y.org>") + LongTextCount(quint32((received + written).size())) + received + written;
    EXPECT_EQ(readFile(bench.path("OutBox/" + files[0])), expected);
}

TEST(InboundSession, CarriesSeveralMessagesOnOneConnectionAndLogsThem)
{
    SmtpBench bench;
    bench.settings.ActiveSettings.DebugMode = true;
    QStringList announced; // what the queue's observers were told
    bench.queue.addObserver([&](QueueFolder folder, const QByteArray& name, QueueChange change) {
        announced.append(QString::fromLatin1(Queue::folderName(folder) + ' ' + name
                                             + (change == QueueChange::Added ? " added" : " other")));
    });
    ASSERT_TRUE(bench.start());
    Client client(bench.port);
    play(client, {{"", kGreeting},
                  {"VRFY box\r\n", "500 Unrecognized command."},
                  {"HELO box\r\n", "250 Hello box"},
                  // Three recipients in two domains: one file per domain.
                  {"MAIL FROM:<s@w.net>\r\n", "250 sender is <s@w.net> sender ok"},
                  {"RCPT TO:<a@x.com>\r\n", "250 recipient is <a@x.com> recipient ok"},
                  {"RCPT TO:<b@y.org>\r\n", "250 recipient is <b@y.org> recipient ok"},
                  {"RCPT TO:<c@x.com>\r\n", "250 recipient is <c@x.com> recipient ok"},
                  {"DATA\r\n", kGoAhead},
                  {"one\r\n", ""},
                  {".\r\n", kAccepted},
                  // One recipient: one file without a suffix.
                  {"MAIL FROM:<c@x.com>\r\n", "250 sender is <c@x.com> sender ok"},
                  {"RCPT TO:<d@z.net>\r\n", "250 recipient is <d@z.net> recipient ok"},
                  {"DATA\r\n", kGoAhead},
                  {"two\r\n.\r\n", kAccepted},
                  {"NOOP\r\n", "250 Noop Ok."},
                  {"QUIT\r\n", "221 Postiq Goodbye"}});
    EXPECT_TRUE(client.closed() && bench.slotFreed(1)); // only once the goodbye is out

    QList<QByteArray> stored; // suffix|From|recipients|Data of each queue file
    for (const QString& file : bench.outBox()) {
        CMessage message(bench.logs);
        message.MOpen(bench.path("OutBox/" + file));
        QByteArray recipients;
        for (int i = 1; i <= message.MRcptToCount(); ++i)
            recipients += message.RcptTo(i);
        stored << file.section('-', 1).toLatin1() + '|' + message.From + '|' + recipients + '|'
                + WithoutReceived(message.Data);
        // Each file of a split message names itself in its own header.
        EXPECT_TRUE(message.Data.startsWith("Received: from box ([127.0.0.1])\r\n\tby "));
        EXPECT_TRUE(message.Data.contains(" (Postiq) with SMTP id " + file.toLatin1() + ";\r\n\t"));
    }
    std::sort(stored.begin(), stored.end());
    QStringList files = bench.outBox();
    for (QString& file : files)
        file = QStringLiteral("OutBox ") + file + QStringLiteral(" added");
    announced.sort();
    files.sort();
    EXPECT_EQ(announced, files);
    EXPECT_EQ(stored, (QList<QByteArray>{"1|<s@w.net>|<a@x.com><c@x.com>|one\r\n", "2|<s@w.net>|<b@y.org>|one\r\n",
                                         "|<c@x.com>|<d@z.net>|two\r\n"}));

    // The first recipient alone is named; "client=" comes with the first MAIL only.
    EXPECT_EQ(bench.mailLog("smtplocal"),
              (QList<QByteArray>{kSlot1 + ": connect from  [127.0.0.1]", kSlot1 + ": 500 Unrecognized command",
                                 kSlot1 + ": client= [127.0.0.1]", kSlot1 + ":  to=<a@x.com> status=outbox",
                                 kSlot1 + ":  to=<d@z.net> status=outbox",
                                 kSlot1 + ": disconnect from  [127.0.0.1]"}));
    const QByteArray debug = readFile(bench.path("Debug.html"));
    for (const QByteArray& entry :
         {"<FONT COLOR='#0000FF'>Send to Smtp local: " + kGreeting + "\r\n</FONT><BR>",
          QByteArray("Receive from Smtp local[1]: <I> ********** Message Corps du mail **********</I><BR>"),
          QByteArray("Receive from Smtp local[1]: MAIL FROM:&lt;s@w.net&gt;<BR>"),
          QByteArray("<FONT COLOR='#0000FF'><B>Send to Smtp local[1]: 250 Noop Ok.\r\n</B></FONT><BR>"),
          QByteArray("<FONT COLOR='#FF0000'><B>TCP local fermé</B></FONT><BR>"),
          QByteArray("<FONT face='Verdana' size='2'>Release connexion in: 1</FONT><BR>")})
        EXPECT_TRUE(debug.contains(entry)) << entry.constData();
}

TEST(InboundSession, RefusesAClientThatMayNotRelayWithoutAReply)
{
    SmtpBench bench;
    ASSERT_TRUE(bench.start());
    Client client(bench.port, "127.0.0.2");
    EXPECT_TRUE(client.closed());
    EXPECT_TRUE(bench.slotFreed(1));
    EXPECT_EQ(bench.mailLog("smtplocal"), QList<QByteArray>{kSlot1 + " REJECT Host 127.0.0.2 relay: deny"});
}

// A client that vanishes in its text frees its slot at once and leaves nothing of its message.
TEST(InboundSession, AClientThatVanishesFreesItsSlotAtOnce)
{
    SmtpBench bench;
    ASSERT_TRUE(bench.start());
    {
        // Enough of a text for some of it to be on disk already: what was written goes too.
        Client client(bench.port);
        play(client, kEnvelope);
        const QByteArray lines = QByteArray(998, 'h').append("\r\n").repeated(600);
        EXPECT_EQ(client.answer(lines, 200), QByteArray());
        ASSERT_TRUE(spinUntil([&] { return !bench.outBoxWithStaging().isEmpty(); }));
    }
    ASSERT_TRUE(bench.slotFreed(1));
    EXPECT_TRUE(bench.outBoxWithStaging().isEmpty());
    {
        // A QUIT sent just before closing is a normal end, not a lost connection.
        Client client(bench.port);
        play(client, {{"", kGreeting}});
        client.socket.write("QUIT\r\n");
        client.socket.flush();
        client.socket.disconnectFromHost();
    }
    ASSERT_TRUE(bench.slotFreed(1));
    EXPECT_EQ(bench.mailLog("smtplocal"),
              (QList<QByteArray>{kSlot1 + ": connect from  [127.0.0.1]", kSlot1 + ": client= [127.0.0.1]",
                                 kSlot1 + ": lost connection from  [127.0.0.1]",
                                 kSlot1 + ": connect from  [127.0.0.1]", kSlot1 + ": disconnect from  [127.0.0.1]"}));
}

TEST(InboundSession, NinetyNineClientsAtOnceAndTheHundredthIsToldToComeBack)
{
    SmtpBench bench;
    ASSERT_TRUE(bench.start());
    std::list<Client> clients;
    for (int i = 0; i < 99; ++i)
        clients.emplace_back(bench.port);
    EXPECT_EQ(std::count_if(clients.begin(), clients.end(), [](Client& c) { return c.answer() == kGreeting; }), 99);
    Client extra(bench.port);
    EXPECT_EQ(extra.answer(), QByteArray("421 Postiq busy, try again later"));
    EXPECT_TRUE(extra.closed());
    EXPECT_EQ(bench.mailLog("smtplocal").last(), kStamp + " Postiq/smtplocal: 421 busy, reject from  [127.0.0.1]");

    clients.clear(); // all of them vanish
    ASSERT_TRUE(spinUntil([&] { return bench.mailLog("lost connection").size() == 99; }));
    EXPECT_EQ(Client(bench.port).answer(), kGreeting);
    EXPECT_EQ(bench.mailLog("smtplocal").last(), kStamp + " Postiq/smtplocal[99]: connect from  [127.0.0.1]");
}
