// One connection, several messages: RSET between them, pipelined commands where offered, and
// whatever the server does between two messages, each message keeps its own fate.
#include <QCryptographicHash>
#include <QFile>
#include <QRandomGenerator>
#include <QTimer>

#include "delivery/transmission.h"
#include "delivery_bench.h"
#include "real_exchanger.h"
#include "support/fake_exchanger.h"
#include "support/process_memory.h"
#include "support/test_authority.h"

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

// With PIPELINING offered, MAIL, the RCPTs and DATA leave in one write; the replies, taken in
// order, give each recipient the fate it would have had one command at a time. A message whose
// recipients are all refused gets DATA's refusal, which ends its transaction cleanly.
TEST(ConnectionReuse, PipelinedCommandsLeaveInOneWrite)
{
    ReuseBench b;
    ExchangerScript script;
    script.helo = reply(kPipelining);
    script.rcpt = {reply("250 ok"), reply("550 5.1.1 no such user")};
    b.exchanger.setScriptFor(0, script);
    script.rcpt = {reply("550 5.1.1 no such user")};
    b.exchanger.setScriptFor(1, script);
    b.queue("P1", {"<a@dst.test>", "<b@dst.test>"});
    b.dispatcher.VerifOutBox();
    ASSERT_TRUE(spinUntil([&] { return b.idle() && b.files("OutBox").isEmpty(); }, 10000));
    b.queue("P2", {"<c@dst.test>"});
    b.dispatcher.VerifOutBox();
    ASSERT_TRUE(spinUntil([&] { return b.idle() && b.exchanger.openSessions() == 0 && !b.files("OutBox").contains("P2"); },
                          10000));

    const ExchangerSession& first = b.exchanger.session(0);
    EXPECT_TRUE(first.reads.contains("MAIL FROM:<s@src.test>\r\nRCPT TO:<a@dst.test>\r\nRCPT TO:<b@dst.test>\r\nDATA\r\n"))
        << first.reads.join("|").constData();
    EXPECT_EQ(first.bodies, QList<QByteArray>{"Subject: t\r\n\r\nhi\r\n"});
    EXPECT_TRUE(b.mailLog("P1 to=<a@dst.test>").value(0).endsWith("status=sent (250 2.0.0 Queued as FAKE)"));
    EXPECT_EQ(b.mailLog("P1 Error 550 (550 5.1.1 no such user), error for=<b@dst.test>").size(), 1);
    EXPECT_EQ(b.mailLog("P2 Error 550 (550 5.1.1 no such user), error for=<c@dst.test>").size(), 1);
    EXPECT_EQ(b.mailLog("P2 to=").size(), 0);
    // The second message came later, on a new connection (nothing waited when P1 was done); its
    // refused DATA ended the transaction cleanly, with QUIT.
    ASSERT_EQ(b.exchanger.sessionCount(), 2);
    EXPECT_EQ(b.exchanger.session(1).commands.mid(1),
              (QList<QByteArray>{"MAIL FROM:<s@src.test>", "RCPT TO:<c@dst.test>", "DATA", "QUIT"}));
    EXPECT_EQ(b.files("Deferred").size(), 2) << "a bounce each";
}

// A server that says 354 although it accepted no recipient would take whatever comes next as a
// message: the connection is dropped, the recipients keep their refusals, and the next message
// goes over a new connection.
TEST(ConnectionReuse, AGoAheadForNobodyDropsTheConnection)
{
    ReuseBench b;
    ExchangerScript broken;
    broken.helo = reply(kPipelining);
    broken.rcpt = {reply("550 5.1.1 no such user")};
    broken.dataWithoutRecipients = reply("354 go ahead anyway");
    b.exchanger.setScriptFor(0, broken);
    b.deliverAll(2);

    ASSERT_EQ(b.exchanger.sessionCount(), 2);
    const ExchangerSession& dropped = b.exchanger.session(0);
    EXPECT_FALSE(dropped.dataEnded);
    EXPECT_FALSE(dropped.commands.contains("QUIT")) << "QUIT would have been text";
    EXPECT_EQ(dropped.unfinished, QByteArray());
    EXPECT_EQ(b.mailLog(" Error 550 (550 5.1.1 no such user)").size(), 1);
    EXPECT_EQ(b.exchanger.session(1).bodies.size(), 1);
    EXPECT_EQ(b.mailLog("status=sent").size(), 1);
}

// The server hangs up between two messages: the second goes over a new connection, and what
// happens to it there counts as its first attempt, not its second.
TEST(ConnectionReuse, AHangUpBetweenMessagesCostsNoAttempt)
{
    ReuseBench b;
    ExchangerScript hangsUp;
    hangsUp.rset = {closeInstead()};
    ExchangerScript later;
    later.mail = reply("451 4.3.0 try again later");
    b.exchanger.setScriptFor(0, hangsUp);
    b.exchanger.setScriptFor(1, later);
    b.deliverAll(3);

    ASSERT_EQ(b.exchanger.sessionCount(), 3);
    EXPECT_EQ(b.carried(0).size(), 1);
    EXPECT_EQ(b.carried(2).size(), 1);
    const QList<QByteArray> ended = b.mailLog(" ended (");
    ASSERT_EQ(ended.size(), 1);
    const QByteArray id = ended[0].mid(ended[0].indexOf("]: ") + 3, 2);
    EXPECT_TRUE(ended[0].contains("reused connection to 127.0.0.2 [127.0.0.2] ended ("));
    EXPECT_TRUE(ended[0].endsWith("), status=trying a new connection")) << ended[0].constData();
    EXPECT_EQ(b.mailLog(id + " connect to ").size(), 1) << "its own new connection";
    EXPECT_EQ(b.mailLog(id + " connection failed (451 4.3.0 try again later) for 127.0.0.2 [127.0.0.2], "
                             "status=deferred, attempt=1")
                  .size(),
              1);
    EXPECT_EQ(b.read("Deferred/" + QString::fromLatin1(id)).Essai, 1);
    EXPECT_EQ(b.mailLog("status=sent").size(), 2);
}

// RSET answered with anything but 250 ends the reuse in the same way; nothing is lost.
TEST(ConnectionReuse, AResetRefusedEndsTheReuse)
{
    ReuseBench b;
    ExchangerScript closing;
    closing.rset = {replyAndClose("421 4.3.2 service shutting down")};
    b.exchanger.setScriptFor(0, closing);
    b.deliverAll(3);

    ASSERT_EQ(b.exchanger.sessionCount(), 2);
    EXPECT_EQ(b.carried(0).size() + b.carried(1).size(), 3);
    EXPECT_EQ(b.mailLog("status=sent").size(), 3);
    EXPECT_EQ(b.mailLog("ended (421 4.3.2 service shutting down), status=trying a new connection").size(), 1);
    EXPECT_TRUE(b.files("Deferred").isEmpty());
}

// A slow server, within the time allowed for each reply, carries every message.
TEST(ConnectionReuse, ASlowServerStillCarriesThemAll)
{
    ReuseBench b;
    ExchangerScript slow;
    slow.greeting = reply("220 slow.example ESMTP", 600);
    slow.mail = reply("250 2.1.0 ok", 600);
    slow.endOfData = reply("250 2.0.0 at last", 600);
    slow.otherRset = reply("250 2.0.0 reset", 600);
    b.exchanger.setScript(slow);
    b.deliverAll(3, 15000);

    ASSERT_EQ(b.exchanger.sessionCount(), 1);
    EXPECT_EQ(b.carried(0).size(), 3);
    EXPECT_EQ(b.mailLog("status=sent (250 2.0.0 at last)").size(), 3);
}

// The text goes in chunks: wherever the chunk edges fall (in a CR LF, before a leading dot, in a
// run of dots), the wire form is that of the whole text.
TEST(ConnectionReuse, ChunkEdgesChangeNothingOnTheWire)
{
    const QByteArray text = ".a\r\n..b\r\nc\rd\ne\r\r\n.\r\n\r\n.\n.x\r.";
    const QByteArray whole = TransmissionText(text);
    for (qsizetype cut = 0; cut <= text.size(); ++cut) {
        for (qsizetype second = cut; second <= text.size(); ++second) {
            TextTransmitter t;
            QByteArray out = t.encode(text.left(cut));
            out += t.encode(text.mid(cut, second - cut));
            out += t.encode(text.mid(second));
            out += t.finish();
            ASSERT_EQ(out, whole) << "cut at " << cut << " and " << second;
        }
    }
    TextTransmitter byByte;
    QByteArray out;
    for (char c : text)
        out += byByte.encode(QByteArray(1, c));
    EXPECT_EQ(out + byByte.finish(), whole);
}

// The resident memory of this process, in KB.
qint64 residentKb()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toLongLong();
    }
    return 0;
}

// A 24 MB text with a leading dot at every 64 KB edge (some right after a CR LF cut in two, one
// as the last line, without a line end) arrives at aiosmtpd byte for byte, and the relay's
// memory hardly moves while it goes.
TEST(ConnectionReuse, ALargeTextStreamsByteForByte)
{
    if (!RealExchanger::available())
        GTEST_SKIP() << "python3-aiosmtpd is not installed";
    ReuseBench b;
    b.dispatcher.timeouts = {std::chrono::seconds(20), std::chrono::seconds(20)};
    RealExchanger mx(QStringLiteral("127.0.0.3"), 25);
    ASSERT_TRUE(mx.ready());
    b.mx("big.test", {{10, "127.0.0.3"}});
    constexpr qsizetype kBlock = 64 * 1024;
    QByteArray expectedHash;
    qint64 textSize = 0;
    {
        QByteArray text;
        text.reserve(24 * 1024 * 1024 + 64);
        const QByteArray line = QByteArray(998, 'y') + "\r\n";
        for (int k = 0; k < 384; ++k) {
            QByteArray block = (k % 3 == 1 ? "\n" : "") + QByteArray(".edge ") + QByteArray::number(k) + "\r\n..two\r\n";
            while (block.size() + line.size() < kBlock)
                block += line;
            block += QByteArray(kBlock - block.size() - 2, 'z');
            block += k % 3 == 0 ? "\r" : "\r\n"; // a CR LF cut in two before the next block
            text += block;
        }
        text += ".last";
        QByteArray received = text + "\r\n"; // as the server reads it: unstuffed, with a last line end
        expectedHash = QCryptographicHash::hash(received, QCryptographicHash::Sha256);
        textSize = text.size();
        b.queue("BIG", {"<big@big.test>"}, text);
    }
    const qint64 before = residentKb();
    qint64 peak = before;
    QTimer sampler;
    QObject::connect(&sampler, &QTimer::timeout, [&] { peak = std::max(peak, residentKb()); });
    sampler.start(2);
    b.dispatcher.VerifOutBox();
    ASSERT_TRUE(spinUntil([&] { return b.idle() && b.files("OutBox").isEmpty(); }, 60000));
    sampler.stop();

    const QList<SavedMessage> saved = mx.messages();
    ASSERT_EQ(saved.size(), 1);
    EXPECT_EQ(saved[0].options, "SIZE=" + QByteArray::number(textSize));
    EXPECT_EQ(saved[0].content.size(), textSize + 2);
    EXPECT_EQ(QCryptographicHash::hash(saved[0].content, QCryptographicHash::Sha256), expectedHash);
    std::cout << "resident memory while sending " << textSize / 1024 << " KB: +" << (peak - before) << " KB\n";
    if (!kSanitizerBuild) { // freed memory is held back on purpose there
        EXPECT_LT(peak - before, 16 * 1024) << "the text is never held whole";
    }
}

// Ten messages to aiosmtpd come from one client port: one connection.
TEST(ConnectionReuse, AiosmtpdSeesOneConnection)
{
    if (!RealExchanger::available())
        GTEST_SKIP() << "python3-aiosmtpd is not installed";
    ReuseBench b;
    RealExchanger mx(QStringLiteral("127.0.0.4"), 25);
    ASSERT_TRUE(mx.ready());
    b.mx("aio.test", {{10, "127.0.0.4"}});
    for (int i = 0; i < 10; ++i)
        b.queue("A" + QByteArray::number(i), {"<a" + QByteArray::number(i) + "@aio.test>"},
                "Subject: A" + QByteArray::number(i) + "\r\n\r\n.dot\r\n");
    b.dispatcher.VerifOutBox();
    ASSERT_TRUE(spinUntil([&] { return b.idle() && b.files("OutBox").isEmpty(); }, 15000));

    const QList<SavedMessage> saved = mx.messages();
    ASSERT_EQ(saved.size(), 10);
    QSet<QByteArray> ports;
    QSet<QByteArray> recipients;
    for (const SavedMessage& message : saved) {
        ports.insert(message.peer);
        recipients.insert(message.to.value(0));
        EXPECT_TRUE(message.content.endsWith("\r\n\r\n.dot\r\n"));
        EXPECT_EQ(message.to.size(), 1);
    }
    EXPECT_EQ(ports.size(), 1);
    EXPECT_EQ(recipients.size(), 10);
    EXPECT_EQ(b.mailLog("status=sent (250 2.0.0 Saved)").size(), 10);
}

// Over STARTTLS the text streams the same way, and the encrypted connection carries the next
// message too.
TEST(ConnectionReuse, LargeTextsOverOneEncryptedConnection)
{
    if (!RealExchanger::available())
        GTEST_SKIP() << "python3-aiosmtpd is not installed";
    TestAuthority authority;
    ASSERT_TRUE(authority.ok());
    const TestAuthority::Identity identity = authority.issue(QStringLiteral("DNS:mx.tls.test"));
    ReuseBench b;
    b.dispatcher.timeouts = {std::chrono::seconds(20), std::chrono::seconds(20)};
    RealExchanger mx(QStringLiteral("127.0.0.5"), 25, {"--tls", identity.certificate, identity.key});
    ASSERT_TRUE(mx.ready());
    b.mx("tls.test", {{10, "127.0.0.5"}});
    QByteArray text;
    for (int i = 0; i < 3000; ++i)
        text += "." + QByteArray(997, char('a' + i % 26)) + "\r\n";
    b.queue("TLSA", {"<a@tls.test>"}, "Subject: A\r\n\r\n" + text);
    b.queue("TLSB", {"<b@tls.test>"}, "Subject: B\r\n\r\n" + text);
    b.dispatcher.VerifOutBox();
    ASSERT_TRUE(spinUntil([&] { return b.idle() && b.files("OutBox").isEmpty(); }, 30000));

    const QList<SavedMessage> saved = mx.messages();
    ASSERT_EQ(saved.size(), 2);
    EXPECT_EQ(saved[0].peer, saved[1].peer) << "one connection";
    for (const SavedMessage& message : saved) {
        EXPECT_TRUE(message.encrypted);
        EXPECT_TRUE(message.content.endsWith(text)) << message.content.size();
    }
    EXPECT_EQ(b.mailLog(" TLS TLSv1.").size(), 1) << "one handshake";
}

// A queue file cut short while its text is on its way: the connection is cut before the end of
// data, so the server keeps nothing; the file goes to Error, and the relay goes on.
TEST(ConnectionReuse, AFileCutShortDuringTheSendGoesToError)
{
    ReuseBench b;
    ExchangerScript slowGoAhead;
    slowGoAhead.data = reply("354 go ahead", 300);
    b.exchanger.setScriptFor(0, slowGoAhead);
    b.queue("TORN", {"<t@dst.test>"}, QByteArray(400 * 1024, 'x'));
    b.dispatcher.VerifOutBox();
    ASSERT_TRUE(spinUntil([&] { return b.exchanger.sessionCount() == 1 && b.exchanger.session(0).commands.contains("DATA"); },
                          5000));
    QFile torn(b.path(QStringLiteral("OutBox/TORN")));
    ASSERT_TRUE(torn.resize(100 * 1024));
    ASSERT_TRUE(spinUntil([&] { return b.idle() && b.exchanger.openSessions() == 0; }, 5000));

    EXPECT_FALSE(b.exchanger.session(0).dataEnded);
    EXPECT_EQ(b.files("Error"), QStringList{"TORN"});
    EXPECT_TRUE(b.errorLog().contains("=> placed in the error directory")) << b.errorLog().constData();
    b.deliverAll(1);
    EXPECT_EQ(b.carried(1).size(), 1) << "the next message goes as usual";
}

} // namespace

namespace {
// An exchanger that did not answer is not shared: the messages that waited for its connection go
// each over its own at once, rather than each waiting out a time-out in turn. The first answer
// makes it shared again.
TEST(ConnectionReuse, AnExchangerThatDidNotAnswerIsTriedByEveryWaitingMessageAtOnce)
{
    ReuseBench b;
    b.dispatcher.timeouts.silence = std::chrono::milliseconds(800);
    ExchangerScript mute;
    mute.greeting = silent();
    b.exchanger.setScriptFor(0, mute);
    b.deliverAll(4, 15000);

    EXPECT_EQ(b.exchanger.sessionCount(), 4) << "the mute one, then one connection per waiting message";
    EXPECT_EQ(b.mailLog("status=sent").size(), 3);
    EXPECT_EQ(b.files("Deferred").filter("M").size(), 1) << "the one the mute server held, beside its delay notice";
}
} // namespace
