#include <QDir>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpServer>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include "core/control_channel.h"
#include "core/postiq_process.h"
#include "store/message.h"
#include "store/queue.h"
#include "support/fakes.h"
#include "support/mail_client.h"

using namespace postiq;
using namespace postiq::test;

namespace {

// A folder holding one message in each queue folder: waiting, deferred after two attempts, failed.
struct QueueCommands : ::testing::Test {
    QTemporaryDir root;
    QString folder = root.path() + QStringLiteral("/relay");
    QString configHome = root.path() + QStringLiteral("/config");
    LogBench bench;
    Queue queue{folder};
    QByteArray waiting, deferred, failed;

    void SetUp() override
    {
        QDir().mkpath(folder);
        writeFile(folder + QStringLiteral("/Postiq.ini"),
                  "ListenPort\t" + QByteArray::number(freeListenPort()) + "\r\nKeepLocal\tOn\r\n");
        queue.createMissingFolders();
        waiting = enqueue("<w@example.org>", "Subject: waiting\r\n\r\n..dotted\r\nline\r\n");
        deferred = enqueue("<d@example.org>", "Subject: deferred\r\n\r\nx\r\n");
        failed = enqueue("<f@example.org>", "Subject: failed\r\n\r\nx\r\n");
        CMessage m(bench.logs);
        queue.read(QueueFolder::OutBox, deferred, m);
        m.Essai = 2;
        m.LastError = "10061: refused";
        queue.defer(deferred, &m);
        queue.read(QueueFolder::OutBox, failed, m);
        m.LastError = "550 no such user";
        queue.moveToError(QueueFolder::OutBox, failed, &m);
    }
    QByteArray enqueue(const QByteArray& to, const QByteArray& data, const QByteArray& from = "<s@example.org>")
    {
        CMessage m(bench.logs);
        m.From = from;
        m.AddRcptTo(to);
        m.Data = data;
        return queue.enqueue(m).first();
    }
    std::pair<int, QByteArray> command(const QStringList& arguments)
    {
        QByteArray out, err;
        const int status = runToEnd(folder, configHome, arguments, &err, &out);
        return {status, out + err};
    }
};

} // namespace

TEST_F(QueueCommands, ListShowRetryAndDeleteWithNoRelayRunning)
{
    auto [status, text] = command({"--queue"});
    EXPECT_EQ(status, 0);
    for (const QByteArray& id : {waiting, deferred, failed})
        EXPECT_TRUE(text.contains(id)) << text.constData();
    EXPECT_TRUE(text.contains("(10061: refused)"));
    EXPECT_TRUE(text.contains("1 in OutBox, 1 in Deferred, 1 in Error")) << text.constData();

    std::tie(status, text) = command({"--queue", "--json"});
    const QJsonArray listed = QJsonDocument::fromJson(text).array();
    ASSERT_EQ(listed.size(), 3) << text.constData();
    const QJsonObject second = listed[1].toObject(); // by folder: OutBox, Deferred, Error
    EXPECT_EQ(second["id"].toString(), QString::fromLatin1(deferred));
    EXPECT_EQ(second["folder"].toString(), "Deferred");
    EXPECT_EQ(second["attempts"].toInt(), 2);
    EXPECT_EQ(second["sender"].toString(), "<s@example.org>");
    EXPECT_EQ(second["recipients"].toArray().first().toString(), "<d@example.org>");
    EXPECT_EQ(second["lastError"].toString(), "10061: refused");
    EXPECT_GT(second["size"].toInt(), 0);

    EXPECT_EQ(command({"--show", QString::fromLatin1(waiting)}),
              std::pair(0, QByteArray("Subject: waiting\n\n.dotted\nline\n")));
    EXPECT_EQ(command({"--show", "NOSUCH"}).first, 1);

    EXPECT_EQ(command({"--retry", QString::fromLatin1(failed)}).first, 0);
    EXPECT_EQ(queue.find(failed), QueueFolder::OutBox);
    std::tie(status, text) = command({"--retry", "all"});
    EXPECT_EQ(status, 0);
    EXPECT_EQ(queue.find(deferred), QueueFolder::OutBox);
    std::tie(status, text) = command({"--retry=all"});
    EXPECT_EQ(std::pair(status, text), std::pair(0, QByteArray("postiq: nothing: no message is deferred\n")));

    EXPECT_EQ(command({"--delete", QString::fromLatin1(waiting)}).first, 0);
    EXPECT_EQ(queue.find(waiting), std::nullopt);
    EXPECT_EQ(command({"--delete", QString::fromLatin1(waiting)}).first, 1);
    EXPECT_EQ(command({"--delete", "../Postiq.ini"}).first, 1);
    EXPECT_TRUE(QFile::exists(folder + "/Postiq.ini"));
    EXPECT_EQ(command({"--delete"}).first, 2); // no ID
    EXPECT_EQ(command({"--queue", "--start"}).first, 2);
}

// Each message shows the way it will leave: its sender's route, the route of the address a
// bounce goes to, SmtpServer when Postiq.ini sets it, else MX; a faulty section is named.
TEST_F(QueueCommands, TheListingShowsTheWayEachMessageLeaves)
{
    writeFile(folder + QStringLiteral("/Routes.ini"),
              "[work]\nSenders = *@work.example\nServer = smtp://me@work.example@smtp.work.example\n\n"
              "[home]\nSenders = b@home.example\nServer = smtps://b%40home.example@mail.home.example:4650\n\n"
              "[broken]\nSenders = *@broken.example\n");
    const QByteArray fromWork = enqueue("<x@dst.example>", "Subject: w\r\n\r\nx\r\n", "<A@Work.Example>");
    const QByteArray bounce = enqueue("<b@home.example>", "Subject: b\r\n\r\nx\r\n", "<>");

    auto [status, text] = command({"--queue"});
    EXPECT_EQ(status, 0);
    const QByteArray pad(60, ' ');
    EXPECT_TRUE(text.contains(pad + "<x@dst.example>\n" + pad + "via route work (smtp.work.example:587)\n"))
        << text.constData();
    EXPECT_TRUE(text.contains(pad + "<b@home.example>\n" + pad + "via route home (mail.home.example:4650)\n"))
        << text.constData();
    EXPECT_TRUE(text.contains(pad + "<w@example.org>\n" + pad + "via MX\n")) << text.constData();
    EXPECT_TRUE(text.contains("postiq: " + folder.toUtf8() + "/Routes.ini line 9: route 'broken' has no Server"))
        << text.constData();
    EXPECT_FALSE(text.contains("me@work.example")) << "the login is never shown";

    writeFile(folder + QStringLiteral("/Postiq.ini"),
              "ListenPort\t" + QByteArray::number(freeListenPort())
                  + "\r\nKeepLocal\tOn\r\nSmtpServer\tsmtp://me@isp.example@smtp.isp.example\r\n");
    QByteArray json;
    EXPECT_EQ(runToEnd(folder, configHome, {"--queue", "--json"}, nullptr, &json), 0);
    const QJsonArray listed = QJsonDocument::fromJson(json).array();
    ASSERT_EQ(listed.size(), 5) << json.constData();
    QHash<QString, QJsonObject> byId;
    for (const QJsonValue& one : listed)
        byId.insert(one["id"].toString(), one.toObject());
    EXPECT_EQ(byId[QString::fromLatin1(fromWork)]["via"].toString(), "route");
    EXPECT_EQ(byId[QString::fromLatin1(fromWork)]["route"].toString(), "work");
    EXPECT_EQ(byId[QString::fromLatin1(fromWork)]["server"].toString(), "smtp.work.example:587");
    EXPECT_EQ(byId[QString::fromLatin1(bounce)]["route"].toString(), "home");
    EXPECT_EQ(byId[QString::fromLatin1(waiting)]["via"].toString(), "SmtpServer");
    EXPECT_EQ(byId[QString::fromLatin1(waiting)]["server"].toString(), "smtp.isp.example:587");
    EXPECT_FALSE(byId[QString::fromLatin1(waiting)].contains("route"));
}

TEST_F(QueueCommands, TheRunningRelayMovesAndDeletesItself)
{
    PostiqProcess relay(folder, configHome);
    const QString mailLog = folder + QStringLiteral("/maillog.txt");
    ASSERT_TRUE(spinUntil([&] { return readFile(mailLog).contains("Start of SMTP service"); }, 10000));
    ASSERT_TRUE(spinUntil([&] { return QFileInfo::exists(QDir::tempPath() + '/' + postiq::controlServerName(folder)); }));

    auto [status, text] = command({"--queue"});
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(text.contains(deferred)) << text.constData();

    std::tie(status, text) = command({"--retry", QString::fromLatin1(deferred)});
    EXPECT_EQ(std::pair(status, text), std::pair(0, "postiq: " + deferred + " sent back to OutBox\n"));
    EXPECT_TRUE(readFile(mailLog).contains(deferred + " moved from Deferred to OutBox on request"));
    EXPECT_EQ(queue.find(deferred), QueueFolder::OutBox);

    std::tie(status, text) = command({"--delete", QString::fromLatin1(failed)});
    EXPECT_EQ(std::pair(status, text), std::pair(0, "postiq: " + failed + " deleted\n"));
    EXPECT_TRUE(readFile(mailLog).contains(failed + " deleted from Error on request"));
    std::tie(status, text) = command({"--delete", QString::fromLatin1(failed)});
    EXPECT_EQ(std::pair(status, text), std::pair(1, "postiq: no message " + failed + " in the queue\n"));
    std::tie(status, text) = command({"--retry", "all"});
    EXPECT_EQ(std::pair(status, text), std::pair(0, QByteArray("postiq: nothing: no message is deferred\n")));
    EXPECT_TRUE(relay.running());
}

// A message handed over through sendmail is dispatched at once; while its delivery hangs on a
// server that never answers, the relay refuses to delete it.
TEST_F(QueueCommands, AMessageBeingDeliveredIsNotDeletedUnderTheRelay)
{
    QTcpServer silent; // accepts and never greets
    ASSERT_TRUE(silent.listen(QHostAddress::LocalHost));
    writeFile(folder + QStringLiteral("/Postiq.ini"), "ListenPort\t" + QByteArray::number(freeListenPort())
                                                          + "\r\nSmtpServer\t127.0.0.1:"
                                                          + QByteArray::number(silent.serverPort()) + "\r\n");
    Queue(folder).remove(QueueFolder::OutBox, waiting); // only the new one is waiting
    PostiqProcess relay(folder, configHome);
    const QString mailLog = folder + QStringLiteral("/maillog.txt");
    ASSERT_TRUE(spinUntil([&] { return readFile(mailLog).contains("Start of SMTP service"); }, 10000));
    ASSERT_TRUE(spinUntil([&] { return QFileInfo::exists(QDir::tempPath() + '/' + postiq::controlServerName(folder)); }));

    QProcess sendmail;
    sendmail.start(QStringLiteral(POSTIQ_BINARY), {"--folder", folder, "--sendmail", "-v", "to@example.org"});
    sendmail.write("Subject: now\n\nplease\n");
    sendmail.closeWriteChannel();
    ASSERT_TRUE(sendmail.waitForFinished(10000));
    ASSERT_EQ(sendmail.exitCode(), 0) << sendmail.readAllStandardError().constData();
    const QByteArray id = sendmail.readAllStandardOutput().split(' ').value(3);
    ASSERT_FALSE(id.isEmpty());
    // Well before the outbox timer's 10 seconds: the relay was told.
    ASSERT_TRUE(spinUntil([&] { return silent.hasPendingConnections(); }, 5000));

    const auto [status, text] = command({"--delete", QString::fromLatin1(id)});
    EXPECT_EQ(status, 1);
    EXPECT_EQ(text, "postiq: " + id + " is being delivered right now; try again when the delivery is over\n");
    EXPECT_EQ(queue.find(id), QueueFolder::OutBox);
    EXPECT_TRUE(relay.running());
}
