#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>
#include <QTemporaryDir>
#include <QUuid>
#include <gtest/gtest.h>
#include <memory>

#include "core/control_channel.h"
#include "support/mail_client.h"

using namespace postiq;
using namespace postiq::test;
using namespace std::chrono_literals;

namespace {

QString uniqueServerName() { return QStringLiteral("postiq-test-") + QUuid::createUuid().toString(QUuid::Id128); }

// What a relay that was killed leaves behind: a socket file that nobody listens on.
void leaveStaleSocket(const QString& name)
{
    const QString path = QDir::tempPath() + '/' + name;
    {
        QLocalServer killed;
        ASSERT_TRUE(killed.listen(name));
        QFile::rename(path, path + ".kept"); // so that closing the server cannot remove it
    }
    QFile::rename(path + ".kept", path);
}

struct RawClient {
    QLocalSocket socket;
    explicit RawClient(const QString& name) { socket.connectToServer(name); }
    QByteArray answer(const QByteArray& bytes)
    {
        socket.write(bytes);
        if (!spinUntil([this] { return socket.canReadLine(); }))
            return "(no answer)";
        return socket.readLine().chopped(1);
    }
    bool closedByServer() { return spinUntil([this] { return socket.state() == QLocalSocket::UnconnectedState; }); }
};

// A channel, listening over a name left behind by a killed relay, whose commands record that they
// ran: "start", "stop", "reload", "quit" are done, "flush" has nothing to do, "delete X" is refused.
struct ChannelBench : ::testing::Test {
    QStringList ran;
    QString name = uniqueServerName();
    ControlChannel channel{name, [this](const QByteArray& verb, const QByteArray& argument) {
                               if (verb == "delete" && !argument.isEmpty()) {
                                   ran << QString::fromLatin1(verb + ' ' + argument);
                                   return ControlAnswer::refused(argument + " is being delivered");
                               }
                               if (!argument.isEmpty() || !QByteArrayList{"start", "stop", "reload", "flush", "quit"}.contains(verb))
                                   return ControlAnswer::unknown();
                               ran << QString::fromLatin1(verb);
                               return verb == "flush" ? ControlAnswer::nothingToDo("no message is deferred")
                                                      : ControlAnswer::done();
                           }};

    void SetUp() override
    {
        leaveStaleSocket(name);
        QString error;
        ASSERT_TRUE(channel.listen(&error)) << error.toStdString();
    }
};

TEST_F(ChannelBench, EachCommandRunsItsControlAndIsAnsweredWithItsOutcome)
{
    const QPair<QByteArray, QByteArray> cases[] = {
        {"start\r\n", "ok"},
        {"stop\n", "ok"},
        {"reload\n", "ok"},
        {"flush\n", "nothing: no message is deferred"},
        {"delete A1B2\n", "refused: A1B2 is being delivered"},
        {"quit\n", "ok"},
    };
    for (const auto& [command, reply] : cases) {
        RawClient client(name);
        EXPECT_EQ(client.answer(command), reply) << command.constData();
        EXPECT_TRUE(client.closedByServer()) << command.constData();
    }
    EXPECT_EQ(ran, (QStringList{"start", "stop", "reload", "flush", "delete A1B2", "quit"}));
}

TEST_F(ChannelBench, HostileInputIsRefusedAndTheChannelServesOn)
{
    const QPair<QByteArray, QByteArray> cases[] = {
        {"QUIT\n", "error: unknown command"},
        {"start-\n", "error: unknown command"},
        {" start\n", "error: unknown command"},
        {"quit now\n", "error: unknown command"},
        {QByteArray("\xff\x00quit\x01\n", 8), "error: unknown command"},
        {QByteArray(100, 'a') + '\n', "error: line too long"},
        {QByteArray(4096, 'q'), "error: line too long"}, // a line that never ends
    };
    for (const auto& [bytes, reply] : cases) {
        RawClient client(name);
        EXPECT_EQ(client.answer(bytes), reply) << bytes.left(20).constData();
        EXPECT_TRUE(client.closedByServer());
    }
    EXPECT_TRUE(ran.isEmpty()) << ran.join(' ').toStdString();
}

TEST_F(ChannelBench, SilentVanishingAndSimultaneousClients)
{
    channel.setIdleTimeout(200ms);
    RawClient silent(name);
    {
        RawClient vanished(name); // half a command, then gone
        vanished.socket.write("sto");
        spinUntil([] { return false; }, 20);
    }
    std::vector<std::unique_ptr<RawClient>> clients;
    const char* commands[] = {"start", "nonsense", "stop", "reload"};
    for (int i = 0; i < 4; ++i)
        clients.push_back(std::make_unique<RawClient>(name));
    for (int i = 3; i >= 0; --i) // answered whatever the order
        clients[i]->socket.write(QByteArray(commands[i]) + '\n');
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(clients[i]->answer({}), i == 1 ? "error: unknown command" : "ok") << commands[i];

    EXPECT_EQ(silent.socket.state(), QLocalSocket::ConnectedState);
    EXPECT_TRUE(silent.closedByServer());
    ran.sort();
    EXPECT_EQ(ran, (QStringList{"reload", "start", "stop"}));
}

TEST(ControlChannel, ServerNameFollowsTheFolderNotItsSpelling)
{
    QTemporaryDir dir;
    QDir().mkpath(dir.path() + "/relay");
    QFile::link(dir.path() + "/relay", dir.path() + "/link");
    const QString name = controlServerName(dir.path() + "/relay");
    EXPECT_EQ(controlServerName(dir.path() + "/./link/"), name);
    EXPECT_NE(controlServerName(dir.path() + "/other"), name);
    EXPECT_EQ(controlServerName("/" + QString(500, 'x')).size(), name.size()); // fits a socket path
}

// The command-line side, against what may stand where a relay should be.
TEST(ControlRequest, AnswersRefusalsStaleSocketsSilenceAndHangUps)
{
    std::optional<ControlRequest::Outcome> outcome;
    QString text;
    auto request = [&](const QString& serverName, std::chrono::milliseconds timeout = 5s) {
        outcome.reset();
        ControlRequest request(serverName, "quit", timeout);
        QObject::connect(&request, &ControlRequest::finished, [&](ControlRequest::Outcome o, const QString& t) {
            EXPECT_FALSE(outcome.has_value()) << "finished twice";
            outcome = o;
            text = t;
        });
        request.send();
        EXPECT_FALSE(outcome.has_value()) << "finished from within send()";
        spinUntil([&] { return outcome.has_value(); }, 10000);
    };

    const QString stale = uniqueServerName();
    leaveStaleSocket(stale);
    request(stale);
    EXPECT_EQ(outcome, ControlRequest::Outcome::NotRunning) << text.toStdString();
    QLocalServer::removeServer(stale);

    QLocalServer fake;
    ASSERT_TRUE(fake.listen(uniqueServerName()));
    QObject::connect(&fake, &QLocalServer::newConnection, [&] {
        QLocalSocket* peer = fake.nextPendingConnection();
        QObject::connect(peer, &QLocalSocket::readyRead, [peer] { peer->write("error: busy\n"); });
    });
    request(fake.serverName());
    EXPECT_EQ(outcome, ControlRequest::Outcome::Failed);
    EXPECT_EQ(text, "error: busy");

    // "nothing to do" is success; a refusal is not.
    QLocalServer polite;
    ASSERT_TRUE(polite.listen(uniqueServerName()));
    QByteArray politeAnswer;
    QObject::connect(&polite, &QLocalServer::newConnection, [&] {
        QLocalSocket* peer = polite.nextPendingConnection();
        QObject::connect(peer, &QLocalSocket::readyRead, [peer, &politeAnswer] { peer->write(politeAnswer); });
    });
    for (const auto& [line, expected] : {std::pair{"nothing: already stopped\n", ControlRequest::Outcome::Done},
                                         std::pair{"ok: 2 deferred messages\n", ControlRequest::Outcome::Done},
                                         std::pair{"refused: X is being delivered\n", ControlRequest::Outcome::Failed}}) {
        politeAnswer = line;
        request(polite.serverName());
        EXPECT_EQ(outcome, expected) << line;
        EXPECT_EQ(text, QString::fromLatin1(line).trimmed());
    }

    QLocalServer mute;
    ASSERT_TRUE(mute.listen(uniqueServerName()));
    request(mute.serverName(), 300ms);
    EXPECT_EQ(outcome, ControlRequest::Outcome::Failed);
    EXPECT_TRUE(text.contains("no answer")) << text.toStdString();

    QObject::connect(&mute, &QLocalServer::newConnection, [&] {
        while (QLocalSocket* peer = mute.nextPendingConnection()) { // the silent round's one too
            peer->disconnectFromServer();
            peer->deleteLater();
        }
    });
    request(mute.serverName());
    EXPECT_EQ(outcome, ControlRequest::Outcome::Failed);
    EXPECT_TRUE(text.contains("without answering")) << text.toStdString();
}

} // namespace
