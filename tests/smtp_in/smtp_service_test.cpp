#include <QFile>
#include <QTcpServer>
#include <gtest/gtest.h>

#include "line_client.h"
#include "smtp_bench.h"

using namespace postiq;
using namespace postiq::test;

TEST(SmtpService, StartStopStartIsLoggedAndShownInOrder)
{
    SmtpBench bench;
    ASSERT_TRUE(bench.start());
    bench.service.Arreter();
    EXPECT_FALSE(bench.service.isListening());
    EXPECT_TRUE(QFile::exists(bench.path("Hosts.dns"))); // the MX cache is saved with the stop
    bench.service.Demarrer();
    EXPECT_TRUE(bench.service.isListening());
    EXPECT_EQ(bench.mailLogLines("SMTP service"),
              (QList<QByteArray>{kStamp + " Postiq Start of SMTP service",
                                 kStamp + " Postiq SMTP service stopped",
                                 kStamp + " Postiq Start of SMTP service"}));
    // The MX cache is read with each start and written with the stop.
    EXPECT_EQ(bench.mailLogLines(" Postiq Loading DNS cache").size(), 2);
    EXPECT_EQ(bench.mailLogLines(" Postiq Writing DNS cache").size(), 1);
    EXPECT_EQ(bench.serviceView.states, (QList<bool>{true, false, true}));
    EXPECT_TRUE(bench.desktop.boxes.isEmpty());
}

TEST(SmtpService, ABusyPortIsReportedAndChangesNothing)
{
    SmtpBench bench;
    bench.port = freeListenPort();
    QTcpServer other;
    ASSERT_TRUE(other.listen(QHostAddress::AnyIPv4, bench.port));
    bench.settings.ActiveSettings.ListenPort = static_cast<int16_t>(bench.port);

    bench.service.Demarrer();
    EXPECT_FALSE(bench.service.isListening());
    EXPECT_EQ(readFile(bench.path("error.txt")),
              kStamp + " Port " + QByteArray::number(bench.port) + " utilisé par une autre application\r\n");
    EXPECT_TRUE(bench.mailLogLines().isEmpty());
    EXPECT_TRUE(bench.serviceView.states.isEmpty());
    EXPECT_TRUE(bench.desktop.boxes.isEmpty());
}

TEST(SmtpService, AStopLetsTheClientsInProgressFinishButTakesNoNewOnes)
{
    SmtpBench bench;
    ASSERT_TRUE(bench.start());
    LineClient client;
    QList<QByteArray> replies;
    runClient([&] {
        if (client.connectTo(bench.port))
            replies << client.readLine() << client.command("HELO box\r\n");
    });
    bench.service.Arreter();
    bool newcomerConnected = true;
    runClient([&] {
        LineClient newcomer;
        newcomerConnected = newcomer.connectTo(bench.port);
        for (const QByteArray& command :
             {QByteArray("MAIL FROM:<a@x.com>\r\n"), QByteArray("RCPT TO:<b@y.org>\r\n"),
              QByteArray("DATA\r\n"), QByteArray("Hi\r\n.\r\n"), QByteArray("QUIT\r\n")})
            replies << client.command(command);
    });
    EXPECT_FALSE(newcomerConnected);
    ASSERT_EQ(replies.size(), 7);
    EXPECT_EQ(replies[5], QByteArray("250 Message accepted for delivery"));
    EXPECT_EQ(replies[6], QByteArray("221 Postiq Goodbye"));
    EXPECT_EQ(bench.outBoxFiles().size(), 1);
}
