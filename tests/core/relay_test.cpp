#include <QDir>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include "core/postiq_process.h"
#include "support/fakes.h"

using namespace postiq::test;

namespace {

// A mail program's side of the conversation, one command and one reply at a time.
class MailClient {
public:
    bool connectTo(quint16 port)
    {
        socket_.connectToHost(QHostAddress::LocalHost, port);
        return waitFor([&] { return socket_.state() == QAbstractSocket::ConnectedState; }, 5000);
    }
    QByteArray reply()
    {
        waitFor([&] {
            buffer_ += socket_.readAll();
            return buffer_.contains("\r\n");
        }, 5000);
        const qsizetype end = buffer_.indexOf("\r\n");
        if (end < 0)
            return {};
        const QByteArray line = buffer_.left(end);
        buffer_.remove(0, end + 2);
        return line;
    }
    QByteArray send(const QByteArray& text)
    {
        socket_.write(text);
        socket_.flush();
        return reply();
    }
    bool closedByServer()
    {
        return waitFor([&] { return socket_.state() == QAbstractSocket::UnconnectedState; }, 5000);
    }

private:
    QTcpSocket socket_;
    QByteArray buffer_;
};

} // namespace

TEST(Relay, AMailProgramHandsAMessageToTheRunningRelay)
{
    QTemporaryDir root;
    const QString folder = root.path() + QStringLiteral("/relay");
    QDir().mkpath(folder);
    const quint16 port = freeLoopbackPort();
    writeFile(folder + QStringLiteral("/Postiq.ini"), "ListenPort\t" + QByteArray::number(port) + "\r\n");

    PostiqProcess postiq(folder, root.path() + QStringLiteral("/config"));
    postiq.start();
    ASSERT_TRUE(waitFor([&] { return readFile(folder + QStringLiteral("/maillog.txt")).contains("Start of SMTP service"); }))
        << postiq.standardError().constData();

    MailClient client;
    ASSERT_TRUE(client.connectTo(port));
    EXPECT_EQ(client.reply(), QByteArray("220 Server Postiq 3.0 on 127.0.0.1 Ready (www.postiq.example)"));
    EXPECT_EQ(client.send("HELO desk\r\n"), QByteArray("250 Hello desk"));
    EXPECT_EQ(client.send("MAIL FROM: <Me@Home.example>\r\n"), QByteArray("250 sender is  <me@home.example> sender ok"));
    EXPECT_EQ(client.send("RCPT TO: <you@there.example>\r\n"), QByteArray("250 recipient is <you@there.example> recipient ok"));
    EXPECT_EQ(client.send("DATA\r\n"), QByteArray("354 OK End with <CRLF>.<CRLF>"));
    EXPECT_EQ(client.send("Subject: hi\r\n\r\nbody\r\n.\r\n"), QByteArray("250 Message accepted for delivery"));
    EXPECT_EQ(client.send("QUIT\r\n"), QByteArray("221 Postiq Goodbye"));
    EXPECT_TRUE(client.closedByServer());

    const QStringList queued = QDir(folder + QStringLiteral("/OutBox")).entryList(QDir::Files);
    ASSERT_EQ(queued.size(), 1);
    const QByteArray file = readFile(folder + QStringLiteral("/OutBox/") + queued[0]);
    const QByteArray data = "Subject: hi\r\n\r\nbody\r\n";
    EXPECT_TRUE(file.endsWith(QByteArray(1, char(data.size())) + '\0' + data));
    EXPECT_TRUE(file.contains("<me@home.example>"));

    const QByteArray log = readFile(folder + QStringLiteral("/maillog.txt"));
    EXPECT_TRUE(log.contains(" Postiq/smtplocal[1]: connect from  [127.0.0.1]\r\n")) << log.constData();
    EXPECT_TRUE(log.contains(" Postiq/smtplocal[1]: client= [127.0.0.1]\r\n"));
    EXPECT_TRUE(log.contains(" Postiq/smtplocal[1]:  to=<you@there.example> status=outbox\r\n"));
    EXPECT_TRUE(log.contains(" Postiq/smtplocal[1]: disconnect from  [127.0.0.1]\r\n"));

    postiq.terminate();
    EXPECT_EQ(postiq.waitForExit(), 0);
    EXPECT_TRUE(readFile(folder + QStringLiteral("/maillog.txt")).endsWith(" Postiq Writing DNS cache (0) [OK]\r\n"));
}
