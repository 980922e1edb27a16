#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <csignal>
#include <gtest/gtest.h>

#include "core/control_channel.h"
#include "core/postiq_process.h"
#include "support/fakes.h"
#include "support/mail_client.h"

using namespace postiq::test;

namespace {

struct ControlFixture : ::testing::Test {
    QTemporaryDir root;
    QString folder = root.path() + QStringLiteral("/relay");
    QString configHome = root.path() + QStringLiteral("/config");
    QString mailLog = folder + QStringLiteral("/maillog.txt");

    void SetUp() override
    {
        QDir().mkpath(folder);
        writeFile(folder + QStringLiteral("/Postiq.ini"),
                  "ListenPort\t" + QByteArray::number(freeListenPort()) + "\r\n");
    }
    qsizetype logCount(const char* text) const { return readFile(mailLog).count(text); }
    int control(const char* option, QByteArray* standardError = nullptr)
    {
        return runToEnd(folder, configHome, {QString::fromLatin1(option)}, standardError);
    }
};

// True once the process has SIGINT and SIGTERM blocked, the first thing its main() does.
bool quitSignalsBlocked(qint64 pid)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return false;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("SigBlk:")) {
            const qulonglong mask = line.mid(7).trimmed().toULongLong(nullptr, 16);
            return (mask & (1u << (SIGINT - 1))) && (mask & (1u << (SIGTERM - 1)));
        }
    }
    return false;
}

} // namespace

TEST_F(ControlFixture, TheRunningRelayObeysTheCommandLine)
{
    PostiqProcess relay(folder, configHome);
    ASSERT_TRUE(spinUntil([&] { return logCount("Start of SMTP service") == 1; }, 10000))
        << relay.standardError().constData();
    const QString socket = QDir::tempPath() + '/' + postiq::controlServerName(folder);
    ASSERT_TRUE(spinUntil([&] { return QFileInfo::exists(socket); }));

    EXPECT_EQ(control("--stop"), 0);
    EXPECT_EQ(logCount(" Postiq SMTP service stopped\r\n"), 1);
    EXPECT_EQ(control("--start"), 0);
    EXPECT_EQ(logCount(" Postiq Start of SMTP service\r\n"), 2);
    EXPECT_EQ(control("--reload"), 0);
    EXPECT_EQ(logCount(" Postiq: Chargement de la configuration (Postiq.ini)"), 2);
    EXPECT_EQ(control("--flush"), 0);

    // A plain second launch is still refused, and leaves the relay running.
    QByteArray refusal;
    EXPECT_EQ(runToEnd(folder, configHome, {}, &refusal), 2);
    EXPECT_TRUE(refusal.contains("Postiq est déjà lancé !")) << refusal.constData();
    EXPECT_TRUE(relay.running());

    // The same folder spelt another way reaches the same relay.
    EXPECT_EQ(runToEnd(folder + QStringLiteral("/../relay/"), configHome, {QStringLiteral("--stop")}), 0);
    EXPECT_EQ(logCount(" Postiq SMTP service stopped\r\n"), 2);

    EXPECT_EQ(control("--quit"), 0);
    EXPECT_EQ(relay.waitForExit(), 0);
    EXPECT_FALSE(QFileInfo::exists(socket));

    // Once it is gone, nothing answers.
    QByteArray message;
    EXPECT_EQ(control("--start", &message), 2);
    EXPECT_TRUE(message.contains("no Postiq is running in")) << message.constData();
}

// Commands that do not apply are answered, with status 0 for "nothing to do", and the relay goes on.
TEST_F(ControlFixture, CommandsThatDoNotApplyAreAnsweredAndTheRelayLives)
{
    PostiqProcess relay(folder, configHome);
    ASSERT_TRUE(spinUntil([&] { return logCount("Start of SMTP service") == 1; }, 10000))
        << relay.standardError().constData();
    const QString socket = QDir::tempPath() + '/' + postiq::controlServerName(folder);
    ASSERT_TRUE(spinUntil([&] { return QFileInfo::exists(socket); }));

    const auto answer = [&](const char* option) {
        QByteArray out, err;
        const int status = runToEnd(folder, configHome, {QString::fromLatin1(option)}, &err, &out);
        return std::pair{status, out + err};
    };
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(answer("--start"), std::pair(0, QByteArray("postiq: nothing: the SMTP service is already started\n")));
        EXPECT_TRUE(relay.running());
    }
    EXPECT_EQ(answer("--stop"), std::pair(0, QByteArray("postiq: the SMTP service is stopped\n")));
    EXPECT_EQ(answer("--stop"), std::pair(0, QByteArray("postiq: nothing: the SMTP service is already stopped\n")));
    EXPECT_EQ(logCount(" Postiq SMTP service stopped\r\n"), 1);
    EXPECT_EQ(answer("--flush"), std::pair(0, QByteArray("postiq: nothing: no message is deferred\n")));
    EXPECT_EQ(answer("--start").first, 0);
    EXPECT_EQ(logCount(" Postiq Start of SMTP service\r\n"), 2);
    EXPECT_TRUE(relay.running());
    EXPECT_FALSE(readFile(folder + QStringLiteral("/Debug.html")).contains("ERREUR PROGRAMME"));
    EXPECT_EQ(control("--quit"), 0);
    EXPECT_EQ(relay.waitForExit(), 0);
}

TEST_F(ControlFixture, WithNothingRunningAControlOptionSaysSoAndCreatesNothing)
{
    const QString nowhere = root.path() + QStringLiteral("/nowhere");
    QByteArray message;
    EXPECT_EQ(runToEnd(nowhere, configHome, {QStringLiteral("--flush")}, &message), 2);
    EXPECT_EQ(message, "postiq: no Postiq is running in " + nowhere.toUtf8() + "\n");
    EXPECT_FALSE(QFileInfo::exists(nowhere));

    // The options exclude each other.
    EXPECT_EQ(runToEnd(folder, configHome, {QStringLiteral("--stop"), QStringLiteral("--quit")}, &message), 2);
    EXPECT_TRUE(message.contains("cannot be used together")) << message.constData();
}

TEST_F(ControlFixture, SigtermRightAfterLaunchStillEndsTheRelayCleanly)
{
    PostiqProcess relay(folder, configHome);
    ASSERT_TRUE(spinUntil([&] { return quitSignalsBlocked(relay.processId()) || !relay.running(); }, 5000));
    relay.terminate();
    EXPECT_EQ(relay.waitForExit(), 0) << relay.standardError().constData();
    EXPECT_FALSE(readFile(mailLog).contains("Start of SMTP service")
                 && !readFile(mailLog).contains("SMTP service stopped"));
}
