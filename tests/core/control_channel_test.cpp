#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>
#include <QTemporaryDir>
#include <QUuid>
#include <gtest/gtest.h>
#include <memory>

#include "core/control_channel.h"
#include "support/fakes.h"
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

// A channel whose commands only record that they ran.
struct ChannelBench : ::testing::Test {
    QStringList ran;
    QString name = uniqueServerName();
    ControlChannel channel{name,
                           {.startService = [this] { ran << "start"; },
                            .stopService = [this] { ran << "stop"; },
                            .reloadConfiguration = [this] { ran << "reload"; },
                            .flushDeferred = [this] { ran << "flush"; },
                            .quit = [this] { ran << "quit"; }}};

    void SetUp() override
    {
        QString error;
        ASSERT_TRUE(channel.listen(&error)) << error.toStdString();
    }
};

// A raw client: sends bytes and reads the one answer line.
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
    bool closedByServer()
    {
        return spinUntil([this] { return socket.state() == QLocalSocket::UnconnectedState; });
    }
};

TEST_F(ChannelBench, EachCommandRunsItsControlAndIsAnsweredOk)
{
    for (const char* command : {"start", "stop", "reload", "flush", "quit"}) {
        RawClient client(name);
        EXPECT_EQ(client.answer(QByteArray(command) + "\r\n"), "ok") << command;
        EXPECT_TRUE(client.closedByServer()) << command;
    }
    EXPECT_EQ(ran, (QStringList{"start", "stop", "reload", "flush", "quit"}));
}

TEST_F(ChannelBench, HostileInputIsRefusedAndTheChannelServesOn)
{
    struct Case {
        const char* what;
        QByteArray bytes;
        QByteArray answer;
    };
    const Case cases[] = {
        {"unknown word", "format-disk\n", "error: unknown command"},
        {"empty line", "\n", "error: unknown command"},
        {"case differs", "QUIT\n", "error: unknown command"},
        {"command with a tail", "quit now\n", "error: unknown command"},
        {"garbage bytes", QByteArray("\xff\x00quit\x01\n", 8), "error: unknown command"},
        {"long line with its end", QByteArray(100, 'a') + '\n', "error: line too long"},
        {"endless line", QByteArray(4096, 'q'), "error: line too long"},
    };
    for (const Case& c : cases) {
        RawClient client(name);
        EXPECT_EQ(client.answer(c.bytes), c.answer) << c.what;
        EXPECT_TRUE(client.closedByServer()) << c.what;
    }
    EXPECT_TRUE(ran.isEmpty()) << ran.join(' ').toStdString();

    // A second command on the same connection is not read: one command per connection.
    RawClient twice(name);
    EXPECT_EQ(twice.answer("stop\nquit\n"), "ok");
    EXPECT_TRUE(twice.closedByServer());
    EXPECT_EQ(ran, QStringList{"stop"});
}

TEST_F(ChannelBench, SilentAndVanishingClientsDoNotHoldItUp)
{
    channel.setIdleTimeout(200ms);
    RawClient silent(name);
    ASSERT_TRUE(spinUntil([&] { return silent.socket.state() == QLocalSocket::ConnectedState; }));
    {
        RawClient vanished(name); // connects and is gone at once
        vanished.socket.write("sto");
    }
    {
        RawClient halfLine(name);
        halfLine.socket.write("rel");
        spinUntil([] { return false; }, 50);
    }
    // Another client is served while the silent one is still connected.
    RawClient next(name);
    EXPECT_EQ(next.answer("reload\n"), "ok");
    EXPECT_EQ(silent.socket.state(), QLocalSocket::ConnectedState);
    EXPECT_TRUE(silent.closedByServer());
    EXPECT_EQ(silent.socket.bytesAvailable(), 0);
    EXPECT_EQ(ran, QStringList{"reload"});
}

TEST_F(ChannelBench, SeveralClientsAtOnceEachGetTheirAnswer)
{
    std::vector<std::unique_ptr<RawClient>> clients;
    const char* commands[] = {"start", "nonsense", "stop", "flush", "start", "reload"};
    for (int i = 0; i < 6; ++i)
        clients.push_back(std::make_unique<RawClient>(name));
    ASSERT_TRUE(spinUntil([&] {
        return std::all_of(clients.begin(), clients.end(),
                           [](const auto& c) { return c->socket.state() == QLocalSocket::ConnectedState; });
    }));
    for (int i = 5; i >= 0; --i) // in the other order than they connected
        clients[i]->socket.write(QByteArray(commands[i]) + '\n');
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(clients[i]->answer({}), i == 1 ? "error: unknown command" : "ok") << commands[i];
    ran.sort();
    EXPECT_EQ(ran, (QStringList{"flush", "reload", "start", "start", "stop"}));
}

TEST(ControlChannel, ANameLeftBehindIsTakenOver)
{
    const QString name = uniqueServerName();
    leaveStaleSocket(name);
    ControlChannel channel(name, {});
    QString error;
    ASSERT_TRUE(channel.listen(&error)) << error.toStdString();
    RawClient client(name);
    EXPECT_EQ(client.answer("quit\n"), "ok"); // a control that is not set is simply nothing to do
}

TEST(ControlChannel, ServerNameFollowsTheFolderNotItsSpelling)
{
    QTemporaryDir dir;
    QDir().mkpath(dir.path() + "/relay");
    QFile::link(dir.path() + "/relay", dir.path() + "/link");
    const QString name = controlServerName(dir.path() + "/relay");
    EXPECT_EQ(controlServerName(dir.path() + "/relay/"), name);
    EXPECT_EQ(controlServerName(dir.path() + "/./relay/../relay"), name);
    EXPECT_EQ(controlServerName(dir.path() + "/link"), name);
    EXPECT_NE(controlServerName(dir.path() + "/other"), name);
    // However long the folder path, the name fits in a socket path.
    EXPECT_EQ(controlServerName("/" + QString(500, 'x')).size(), name.size());
    EXPECT_LT(name.size(), 48);
}

// The command-line side, against the channel and against what may stand in its place.
struct RequestBench : ChannelBench {
    std::optional<ControlRequest::Outcome> outcome;
    QString text;

    void request(const QString& serverName, const QByteArray& command, std::chrono::milliseconds timeout = 5s)
    {
        outcome.reset();
        ControlRequest request(serverName, command, timeout);
        QObject::connect(&request, &ControlRequest::finished, [this](ControlRequest::Outcome o, const QString& t) {
            EXPECT_FALSE(outcome.has_value()) << "finished twice";
            outcome = o;
            text = t;
        });
        request.send();
        EXPECT_FALSE(outcome.has_value()) << "finished from within send()";
        spinUntil([this] { return outcome.has_value(); }, 10000);
        spinUntil([] { return false; }, 20); // a second finished() would show here
    }
};

TEST_F(RequestBench, OutcomesForAnswerRefusalAbsenceAndSilence)
{
    request(name, "stop");
    EXPECT_EQ(outcome, ControlRequest::Outcome::Done);
    EXPECT_EQ(ran, QStringList{"stop"});

    request(name, "bogus");
    EXPECT_EQ(outcome, ControlRequest::Outcome::Failed);
    EXPECT_EQ(text, "error: unknown command");

    request(uniqueServerName(), "quit");
    EXPECT_EQ(outcome, ControlRequest::Outcome::NotRunning);

    const QString stale = uniqueServerName();
    leaveStaleSocket(stale);
    request(stale, "quit");
    EXPECT_EQ(outcome, ControlRequest::Outcome::NotRunning) << text.toStdString();
    QLocalServer::removeServer(stale);

    // A listener that never answers, then one that hangs up without answering.
    QLocalServer mute;
    ASSERT_TRUE(mute.listen(uniqueServerName()));
    request(mute.serverName(), "quit", 300ms);
    EXPECT_EQ(outcome, ControlRequest::Outcome::Failed);
    EXPECT_TRUE(text.contains("no answer")) << text.toStdString();

    QObject::connect(&mute, &QLocalServer::newConnection, [&] {
        while (QLocalSocket* peer = mute.nextPendingConnection()) { // the silent round's one too
            peer->disconnectFromServer();
            peer->deleteLater();
        }
    });
    request(mute.serverName(), "quit");
    EXPECT_EQ(outcome, ControlRequest::Outcome::Failed);
    EXPECT_TRUE(text.contains("without answering")) << text.toStdString();
}

} // namespace
