#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/postiq_process.h"
#include "core/terminal_report.h"
#include "support/fakes.h"
#include "support/mail_client.h"

using namespace postiq;
using namespace postiq::test;

namespace {

struct TerminalFixture : ::testing::Test {
    QTemporaryDir root;
    QString folder = root.path() + QStringLiteral("/relay");
    QString configHome = root.path() + QStringLiteral("/config");
    QByteArray stderrText;

    void writeIni(quint16 port)
    {
        QDir().mkpath(folder);
        writeFile(folder + QStringLiteral("/Postiq.ini"),
                  "ListenPort\t" + QByteArray::number(port) + "\r\nKeepLocal\tOn\r\n");
    }
    // Gathers what the relay writes on stderr until `part` is in it.
    bool waitForStderr(PostiqProcess& postiq, const QByteArray& part)
    {
        return spinUntil([&] {
            stderrText += postiq.standardError();
            return stderrText.contains(part);
        }, 10000);
    }
};

void sendOneMessage(quint16 port)
{
    Client client(port);
    play(client, kEnvelope);
    EXPECT_EQ(client.answer("Subject: hi\r\n\r\nhello\r\n.\r\n"), kAccepted);
    EXPECT_TRUE(client.answer("QUIT\r\n").startsWith("221"));
}

} // namespace

TEST_F(TerminalFixture, VerboseOnAFreePortSaysWhereItListensAndEachAcceptedMessage)
{
    const quint16 port = freeListenPort();
    writeIni(port);
    PostiqProcess postiq(folder, configHome, {QStringLiteral("--verbose")});
    const QByteArray listening = "postiq: listening on 127.0.0.1:" + QByteArray::number(port) + ", folder "
        + folder.toUtf8() + "\n";
    ASSERT_TRUE(waitForStderr(postiq, listening)) << stderrText.constData();
    EXPECT_TRUE(stderrText.contains(" Postiq Start of SMTP service\n")); // the mail-log line as it is

    sendOneMessage(port);
    sendOneMessage(port);
    ASSERT_TRUE(spinUntil([&] {
        stderrText += postiq.standardError();
        return stderrText.count("status=outbox") == 2;
    }, 10000)) << stderrText.constData();
    // Every mail-log line reaches stderr, stamp and all, in the order of the file.
    for (const QByteArray& line : logLines(folder + QStringLiteral("/maillog.txt")))
        EXPECT_TRUE(stderrText.contains(line + '\n')) << line.constData();

    postiq.terminate();
    EXPECT_EQ(postiq.waitForExit(), 0);
    stderrText += postiq.standardError();
    EXPECT_TRUE(stderrText.contains(" Postiq SMTP service stopped\n"));
    EXPECT_EQ(stderrText.count("listening on"), 1);
}

TEST_F(TerminalFixture, ATakenPortIsNamedWithTheSettingToChangeAndTheRelayStaysUp)
{
    QTcpServer occupant;
    const quint16 port = freeListenPort();
    ASSERT_TRUE(occupant.listen(QHostAddress::AnyIPv4, port));
    writeIni(port);
    {
        // Not asked for and stderr a pipe: the relay says nothing, as before.
        PostiqProcess quiet(folder, configHome);
        ASSERT_TRUE(spinUntil([&] { return readFile(folder + QStringLiteral("/error.txt")).contains("utilis"); },
                              10000));
        quiet.terminate();
        EXPECT_EQ(quiet.waitForExit(), 0);
        EXPECT_FALSE(quiet.standardError().contains("ListenPort"));
    }

    PostiqProcess postiq(folder, configHome, {QStringLiteral("--verbose")});
    const QByteArray portText = QByteArray::number(port);
    ASSERT_TRUE(waitForStderr(postiq, "in use by another program")) << stderrText.constData();
    EXPECT_TRUE(stderrText.contains(" Port " + portText + " utilisé par une autre application\n"));
    EXPECT_TRUE(stderrText.contains("postiq: port " + portText + " is in use by another program: stop that "
                                    "program, or set ListenPort to a free port in "
                                    + folder.toUtf8() + "/Postiq.ini, then run postiq --folder"))
        << stderrText.constData();
    EXPECT_FALSE(stderrText.contains("listening on"));

    // The way out it names works: the port freed, --start brings the service up.
    occupant.close();
    EXPECT_EQ(runToEnd(folder, configHome, {QStringLiteral("--start")}), 0);
    ASSERT_TRUE(waitForStderr(postiq, "listening on 127.0.0.1:" + portText)) << stderrText.constData();
    postiq.terminate();
    EXPECT_EQ(postiq.waitForExit(), 0);
}

TEST_F(TerminalFixture, ARefusedSecondStartSaysHowToDriveTheFirst)
{
    writeIni(freeListenPort());
    PostiqProcess first(folder, configHome);
    ASSERT_TRUE(spinUntil([&] { return readFile(folder + QStringLiteral("/maillog.txt")).contains("Start of SMTP"); },
                          10000));
    QByteArray refusal;
    EXPECT_EQ(runToEnd(folder, configHome, {QStringLiteral("--verbose")}, &refusal), 2);
    EXPECT_TRUE(refusal.contains("Postiq est déjà lancé !\n"));
    EXPECT_TRUE(refusal.contains("postiq: another Postiq already runs on " + folder.toUtf8()
                                 + ": drive it with postiq --folder " + folder.toUtf8()))
        << refusal.constData();
    EXPECT_FALSE(refusal.contains("QString")) << refusal.constData(); // no warning of Qt's in the advice
    first.terminate();
    EXPECT_EQ(first.waitForExit(), 0);
}

// A port below the first unprivileged one, for a user without CAP_NET_BIND_SERVICE: the capability
// and a high ListenPort are named, not another program. Run as nobody when the suite runs as root.
TEST_F(TerminalFixture, APrivilegedPortNamesTheCapabilityAndAHighListenPort)
{
    const QString setpriv = QStandardPaths::findExecutable(QStringLiteral("setpriv"));
    if (::geteuid() != 0 || setpriv.isEmpty())
        GTEST_SKIP() << "needs root and setpriv to run the relay as an unprivileged user";
    writeIni(25);
    for (const QString& path : {root.path(), folder, folder + QStringLiteral("/Postiq.ini")})
        QFile::setPermissions(path, QFileDevice::Permissions(0x7777));
    QProcess postiq;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), configHome);
    environment.insert(QStringLiteral("TMPDIR"), root.path());
    postiq.setProcessEnvironment(environment);
    postiq.start(setpriv, {QStringLiteral("--reuid=65534"), QStringLiteral("--regid=65534"),
                           QStringLiteral("--clear-groups"), QStringLiteral("--inh-caps=-all"),
                           QStringLiteral(POSTIQ_BINARY), QStringLiteral("--headless"), QStringLiteral("--verbose"),
                           QStringLiteral("--folder"), folder});
    ASSERT_TRUE(spinUntil([&] {
        stderrText += postiq.readAllStandardError();
        return stderrText.contains("needs a privilege") || postiq.state() == QProcess::NotRunning;
    }, 10000));
    EXPECT_TRUE(stderrText.contains("postiq: port 25 needs a privilege this user lacks: grant the program the "
                                    "capability CAP_NET_BIND_SERVICE"))
        << stderrText.constData();
    EXPECT_TRUE(stderrText.contains("or set ListenPort to 1024 or above (2525, say) in " + folder.toUtf8()
                                    + "/Postiq.ini"));
    postiq.terminate();
    EXPECT_TRUE(postiq.waitForFinished(10000));
}

// systemd connects stderr to the journal and names that stream in JOURNAL_STREAM: the relay reports
// without being asked, and marks the error lines with the error priority.
TEST_F(TerminalFixture, UnderSystemdTheLinesReachTheJournalWithTheirPriority)
{
    QTcpServer occupant;
    const quint16 port = freeListenPort();
    ASSERT_TRUE(occupant.listen(QHostAddress::AnyIPv4, port));
    writeIni(port);
    const QString journal = root.path() + QStringLiteral("/journal");
    writeFile(journal, {});
    struct stat stream {};
    ASSERT_EQ(::stat(QFile::encodeName(journal).constData(), &stream), 0);

    QProcess postiq;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), configHome);
    environment.insert(QStringLiteral("JOURNAL_STREAM"),
                       QStringLiteral("%1:%2").arg(quint64(stream.st_dev)).arg(quint64(stream.st_ino)));
    postiq.setProcessEnvironment(environment);
    postiq.setStandardErrorFile(journal, QIODevice::Append);
    postiq.start(QStringLiteral(POSTIQ_BINARY), {QStringLiteral("--headless"), QStringLiteral("--folder"), folder});
    const QByteArray portText = QByteArray::number(port);
    ASSERT_TRUE(spinUntil([&] { return readFile(journal).contains("is in use by another program"); }, 10000))
        << readFile(journal).constData();
    postiq.terminate();
    EXPECT_TRUE(postiq.waitForFinished(10000));

    const QList<QByteArray> lines = readFile(journal).split('\n');
    const auto lineWith = [&](const QByteArray& part) {
        for (const QByteArray& line : lines)
            if (line.contains(part))
                return line;
        return QByteArray();
    };
    EXPECT_TRUE(lineWith(" Port " + portText + " utilisé").startsWith("<3>"));
    EXPECT_TRUE(lineWith("postiq: port " + portText).startsWith("<3>postiq: port "));
    const QByteArray configuration = lineWith("Chargement de la configuration");
    EXPECT_FALSE(configuration.isEmpty());
    EXPECT_FALSE(configuration.startsWith('<')); // the journal's default priority, information
}

TEST(TerminalText, OnlyTheUnavailablePortLineGetsAdvice)
{
    const auto never = [](quint16) { return false; };
    EXPECT_TRUE(terminal_text::logLineAdvice("Nov 23 2026 22:00:00 Postiq Start of SMTP service", "/f", never)
                    .isEmpty());
    // The same words inside a message's text are not the service's line.
    EXPECT_TRUE(terminal_text::logLineAdvice("Nov 23 2026 22:00:00 Port 25 utilisé par une autre application.",
                                             "/f", never)
                    .isEmpty());
    EXPECT_TRUE(terminal_text::refusalAdvice(QStringLiteral("Erreur fatale"), QStringLiteral("/f")).isEmpty());
    EXPECT_EQ(terminal_text::refusalAdvice(QStringLiteral("Fichier de log 'error.txt' en lecture seule !"),
                                           QStringLiteral("/f")),
              "postiq: /f/error.txt is read-only: make it writable (chmod u+w /f/error.txt) and start again");
}
