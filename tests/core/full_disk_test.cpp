#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <vector>

#include "core/kept_local_relay.h"
#include "store/message.h"
#include "support/fakes.h"
#include "support/mail_client.h"
#include "support/thread_clients.h"

using namespace postiq;
using namespace postiq::test;

namespace {

constexpr int kClients = 5;
constexpr int kMessagesPerClient = 2;
constexpr qsizetype kMessageBytes = 400 * 1024;

// A mount namespace of this test program's own (each test runs as a process of its own), so that
// the small file system below is seen by this test and the relay it starts, and by no one else.
bool MountSmallFileSystem(const QString& folder)
{
    if (::unshare(CLONE_NEWNS) != 0)
        return false;
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return false;
    QDir().mkpath(folder);
    return ::mount("tmpfs", QFile::encodeName(folder).constData(), "tmpfs", 0, "size=3m") == 0;
}

// Writes `bytes` (all that fits when negative) to a new file; what it takes is freed by removing it.
void Fill(const QString& path, qsizetype bytes)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Unbuffered));
    for (const qsizetype chunk : {qsizetype(64 * 1024), qsizetype(4096)}) {
        const QByteArray block(chunk, 'f');
        while (bytes < 0 || file.size() < bytes) {
            if (file.write(block) != block.size())
                break;
        }
    }
}

// A message text of about `bytes` that names its client and number; no line starts with a dot.
std::string MessageText(int client, int number, qsizetype bytes)
{
    const std::string tag = std::to_string(client) + "-" + std::to_string(number);
    std::string text = "Subject: full disk " + tag + "\r\n\r\n";
    const std::string line = "line of message " + tag + " " + std::string(60, 'x') + "\r\n";
    while (qsizetype(text.size()) < bytes)
        text += line;
    return text;
}

// One message on an open, greeted session; the reply to its end of data, or what went wrong before.
std::string SendOnSession(BlockingConnection& session, const std::string& text)
{
    const auto step = [&](const std::string& bytes, const char* expected) {
        return session.send(bytes) && session.readLine().value_or("").starts_with(expected);
    };
    if (!step("MAIL FROM:<me@home.example>\r\n", "250 ") || !step("RCPT TO:<you@far.example>\r\n", "250 ")
        || !step("DATA\r\n", "354 "))
        return "envelope refused";
    if (!session.send(text + ".\r\n"))
        return "text not sent";
    return session.readLine().value_or("no reply");
}

std::unique_ptr<BlockingConnection> GreetedSession(quint16 port)
{
    auto session = std::make_unique<BlockingConnection>(port);
    EXPECT_TRUE(session->readLine().value_or("").starts_with("220 "));
    EXPECT_TRUE(session->send("HELO full\r\n") && session->readLine().value_or("").starts_with("250 "));
    return session;
}

void ServeEventLoop() { spinUntil([] { return false; }, 20); }

// Every client vanishes in the middle of its text, half of them with a reset; the relay is then
// given a moment to see them go.
void LeaveInData(quint16 port, int number)
{
    runInParallel(
        kClients,
        [&](int client) {
            endInData(port, MessageText(client, number, kMessageBytes / 2), client % 2 == 1);
            return 0;
        },
        ServeEventLoop);
    spinUntil([] { return false; }, 300);
}

struct FullDiskRelay : KeptLocalRelay {
    void SetUp() override
    {
        if (!MountSmallFileSystem(folder))
            GTEST_SKIP() << "no private mount namespace here (needs CAP_SYS_ADMIN)";
        KeptLocalRelay::SetUp();
    }
    void TearDown() override
    {
        relay.reset();
        ::umount2(QFile::encodeName(folder).constData(), MNT_DETACH);
    }
    QString outBox() const { return folder + QStringLiteral("/OutBox"); }
};

} // namespace

// With the program folder on a file system that fills up, each message is stored whole or refused
// with a 4xx and leaves nothing behind; the relay and every session go on, a session is served
// again once space is back, and the error log says how many log lines the full disk cost.
TEST_F(FullDiskRelay, AFullDiskRefusesMessagesOneByOneAndTheRelayLives)
{
    Fill(folder + QStringLiteral("/filler-1"), 1024 * 1024); // about 2 MB left for 4 MB of mail

    std::vector<std::unique_ptr<BlockingConnection>> sessions;
    for (int client = 0; client < kClients; ++client)
        sessions.push_back(GreetedSession(port));
    const auto replies = runInParallel(
        kClients,
        [&](int client) {
            std::vector<std::string> got;
            for (int number = 0; number < kMessagesPerClient; ++number)
                got.push_back(SendOnSession(*sessions[client], MessageText(client, number, kMessageBytes)));
            return got;
        },
        ServeEventLoop);

    std::vector<std::string> accepted; // the texts that got a 250
    int refused = 0;
    for (int client = 0; client < kClients; ++client) {
        for (int number = 0; number < kMessagesPerClient; ++number) {
            const std::string& reply = replies[client][number];
            if (reply == "250 Message accepted for delivery")
                accepted.push_back(MessageText(client, number, kMessageBytes));
            else if (reply.starts_with('4'))
                ++refused;
            else
                ADD_FAILURE() << "message " << client << "-" << number << ": " << reply;
        }
    }
    EXPECT_GT(refused, 0);
    EXPECT_GT(accepted.size(), 0u);
    ASSERT_TRUE(relay->running()) << relay->standardError().constData();

    // Not a page left: messages are refused, and so, soon, are the relay's own log lines.
    Fill(folder + QStringLiteral("/filler-2"), -1);
    for (int number = 0; number < 40; ++number) {
        const std::string reply = SendOnSession(*sessions[0], MessageText(0, 100 + number, 8 * 1024));
        EXPECT_EQ(reply, "452 Insufficient system storage");
    }
    // A text that fails part-way is read to its end: the session stays in step, and RSET, an
    // unknown command and NOOP get their usual answers after it.
    EXPECT_EQ(SendOnSession(*sessions[1], MessageText(1, 200, kMessageBytes)), "452 Insufficient system storage");
    for (const auto& [command, reply] : {std::pair{"RSET\r\n", "250 Reset Ok."},
                                         std::pair{"xyzzy\r\n", "500 Unrecognized command."},
                                         std::pair{"NOOP\r\n", "250 Noop Ok."}})
        EXPECT_EQ(sessions[1]->send(command) ? sessions[1]->readLine().value_or("no reply") : "not sent", reply);
    LeaveInData(port, 300);
    ASSERT_TRUE(relay->running()) << relay->standardError().constData();

    // Space back: clients that vanish in their text leave nothing; the same session is served
    // again, and the log tells of the lines lost meanwhile.
    ASSERT_TRUE(QFile::remove(folder + QStringLiteral("/filler-1")));
    ASSERT_TRUE(QFile::remove(folder + QStringLiteral("/filler-2")));
    LeaveInData(port, 400);
    const std::string again = MessageText(0, 999, kMessageBytes);
    EXPECT_EQ(SendOnSession(*sessions[0], again), "250 Message accepted for delivery");
    accepted.push_back(again);
    for (auto& session : sessions)
        session->send("QUIT\r\n");
    sessions.clear();
    EXPECT_TRUE(spinUntil([&] {
        return QRegularExpression(QStringLiteral(" Postiq: \\d+ log lines? could not be written and w(as|ere) lost"))
            .match(QString::fromUtf8(readFile(folder + QStringLiteral("/error.txt"))))
            .hasMatch();
    })) << readFile(folder + QStringLiteral("/error.txt")).right(2000).constData();

    // Every 250 is a whole queue file, and nothing else is there, not even a staging file (the
    // relay is given time to see the last vanished clients go).
    spinUntil([&] { return QDir(outBox()).entryList({QStringLiteral(".*")}, QDir::Files | QDir::Hidden).isEmpty(); });
    LogBench bench;
    std::vector<std::string> stored;
    const QStringList entries = QDir(outBox()).entryList(QDir::Files | QDir::Hidden);
    for (const QString& name : entries) {
        EXPECT_FALSE(name.startsWith('.')) << "left behind: " << name.toStdString();
        CMessage message(bench.logs);
        EXPECT_NO_THROW(message.MLoad(outBox() + '/' + name)) << name.toStdString();
        stored.push_back(WithoutReceived(message.Data).toStdString());
    }
    std::sort(stored.begin(), stored.end());
    std::sort(accepted.begin(), accepted.end());
    EXPECT_EQ(stored.size(), accepted.size());
    EXPECT_TRUE(stored == accepted) << "the queue files differ from the accepted messages";
    EXPECT_TRUE(relay->running()) << relay->standardError().constData();
}
