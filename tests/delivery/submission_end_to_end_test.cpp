#include <QDir>
#include <QProcess>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include "platform/owner_only_file.h"
#include "platform/test_trust.h"
#include "support/fake_submission_server.h"
#include "support/fakes.h"
#include "support/mail_client.h"

using namespace postiq;
using namespace postiq::test;

namespace {


// The real program, headless, sends a mail program's message through a provider's STARTTLS
// server that requires the login: it arrives byte for byte, and the password is in no log.
TEST(SubmissionEndToEnd, HeadlessRelayLogsInOverStartTls)
{
    TestAuthority authority;
    ASSERT_TRUE(authority.ok());
    FakeSubmissionServer server(authority.issue(QStringLiteral("IP:127.0.0.1")));
    ASSERT_TRUE(server.listen());

    QTemporaryDir root;
    const QString folder = root.path() + QStringLiteral("/relay");
    QDir().mkpath(folder);
    const quint16 port = freeListenPort();
    writeFile(folder + QStringLiteral("/Postiq.ini"),
              "ListenPort\t" + QByteArray::number(port) + "\r\nSmtpServer\tsmtp://me@isp.test@127.0.0.1:"
                  + QByteArray::number(server.serverPort()) + "\r\n");
    ASSERT_TRUE(WriteOwnerOnlyFile(folder + QStringLiteral("/smtp-password"), "open sesame\n"));

    QProcess postiq;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), root.path() + QStringLiteral("/config"));
    environment.insert(QString::fromLatin1(kTestCaFileVariable), authority.caFile());
    environment.remove(QStringLiteral("DISPLAY"));
    environment.remove(QStringLiteral("WAYLAND_DISPLAY"));
    postiq.setProcessEnvironment(environment);
    postiq.start(QStringLiteral(POSTIQ_BINARY), {"--headless", "--folder", folder});
    const QString mailLog = folder + QStringLiteral("/maillog.txt");
    ASSERT_TRUE(spinUntil([&] { return readFile(mailLog).contains("Start of SMTP service"); }, 10000))
        << postiq.readAllStandardError().constData() << readFile(mailLog).constData();

    const QByteArray content = "From: a@x.com\r\nSubject: via provider\r\n\r\n..dot\r\n\x80\xff\r\n";
    Client client(port);
    play(client, {{"", kGreeting},
                  {"HELO desk\r\n", "250 Hello desk"},
                  {"MAIL FROM:<a@x.com>\r\n", "250 sender is <a@x.com> sender ok"},
                  {"RCPT TO:<b@dst.test>\r\n", "250 recipient is <b@dst.test> recipient ok"},
                  {"DATA\r\n", kGoAhead},
                  {content + ".\r\n", kAccepted},
                  {"QUIT\r\n", "221 Postiq Goodbye"}});
    // Delivered at the next tick of the outbox timer at the latest.
    ASSERT_TRUE(spinUntil([&] { return server.sessionCount() == 1 && server.session(0).closed; }, 25000))
        << readFile(mailLog).constData() << readFile(folder + QStringLiteral("/error.txt")).constData();

    const SubmissionSession& s = server.session(0);
    EXPECT_TRUE(s.loggedIn);
    EXPECT_EQ(s.commandsBeforeTls, 2);
    EXPECT_EQ(s.commands.mid(0, 4), (QList<QByteArray>{"EHLO " + s.commands.value(0).mid(5), "STARTTLS",
                                                       "EHLO " + s.commands.value(0).mid(5),
                                                       "AUTH PLAIN " + QByteArray("\0me@isp.test\0open sesame", 24).toBase64()}));
    EXPECT_EQ(WithoutReceived(s.body), Unstuffed(content));
    EXPECT_TRUE(spinUntil([&] { return readFile(mailLog).contains("status=sent (250 2.0.0 Queued as SUB)"); }));
    EXPECT_FALSE(readFile(mailLog).contains("open sesame"));
    EXPECT_FALSE(readFile(mailLog).contains("me@isp.test"));

    postiq.terminate();
    EXPECT_TRUE(postiq.waitForFinished(10000));
}

} // namespace
