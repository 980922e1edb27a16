// Delivery to real mail servers started by the tests on loop-back addresses, found through the
// test's DNS server (the fake one, or dnsmasq): aiosmtpd (in clear and with STARTTLS), Postfix's
// smtpd and smtp-sink, and a server that writes its replies one byte at a time.
#include <QElapsedTimer>
#include <QProcess>
#include <QSet>
#include <QStandardPaths>
#include <QTcpSocket>
#include <memory>

#include "delivery/transmission.h"
#include "delivery_bench.h"
#include "dns/dnsmasq.h"
#include "real_exchanger.h"
#include "support/fake_exchanger.h"
#include "support/test_authority.h"

using namespace postiq;
using namespace postiq::test;

namespace {

// A text as a mail program writes it: a Received header on top, 8-bit bytes, a line of the
// longest length allowed, CR LF everywhere.
const QByteArray kText = "Received: from box ([127.0.0.1])\r\n\tby relay.test (Postiq) with ESMTP id T1;\r\n"
                         "\tMon, 23 Nov 2026 10:00:00 +0100\r\nFrom: s@src.test\r\nSubject: caf\xc3\xa9\r\n\r\n"
                         "Gr\xc3\xbc\xc3\x9f" "e\r\n"
    + QByteArray(998, 'x') + "\r\nlast line\r\n";

// The text as a receiving server reads it off the wire: the relay's transmission form, its end
// of data taken off and every leading dot removed again.
QByteArray asReceived(const QByteArray& text)
{
    QByteArray wire = TransmissionText(text);
    wire.chop(3); // ".\r\n"
    QByteArray out;
    for (const QByteArray& line : wire.split('\n'))
        out += (line.startsWith('.') ? line.mid(1) : line) + '\n';
    out.chop(1);
    return out;
}

struct RealBench : DeliveryBench {
    RealBench() { settings.ActiveSettings.DebugMode = true; }
    QByteArray debugLog() const { return readFile(path(QStringLiteral("Debug.html"))); }
    // Dispatches until the message has left OutBox and every slot is free.
    bool deliver(const QByteArray& id, const QList<QByteArray>& to, const QByteArray& text = kText,
                 int milliseconds = 10000)
    {
        queue(id, to, text);
        return spinUntil(
            [&] {
                if (!idle())
                    return false;
                if (!files("OutBox").contains(QString::fromLatin1(id)))
                    return true;
                dispatcher.VerifOutBox();
                return false;
            },
            milliseconds);
    }
};

#define SKIP_WITHOUT_AIOSMTPD()                                                                                   \
    if (!RealExchanger::available())                                                                             \
    GTEST_SKIP() << "python3-aiosmtpd is not installed"

TEST(RealExchangers, AiosmtpdReceivesTheTextByteForByte)
{
    SKIP_WITHOUT_AIOSMTPD();
    RealBench b;
    RealExchanger mx(QStringLiteral("127.0.0.2"), 25);
    ASSERT_TRUE(mx.ready());
    b.mx("dst.test", {{10, "127.0.0.2"}});
    ASSERT_TRUE(b.deliver("AIO1", {"<a@dst.test>", "<b@dst.test>"}));

    const QList<SavedMessage> saved = mx.messages();
    ASSERT_EQ(saved.size(), 1);
    EXPECT_EQ(saved[0].from, "s@src.test");
    EXPECT_EQ(saved[0].to, (QList<QByteArray>{"a@dst.test", "b@dst.test"}));
    EXPECT_EQ(saved[0].content, asReceived(kText));
    EXPECT_TRUE(saved[0].content.startsWith("Received: from box"));
    EXPECT_FALSE(saved[0].encrypted);
    EXPECT_EQ(saved[0].options, "SIZE=" + QByteArray::number(kText.size()) + " BODY=8BITMIME");
    EXPECT_EQ(b.mailLog("AIO1 to=").size(), 2);
    EXPECT_TRUE(b.mailLog("AIO1 to=").value(0).endsWith("status=sent (250 2.0.0 Saved)"));
    EXPECT_TRUE(b.mailLog(" TLS ").isEmpty());
    EXPECT_TRUE(b.files("OutBox").isEmpty());
}

// An exchanger that offers STARTTLS gets the message encrypted (its certificate unchecked), and
// the mail log says how.
TEST(RealExchangers, StartTlsWhereOffered)
{
    SKIP_WITHOUT_AIOSMTPD();
    TestAuthority authority;
    ASSERT_TRUE(authority.ok());
    const TestAuthority::Identity identity = authority.issue(QStringLiteral("DNS:mx.tls.test"));
    RealBench b;
    RealExchanger mx(QStringLiteral("127.0.0.3"), 25, {"--tls", identity.certificate, identity.key});
    ASSERT_TRUE(mx.ready());
    b.mx("tls.test", {{10, "127.0.0.3"}});
    ASSERT_TRUE(b.deliver("TLS1", {"<a@tls.test>"}));

    const QList<SavedMessage> saved = mx.messages();
    ASSERT_EQ(saved.size(), 1);
    EXPECT_TRUE(saved[0].encrypted);
    EXPECT_EQ(saved[0].content, asReceived(kText));
    const QList<QByteArray> lines = b.mailLog("TLS1");
    ASSERT_EQ(lines.size(), 3);
    EXPECT_EQ(lines[0], " Postiq/smtpdistant[1]: TLS1 connect to 127.0.0.3 [127.0.0.3]");
    EXPECT_TRUE(lines[1].startsWith(" Postiq/smtpdistant[1]: TLS1 TLS TLSv1.")) << lines[1].constData();
    EXPECT_TRUE(lines[2].contains("status=sent")) << lines[2].constData();
    EXPECT_TRUE(b.debugLog().contains("TLS1 STARTTLS"));
}

// A real DNS server names the exchanger: the MX record and the exchanger's address both come from
// the configured DNSServer, never from the system's resolver, which knows no such name.
TEST(RealExchangers, ExchangerFoundThroughDnsmasq)
{
    SKIP_WITHOUT_AIOSMTPD();
    if (!Dnsmasq::installed())
        GTEST_SKIP() << "dnsmasq is not installed";
    Dnsmasq dns({"--mx-host=example.test,mx1.example.test,10", "--host-record=mx1.example.test,127.0.0.12"});
    ASSERT_TRUE(dns.started()) << dns.log().constData();
    RealExchanger mx(QStringLiteral("127.0.0.12"), 25);
    ASSERT_TRUE(mx.ready());
    RealBench b;
    b.settings.ActiveSettings.DNSServer = dns.server();
    ASSERT_TRUE(b.deliver("NAMED", {"<a@example.test>"}));

    const QList<SavedMessage> saved = mx.messages();
    ASSERT_EQ(saved.size(), 1);
    EXPECT_EQ(saved[0].to, QList<QByteArray>{"a@example.test"});
    EXPECT_EQ(saved[0].content, asReceived(kText));
    EXPECT_EQ(b.mailLog("NAMED connect to"),
              QList<QByteArray>{" Postiq/smtpdistant[1]: NAMED connect to mx1.example.test [127.0.0.12]"});
    EXPECT_TRUE(b.debugLog().contains("DNS: mx1.example.test is 127.0.0.12"));
    EXPECT_TRUE(b.files("OutBox").isEmpty());
}

// An exchanger name that the DNS server does not know is "host not found" (11001), and the
// message waits in Deferred: the system's resolver is not asked behind the server's back.
TEST(RealExchangers, AnUnknownExchangerNameDefers)
{
    if (!Dnsmasq::installed())
        GTEST_SKIP() << "dnsmasq is not installed";
    Dnsmasq dns({"--mx-host=lost.test,localhost,10"});
    ASSERT_TRUE(dns.started()) << dns.log().constData();
    RealBench b;
    b.settings.ActiveSettings.DNSServer = dns.server();
    b.settings.ActiveSettings.KeepLocal = true; // the delay notice stays in OutBox
    b.dispatcher.addressResolver().deadline = std::chrono::seconds(5);
    b.queue("LOST", {"<a@lost.test>"});
    b.dispatcher.SendOutSmtp("LOST");
    ASSERT_TRUE(b.settle(20000));
    EXPECT_EQ(b.files("Deferred"), QStringList{"LOST"});
    EXPECT_TRUE(b.read("Deferred/LOST").LastError.startsWith("11001: ")) << b.read("Deferred/LOST").LastError.constData();
    EXPECT_TRUE(b.mailLog("LOST connect to").isEmpty());
}

// Postfix's own test server takes the text as it is, after the multi-line EHLO reply of a
// Postfix (whose last line is a bare "250 ").
TEST(RealExchangers, PostfixSmtpSink)
{
    const QString sink = QStandardPaths::findExecutable(QStringLiteral("smtp-sink"), {"/usr/sbin", "/usr/bin"});
    if (sink.isEmpty())
        GTEST_SKIP() << "smtp-sink (postfix) is not installed";
    QTemporaryDir dumps;
    QFile::setPermissions(dumps.path(), QFile::Permissions(0x7777));
    QProcess process;
    process.start(sink, {"-u", "nobody", "-d", dumps.path() + "/%M.", "127.0.0.4:25", "10"});
    ASSERT_TRUE(process.waitForStarted(5000));
    RealBench b;
    b.mx("sink.test", {{10, "127.0.0.4"}});
    QTcpSocket probe; // smtp-sink listens once it has started
    ASSERT_TRUE(spinUntil([&] {
        if (probe.state() == QAbstractSocket::ConnectedState)
            return true;
        if (probe.state() == QAbstractSocket::UnconnectedState)
            probe.connectToHost(QStringLiteral("127.0.0.4"), 25);
        return false;
    }));
    probe.abort();
    ASSERT_TRUE(b.deliver("SINK", {"<a@sink.test>"}));
    QByteArray dump;
    ASSERT_TRUE(spinUntil([&] {
        const QStringList names = QDir(dumps.path()).entryList(QDir::Files);
        for (const QString& name : names)
            dump += readFile(dumps.path() + '/' + name);
        return !dump.isEmpty();
    }));
    process.kill();
    process.waitForFinished(2000);
    // The dump has bare line ends and smtp-sink's own header lines on top.
    EXPECT_TRUE(dump.contains("X-Mail-Args: <s@src.test>"));
    EXPECT_TRUE(dump.contains(QByteArray(asReceived(kText)).replace("\r\n", "\n"))) << dump.left(600).constData();
    EXPECT_TRUE(b.mailLog("SINK to=").value(0).contains("status=sent (250 2.0.0 Ok"));
}

// A greylisting exchanger (450 to RCPT, the connection kept open) defers the message within
// seconds, with the reply in the mail log.
TEST(RealExchangers, GreylistingDefersAtOnce)
{
    SKIP_WITHOUT_AIOSMTPD();
    RealBench b;
    RealExchanger mx(QStringLiteral("127.0.0.5"), 25, {"--greylist"});
    ASSERT_TRUE(mx.ready());
    b.mx("grey.test", {{10, "127.0.0.5"}});
    b.settings.ActiveSettings.KeepLocal = true; // the delay notice stays in OutBox
    b.queue("GREY", {"<a@grey.test>"});
    QElapsedTimer clock;
    clock.start();
    b.dispatcher.SendOutSmtp("GREY");
    ASSERT_TRUE(b.settle(5000));
    EXPECT_LT(clock.elapsed(), 5000);
    EXPECT_EQ(b.files("Deferred"), QStringList{"GREY"});
    EXPECT_TRUE(b.mailLog("GREY to=<a@grey.test>").value(0).endsWith(
        "status=deferred (450 4.2.0 Greylisted, try again later), attempt=1"));
    EXPECT_EQ(b.files("OutBox").size(), 1) << "one delay notice";
    EXPECT_TRUE(mx.messages().isEmpty());
}

// One good and one unknown recipient: the good one gets the message, the sender one bounce that
// names the other only, from the null sender.
TEST(RealExchangers, AnUnknownRecipientIsBouncedAlone)
{
    SKIP_WITHOUT_AIOSMTPD();
    RealBench b;
    RealExchanger mx(QStringLiteral("127.0.0.6"), 25, {"--unknown", "bad@mixed.test"});
    ASSERT_TRUE(mx.ready());
    b.mx("mixed.test", {{10, "127.0.0.6"}});
    b.mx("src.test", {{10, "127.0.0.6"}}); // the sender's mail comes back here
    ASSERT_TRUE(b.deliver("MIX", {"<good@mixed.test>", "<bad@mixed.test>"}));
    ASSERT_TRUE(spinUntil([&] {
        b.dispatcher.VerifOutBox();
        return b.idle() && b.files("OutBox").isEmpty() && mx.messages().size() >= 2;
    }));

    const QList<SavedMessage> saved = mx.messages();
    ASSERT_EQ(saved.size(), 2);
    EXPECT_EQ(saved[0].to, QList<QByteArray>{"good@mixed.test"});
    EXPECT_EQ(saved[0].content, asReceived(kText));
    EXPECT_EQ(saved[1].from, "<>") << "a bounce goes out from the null sender";
    EXPECT_EQ(saved[1].to, QList<QByteArray>{"s@src.test"});
    EXPECT_TRUE(saved[1].content.contains("bad@mixed.test"));
    EXPECT_TRUE(saved[1].content.contains("550 5.1.1 User unknown"));
    EXPECT_FALSE(saved[1].content.contains("Final-Recipient: rfc822; <good@mixed.test>"));
    EXPECT_FALSE(saved[1].content.contains("Final-Recipient: rfc822; good@mixed.test"));
    EXPECT_TRUE(b.files("Deferred").isEmpty());
    EXPECT_TRUE(b.files("Error").isEmpty());
    EXPECT_EQ(b.mailLog("MIX Error 550").size(), 1);
}

// A private Postfix instance (smtpd, then its own virtual delivery into maildirs) for as long as
// the object lives; `skipReason` says why it could not start here.
class PostfixExchanger {
public:
    PostfixExchanger(const QString& address, const QString& domains, const QStringList& mailboxes)
    {
        // Postfix's own processes run as its user, and must reach their folders.
        QFile::setPermissions(dir_.path(), QFile::permissions(dir_.path()) | QFile::ExeOther | QFile::ReadOther);
        QProcess start;
        start.setProcessChannelMode(QProcess::MergedChannels);
        start.start(QStringLiteral("sh"), {script(), "start", dir_.path(), address, domains, mailboxes.join('\n')});
        if (!start.waitForFinished(20000)) {
            start.kill();
            start.waitForFinished(1000);
            skipReason = "postfix did not start within 20 s";
            return;
        }
        if (start.exitCode() == 77)
            skipReason = "Postfix cannot run here: " + start.readAll();
        else if (start.exitCode() != 0)
            failure = start.readAll();
        running_ = start.exitCode() == 0;
    }
    ~PostfixExchanger()
    {
        if (running_)
            QProcess::execute(QStringLiteral("sh"), {script(), "stop", dir_.path()});
    }
    bool running() const { return running_; }
    // The messages delivered into a maildir folder of `mailboxes`, as Postfix wrote them.
    QList<QByteArray> delivered(const QString& folder) const
    {
        QList<QByteArray> texts;
        const QString path = dir_.path() + "/mail/" + folder + "/new";
        for (const QString& name : QDir(path).entryList(QDir::Files, QDir::Name))
            texts << readFile(path + '/' + name);
        return texts;
    }
    QByteArray log() const { return readFile(dir_.path() + "/maillog"); }

    QByteArray skipReason;
    QByteArray failure;

private:
    static QString script() { return QStringLiteral(POSTIQ_DELIVERY_TESTS "/postfix_exchanger.sh"); }
    QTemporaryDir dir_;
    bool running_ = false;
};

// Postfix as the exchanger, with one known and one unknown recipient: the known one gets the
// text byte for byte, and the sender (whose mail Postfix also takes) one bounce about the other.
TEST(RealExchangers, PostfixRefusesOneRecipientOfTwo)
{
    PostfixExchanger mx(QStringLiteral("127.0.0.13"), QStringLiteral("mixed.test src.test"),
                        {"good@mixed.test good/", "s@src.test sender/"});
    if (!mx.skipReason.isEmpty())
        GTEST_SKIP() << mx.skipReason.constData();
    ASSERT_TRUE(mx.running()) << mx.failure.constData();
    RealBench b;
    b.mx("mixed.test", {{10, "127.0.0.13"}});
    b.mx("src.test", {{10, "127.0.0.13"}});
    ASSERT_TRUE(b.deliver("PFX", {"<good@mixed.test>", "<bad@mixed.test>"}));
    ASSERT_TRUE(spinUntil(
        [&] {
            b.dispatcher.VerifOutBox();
            return b.idle() && b.files("OutBox").isEmpty() && mx.delivered("good").size() == 1
                && mx.delivered("sender").size() == 1;
        },
        20000))
        << mx.log().constData();

    const QByteArray good = mx.delivered("good").value(0);
    EXPECT_TRUE(good.startsWith("Return-Path: <s@src.test>\n")) << good.left(300).constData();
    EXPECT_TRUE(good.endsWith(QByteArray(asReceived(kText)).replace("\r\n", "\n")))
        << "the text under Postfix's own header lines:\n" << good.constData();
    const QByteArray bounce = mx.delivered("sender").value(0);
    EXPECT_TRUE(bounce.startsWith("Return-Path: <>\n")) << bounce.left(300).constData();
    EXPECT_TRUE(bounce.contains("Final-Recipient: rfc822; bad@mixed.test\n"));
    EXPECT_TRUE(bounce.contains("Remote-MTA: dns; 127.0.0.13\n"));
    EXPECT_TRUE(bounce.contains("Status: 5.1.1\n"));
    EXPECT_TRUE(bounce.contains("User unknown in virtual mailbox table"));
    EXPECT_FALSE(bounce.contains("Final-Recipient: rfc822; good@mixed.test"));
    EXPECT_EQ(b.mailLog("PFX to=<good@mixed.test>").size(), 1);
    EXPECT_TRUE(b.mailLog("PFX to=<good@mixed.test>").value(0).contains("status=sent (250 2.0.0 Ok"));
    EXPECT_EQ(b.mailLog("PFX Error 550").size(), 1);
    // Postfix offers PIPELINING: MAIL, both RCPTs and DATA went before the reply to MAIL came.
    const QByteArray debug = b.debugLog();
    const qsizetype dataSent = debug.indexOf("]: PFX DATA\r\n</FONT>");
    const qsizetype mailReply = debug.indexOf("]: PFX 250 2.1.0 Ok");
    ASSERT_GE(dataSent, 0);
    ASSERT_GE(mailReply, 0);
    EXPECT_LT(dataSent, mailReply);
    EXPECT_TRUE(b.files("Deferred").isEmpty());
    EXPECT_TRUE(b.files("Error").isEmpty());
}

// A 554 greeting refuses the message for good: the bounce is queued at once, without retry.
TEST(RealExchangers, A554GreetingBouncesAtOnce)
{
    RealBench b;
    ExchangerScript denied;
    denied.greeting = reply("554 5.7.1 relay denied");
    FakeExchanger mx(denied);
    ASSERT_TRUE(mx.listen(QHostAddress(QStringLiteral("127.0.0.7")), 25));
    b.mx("deny.test", {{10, "127.0.0.7"}});
    b.settings.ActiveSettings.KeepLocal = true; // the bounce stays in OutBox
    b.queue("DENY", {"<a@deny.test>"});
    b.dispatcher.SendOutSmtp("DENY");
    ASSERT_TRUE(b.settle(5000));
    EXPECT_EQ(b.mailLog("DENY Error"), QList<QByteArray>{" Postiq/smtpdistant[1]: DENY Error 554 (554 5.7.1 relay denied), "
                                                         "error for=<a@deny.test> status=error, return error to=<s@src.test>"});
    const QStringList outBox = b.files("OutBox");
    ASSERT_EQ(outBox.size(), 1);
    EXPECT_NE(outBox[0], "DENY");
    EXPECT_TRUE(b.read("OutBox/" + outBox[0]).Data.contains("Status: 5.7.1"));
    EXPECT_TRUE(b.files("Deferred").isEmpty());
    EXPECT_EQ(mx.session(0).commands, QList<QByteArray>{"QUIT"});
}

// A server that writes every reply one byte at a time, with multi-line replies, is read whole.
TEST(RealExchangers, RepliesSplitByteByByte)
{
    SKIP_WITHOUT_AIOSMTPD();
    RealBench b;
    RealExchanger mx(QStringLiteral("127.0.0.8"), 25, {"--trickle"});
    ASSERT_TRUE(mx.ready());
    b.mx("slow.test", {{10, "127.0.0.8"}});
    ASSERT_TRUE(b.deliver("DRIP", {"<a@slow.test>"}));
    ASSERT_EQ(mx.messages().size(), 1);
    EXPECT_EQ(mx.messages()[0].content, asReceived(kText));
    EXPECT_TRUE(readFile(b.path(QStringLiteral("maillog.txt"))).contains("status=sent (250-queued\r\n250 2.0.0 as TRICKLE)"));
    EXPECT_TRUE(b.mailLog("unexpected").isEmpty());
}

// A notice that cannot be delivered either, with one attempt allowed: after the run the folders
// hold nothing but the notice, in Error; it never breeds another.
TEST(RealExchangers, ANoticeNeverBreedsAnother)
{
    RealBench b;
    b.settings.ActiveSettings.MaxNbrAttempt = 1;
    b.settings.ActiveSettings.AttemptDelay = 0; // due again at once
    b.mx("dst.test", {{10, kDeadHost}});
    b.mx("src.test", {{10, kDeadHost}});
    b.queue("ONCE", {"<a@dst.test>", "<b@dst.test>"});
    b.dispatcher.VerifOutBox();
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 6000) {
        spinUntil([] { return false; }, 300);
        b.dispatcher.VerifDeferred();
        b.dispatcher.VerifOutBox();
    }
    ASSERT_TRUE(b.settle());
    QList<CMessage> all;
    int files = 0;
    for (const char* folder : {"OutBox", "Deferred", "Error"}) {
        for (const QString& name : b.files(folder)) {
            all << b.read(QString::fromLatin1(folder) + '/' + name);
            ++files;
        }
    }
    EXPECT_TRUE(b.files("OutBox").isEmpty());
    EXPECT_TRUE(b.files("Deferred").isEmpty());
    // One delay notice (first deferral) and one bounce (attempts spent), both in Error now.
    EXPECT_EQ(files, 2);
    for (const CMessage& m : all) {
        EXPECT_TRUE(m.ForSender);
        EXPECT_EQ(m.RcptTo(1), "<s@src.test>") << "never a notice to <>";
    }
    EXPECT_EQ(b.mailLog("deny loop").size(), 2);
}

// Many real exchangers at once: every message arrives exactly once.
TEST(RealExchangers, ManyMessagesToSeveralExchangers)
{
    SKIP_WITHOUT_AIOSMTPD();
    RealBench b;
    std::vector<std::unique_ptr<RealExchanger>> exchangers;
    for (int k = 0; k < 3; ++k) {
        const QString address = QStringLiteral("127.0.2.%1").arg(10 + k);
        exchangers.push_back(std::make_unique<RealExchanger>(address, 25));
        ASSERT_TRUE(exchangers.back()->ready());
        b.mx("load" + QByteArray::number(k) + ".test", {{10, address.toLatin1()}});
    }
    constexpr int kMessages = 60;
    for (int i = 0; i < kMessages; ++i)
        b.queue("L" + QByteArray::number(i), {"<r" + QByteArray::number(i) + "@load" + QByteArray::number(i % 3) + ".test>"},
                "Subject: L" + QByteArray::number(i) + "\r\n\r\nx\r\n");
    ASSERT_TRUE(spinUntil(
        [&] {
            b.dispatcher.VerifOutBox();
            return b.idle() && b.files("OutBox").isEmpty();
        },
        60000));
    QSet<QByteArray> subjects;
    int count = 0;
    for (const auto& exchanger : exchangers) {
        for (const SavedMessage& m : exchanger->messages()) {
            subjects.insert(m.content.split('\r').value(0));
            ++count;
        }
    }
    EXPECT_EQ(count, kMessages);
    EXPECT_EQ(subjects.size(), kMessages);
    EXPECT_TRUE(b.files("Deferred").isEmpty());
}

} // namespace
