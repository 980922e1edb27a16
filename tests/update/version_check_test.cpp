#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <gtest/gtest.h>

#include "support/mail_client.h"
#include "update/version_check.h"

using namespace postiq;
using namespace postiq::test;

namespace {

// A local web server that answers the first request with the given pieces, the second piece a
// moment after the first, so that the client reads them apart. An empty reply says nothing.
struct VersionServer {
    QTcpServer server;
    QByteArray request;
    QList<QPointer<QTcpSocket>> clients;

    explicit VersionServer(QByteArrayList pieces)
    {
        server.listen(QHostAddress::LocalHost);
        QObject::connect(&server, &QTcpServer::newConnection, [this, pieces] {
            QTcpSocket* client = server.nextPendingConnection();
            clients << client;
            QObject::connect(client, &QTcpSocket::readyRead, [this, client, pieces] {
                request += client->readAll();
                if (!request.endsWith("\r\n\r\n") || pieces.isEmpty())
                    return;
                client->write(pieces.first());
                client->flush();
                if (pieces.size() > 1) {
                    QByteArray rest = pieces.mid(1).join();
                    QTimer::singleShot(300, client, [client, rest] { client->write(rest); });
                }
            });
        });
    }
    UpdateServer address() const { return {QStringLiteral("127.0.0.1"), server.serverPort()}; }
};

QByteArray reply(const QByteArray& body)
{
    return "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " + QByteArray::number(body.size())
        + "\r\n\r\n" + body;
}

// Runs a check against the server; returns the versions announced within the wait.
QStringList announced(const UpdateServer& where, int major, int minor, int waitMs = 1500)
{
    VersionCheck check(where, major, minor);
    QStringList versions;
    QObject::connect(&check, &VersionCheck::newerVersion, [&](const QString& v) { versions << v; });
    check.start();
    spinUntil([&] { return !versions.isEmpty(); }, waitMs);
    return versions;
}

} // namespace

TEST(VersionCheck, SendsTheRequestAndAnnouncesOnlyANewerVersion)
{
    VersionServer newer({reply("BEGIN3.1END")});
    EXPECT_EQ(announced(newer.address(), 3, 0), QStringList{"3.1"});
    EXPECT_EQ(newer.request, QByteArray("GET /Postiq/version HTTP/1.1\r\n"
                                        "Accept: image/gif, image/jpeg, */*\r\n"
                                        "Accept-Language: fr\r\n"
                                        "Accept-Encoding: gzip , deflate\r\n"
                                        "User-Agent: Postiq/3.0 (Postiq Application from Valbrin)\r\n"
                                        "Host: 127.0.0.1\r\n"
                                        "Connection: Keep-Alive\r\n"
                                        "\r\n"));

    VersionServer same({reply("BEGIN3.0END")});
    EXPECT_TRUE(announced(same.address(), 3, 0, 700).isEmpty());
    VersionServer older({reply("BEGIN2.9END")});
    EXPECT_TRUE(announced(older.address(), 3, 0, 700).isEmpty());
    VersionServer nextMajor({reply("BEGIN4.0END")});
    EXPECT_EQ(announced(nextMajor.address(), 3, 5), QStringList{"4.0"}); // the major wins
}

TEST(VersionCheck, FailuresAreSilent)
{
    // Only the first piece counts: "BEGIN" in the second is never seen.
    VersionServer split({"HTTP/1.1 200 OK\r\n\r\n", "BEGIN3.1END"});
    EXPECT_TRUE(announced(split.address(), 3, 0, 1000).isEmpty());
    VersionServer mute({});
    EXPECT_TRUE(announced(mute.address(), 3, 0, 700).isEmpty());
    EXPECT_FALSE(mute.request.isEmpty());
    VersionServer garbled({reply("BEGINthree.oneEND")});
    EXPECT_TRUE(announced(garbled.address(), 3, 0, 700).isEmpty());

    QTcpServer closed;
    closed.listen(QHostAddress::LocalHost);
    const quint16 port = closed.serverPort();
    closed.close();
    EXPECT_TRUE(announced({QStringLiteral("127.0.0.1"), port}, 3, 0, 700).isEmpty());
}

TEST(VersionCheck, ReplyParsingAndTheNewerRule)
{
    EXPECT_EQ(versionInReply("x BEGIN 3.1 END BEGIN9.9END"), QString(" 3.1 ")); // used as it is
    EXPECT_EQ(versionInReply("no marker"), std::nullopt);
    EXPECT_EQ(versionInReply("BEGIN3.1"), std::nullopt);
    EXPECT_TRUE(isNewerVersion("3.10", 3, 9));
    EXPECT_FALSE(isNewerVersion("31", 3, 0));     // no "."
    EXPECT_FALSE(isNewerVersion("3.x", 2, 0));    // not a number
    EXPECT_FALSE(isNewerVersion("40000.0", 3, 0)); // not a 16-bit number
    EXPECT_TRUE(isNewerVersion(" 3.1 ", 3, 0));

    EXPECT_EQ(parseUpdateServer("127.0.0.1:8080")->port, 8080);
    EXPECT_EQ(parseUpdateServer("example.org")->port, 80);
    EXPECT_EQ(parseUpdateServer("host:0"), std::nullopt);
    EXPECT_EQ(parseUpdateServer(""), std::nullopt);
}
