// The real program with a hostile Routes.ini: each fault is a line of the error log, the sound
// route keeps working, at start and after --reload, and nothing crashes.
#include <QDir>
#include <QProcess>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include "platform/owner_only_file.h"
#include "platform/test_trust.h"
#include "real_exchanger.h"
#include "support/fakes.h"
#include "support/mail_client.h"
#include "support/test_authority.h"

using namespace postiq;
using namespace postiq::test;

namespace {

struct Relay {
    QTemporaryDir root;
    QString folder = root.path() + QStringLiteral("/relay");
    quint16 port = freeListenPort();
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    QProcess process;

    explicit Relay(const QString& caFile)
    {
        QDir().mkpath(folder);
        writeFile(folder + QStringLiteral("/Postiq.ini"), "ListenPort\t" + QByteArray::number(port) + "\r\n");
        environment.insert(QStringLiteral("XDG_CONFIG_HOME"), root.path() + QStringLiteral("/config"));
        environment.insert(QString::fromLatin1(kTestCaFileVariable), caFile);
        environment.remove(QStringLiteral("DISPLAY"));
        environment.remove(QStringLiteral("WAYLAND_DISPLAY"));
        process.setProcessEnvironment(environment);
    }
    ~Relay()
    {
        process.terminate();
        if (!process.waitForFinished(10000))
            process.kill();
    }
    QByteArray file(const char* name) const { return readFile(folder + '/' + QLatin1String(name)); }
    bool start()
    {
        process.start(QStringLiteral(POSTIQ_BINARY), {"--headless", "--folder", folder});
        return spinUntil([&] { return file("maillog.txt").contains("Start of SMTP service"); }, 10000);
    }
    int reload()
    {
        QProcess control;
        control.setProcessEnvironment(environment);
        control.start(QStringLiteral(POSTIQ_BINARY), {"--reload", "--folder", folder});
        spinUntil([&] { return control.state() == QProcess::NotRunning; }, 10000);
        return control.exitCode();
    }
    void send(const QByteArray& from, const QByteArray& subject)
    {
        Client client(port);
        play(client, {{"", kGreeting},
                      {"HELO desk\r\n", "250 Hello desk"},
                      {"MAIL FROM:<" + from + ">\r\n", "250 sender is <" + from + "> sender ok"},
                      {"RCPT TO:<x@dst.test>\r\n", "250 recipient is <x@dst.test> recipient ok"},
                      {"DATA\r\n", kGoAhead},
                      {"Subject: " + subject + "\r\n\r\nhi\r\n.\r\n", kAccepted},
                      {"QUIT\r\n", "221 Postiq Goodbye"}});
    }
};

TEST(RoutesEndToEnd, HostileRoutesFileLeavesTheSoundRouteWorking)
{
    if (!RealExchanger::available())
        GTEST_SKIP() << "python3-aiosmtpd is not installed";
    TestAuthority authority;
    ASSERT_TRUE(authority.ok());
    const TestAuthority::Identity identity = authority.issue(QStringLiteral("IP:127.0.0.3"));
    const quint16 providerPort = freeListenPort();
    RealExchanger work(QStringLiteral("127.0.0.3"), providerPort,
                       {QStringLiteral("--tls"), identity.certificate, identity.key, QStringLiteral("--auth"),
                        QStringLiteral("a@work.example"), QStringLiteral("work secret")});
    ASSERT_TRUE(work.ready());

    Relay relay(authority.caFile());
    QByteArray sound = "[work]\nSenders = *@work.example\nServer = smtp://a@work.example@127.0.0.3:"
        + QByteArray::number(providerPort) + "\n";
    const QByteArray hostile = "[broken]\nSenders = *@broken.example\n\n"
                               "[stars]\nSenders = " + QByteArray(10000, '*') + "\nServer = 127.0.0.66:2525\n\n"
                               "[loop1]\nSenders = *@loop.example\nServer = 127.0.0.66:2525\nFallback = loop2\n\n"
                               "[loop2]\nSenders = other@loop.example\nServer = 127.0.0.66:2526\nFallback = loop1\n\n"
                               "[bad name!]\nServer = 127.0.0.66\n"
                               "Senders without equals\n\n";
    writeFile(relay.folder + QStringLiteral("/Routes.ini"), hostile + sound);
    ASSERT_TRUE(WriteOwnerOnlyFile(relay.folder + QStringLiteral("/smtp-password-work"), "work secret\n"));
    ASSERT_TRUE(relay.start()) << relay.process.readAllStandardError().constData();

    const QByteArray errors = relay.file("error.txt");
    EXPECT_TRUE(errors.contains("route 'broken' has no Server")) << errors.constData();
    EXPECT_TRUE(errors.contains("a sender pattern longer than 1024 characters is left out")) << errors.constData();
    EXPECT_TRUE(errors.contains("the fallbacks of route 'loop1' loop back to it")) << errors.constData();
    EXPECT_TRUE(errors.contains("is not a route name")) << errors.constData();
    EXPECT_EQ(errors.count(" Postiq: "), errors.count("\r\n")) << "one line per fault, each with its stamp";

    relay.send("a@work.example", "first");
    relay.send("x@loop.example", "looped");
    ASSERT_TRUE(spinUntil([&] { return work.messages().size() == 1; }, 25000)) << relay.file("maillog.txt").constData();
    EXPECT_EQ(work.messages()[0].login, "a@work.example");

    // The loop costs nothing but the message's wait: its servers are down, it is deferred.
    ASSERT_TRUE(spinUntil([&] { return QDir(relay.folder + QStringLiteral("/Deferred")).entryList(QDir::Files).size() >= 1; },
                          25000))
        << relay.file("maillog.txt").constData();
    EXPECT_TRUE(relay.file("maillog.txt").contains("route=loop1 connection failed"));

    // Read again on --reload: the same faults, and the sound route now takes another sender too.
    const qsizetype lines = relay.file("error.txt").count("\r\n");
    writeFile(relay.folder + QStringLiteral("/Routes.ini"), hostile + sound.replace("*@work.example", "*@work.example, z@other.example"));
    EXPECT_EQ(relay.reload(), 0);
    ASSERT_TRUE(spinUntil([&] { return relay.file("error.txt").count("\r\n") >= 2 * lines; }, 10000));
    relay.send("z@other.example", "second");
    ASSERT_TRUE(spinUntil([&] { return work.messages().size() == 2; }, 25000)) << relay.file("maillog.txt").constData();
    EXPECT_EQ(work.messages()[1].from, "z@other.example");
    EXPECT_EQ(relay.process.state(), QProcess::Running);
}

} // namespace
