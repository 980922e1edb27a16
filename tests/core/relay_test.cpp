#include <QDir>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include "core/postiq_process.h"
#include "support/fakes.h"
#include "support/mail_client.h"

using namespace postiq::test;

TEST(Relay, AMailProgramHandsAMessageToTheRunningRelay)
{
    QTemporaryDir root;
    const QString folder = root.path() + QStringLiteral("/relay");
    const QString mailLog = folder + QStringLiteral("/maillog.txt");
    QDir().mkpath(folder);
    const quint16 port = freeListenPort();
    // Kept local: a stored message would otherwise leave for delivery at once.
    writeFile(folder + QStringLiteral("/Postiq.ini"),
              "ListenPort\t" + QByteArray::number(port) + "\r\nKeepLocal\tOn\r\n");

    PostiqProcess postiq(folder, root.path() + QStringLiteral("/config"));
    ASSERT_TRUE(spinUntil([&] { return readFile(mailLog).contains("Start of SMTP service"); }, 10000))
        << postiq.standardError().constData();

    Client client(port);
    play(client, {{"", kGreeting},
                  {"HELO desk\r\n", "250 Hello desk"},
                  {"MAIL FROM: <Me@Home.example>\r\n", "250 sender is  <me@home.example> sender ok"},
                  {"RCPT TO: <you@there.example>\r\n", "250 recipient is <you@there.example> recipient ok"},
                  {"DATA\r\n", kGoAhead},
                  {"Subject: hi\r\n\r\nbody\r\n.\r\n", kAccepted},
                  {"QUIT\r\n", "221 Postiq Goodbye"}});
    EXPECT_TRUE(client.closed());

    const QStringList queued = QDir(folder + QStringLiteral("/OutBox")).entryList(QDir::Files);
    ASSERT_EQ(queued.size(), 1);
    const QByteArray file = readFile(folder + QStringLiteral("/OutBox/") + queued[0]);
    const QByteArray data = "Subject: hi\r\n\r\nbody\r\n";
    EXPECT_TRUE(file.endsWith(data));
    EXPECT_TRUE(file.contains("Received: from desk ([127.0.0.1])\r\n\tby "));
    EXPECT_TRUE(file.contains("<me@home.example>"));

    const QByteArray log = readFile(mailLog);
    for (const char* line : {" Postiq/smtplocal[1]: connect from  [127.0.0.1]\r\n",
                             " Postiq/smtplocal[1]: client= [127.0.0.1]\r\n",
                             " Postiq/smtplocal[1]:  to=<you@there.example> status=outbox\r\n",
                             " Postiq/smtplocal[1]: disconnect from  [127.0.0.1]\r\n"})
        EXPECT_TRUE(log.contains(line)) << line;

    postiq.terminate();
    EXPECT_EQ(postiq.waitForExit(), 0);
    const QByteArray finalLog = readFile(mailLog);
    EXPECT_TRUE(finalLog.contains(" Postiq SMTP service stopped\r\n"));
    EXPECT_TRUE(finalLog.endsWith(" Postiq Writing DNS cache (0) [OK]\r\n"));
}
