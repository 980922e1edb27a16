#include "smtp_bench.h"

using namespace postiq;
using namespace postiq::test;

TEST(SmtpService, StartStopStartWhileAClientInProgressFinishes)
{
    SmtpBench bench;
    ASSERT_TRUE(bench.start());
    Client client(bench.port);
    play(client, {{"", kGreeting}, {"HELO box\r\n", "250 Hello box"}});
    bench.service.Arreter();
    EXPECT_TRUE(Client(bench.port).closed()); // newcomers are refused by the system
    play(client, {{"MAIL FROM:<a@x.com>\r\n", "250 sender is <a@x.com> sender ok"},
                  {"RCPT TO:<b@y.org>\r\n", "250 recipient is <b@y.org> recipient ok"},
                  {"DATA\r\n", kGoAhead},
                  {"Hi\r\n.\r\n", kAccepted},
                  {"QUIT\r\n", "221 Postiq Goodbye"}});
    EXPECT_EQ(bench.outBox().size(), 1);

    bench.service.Demarrer();
    EXPECT_TRUE(bench.service.isListening());
    EXPECT_EQ(bench.mailLog("SMTP service"),
              (QList<QByteArray>{kStamp + " Postiq Start of SMTP service", kStamp + " Postiq SMTP service stopped",
                                 kStamp + " Postiq Start of SMTP service"}));
    // The MX cache is read with each start and written with the stop.
    EXPECT_EQ(bench.mailLog(" Postiq Loading DNS cache").size(), 2);
    EXPECT_EQ(bench.mailLog(" Postiq Writing DNS cache").size(), 1);
    EXPECT_EQ(bench.views.states, (QList<bool>{true, false, true}));
}

TEST(SmtpService, ABusyPortIsReportedAndChangesNothing)
{
    SmtpBench bench;
    QTcpServer other;
    ASSERT_TRUE(other.listen(QHostAddress::AnyIPv4));
    bench.settings.ActiveSettings.ListenPort = static_cast<int16_t>(other.serverPort());
    bench.service.Demarrer();
    EXPECT_FALSE(bench.service.isListening());
    EXPECT_EQ(readFile(bench.path("error.txt")), kStamp + " Port " + QByteArray::number(other.serverPort())
                                                     + " utilisé par une autre application\r\n");
    EXPECT_TRUE(bench.mailLog().isEmpty());
    EXPECT_TRUE(bench.views.states.isEmpty());
    EXPECT_TRUE(bench.desktop.boxes.isEmpty());
}
