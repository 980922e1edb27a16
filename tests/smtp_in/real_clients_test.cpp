// Today's mail programs hand their mail to the real relay with their default settings, and the
// queue holds each text exactly as the program wrote it, under the relay's Received header.
#include <QDir>
#include <QProcess>
#include <QStandardPaths>

#include "core/kept_local_relay.h"
#include "store/message.h"
#include "support/fakes.h"

using namespace postiq;
using namespace postiq::test;

namespace {

// Dots at the start of lines, a line of the longest length allowed and 8-bit bytes. The headers a
// program would add are there already, so that the text goes as it is.
QByteArray textFor(const QByteArray& tag)
{
    return "From: a@x.com\r\nTo: b@y.org\r\nDate: Mon, 23 Nov 2026 10:00:00 +0000\r\nMessage-ID: <" + tag
        + "@x.com>\r\nSubject: " + tag + "\r\n\r\n.leading dot\r\n..two dots\r\n.\r\n" + QByteArray(998, 'w')
        + "\r\n8-bit: \xc3\xa9\xff\r\n";
}

struct RealClients : KeptLocalRelay {
    // Skips the test when `program` is not installed.
    bool installed(const char* program)
    {
        return !QStandardPaths::findExecutable(QString::fromLatin1(program)).isEmpty()
            || QFileInfo::exists(QStringLiteral("/usr/sbin/") + QLatin1String(program));
    }
    QString saved(const QByteArray& text)
    {
        const QString path = root.path() + QStringLiteral("/message.txt");
        writeFile(path, text);
        return path;
    }
    // Runs a program to its end with `input` on its standard input; its exit status, -1 when it
    // did not end within a minute.
    int run(const QString& program, const QStringList& arguments, const QByteArray& input = {})
    {
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("HOME"), root.path()); // no personal settings
        process.setProcessEnvironment(environment);
        process.start(program, arguments);
        process.write(input);
        process.closeWriteChannel();
        if (!process.waitForFinished(60000)) {
            process.kill();
            process.waitForFinished();
            return -1;
        }
        output = process.readAllStandardOutput() + process.readAllStandardError();
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }
    // The one message in OutBox, once it is there; its Received header names its file.
    CMessage stored()
    {
        const QDir outBox(folder + QStringLiteral("/OutBox"));
        spinUntil([&] { return !outBox.entryList(QDir::Files).isEmpty(); }, 10000);
        const QStringList files = outBox.entryList(QDir::Files);
        CMessage message(bench.logs);
        EXPECT_EQ(files.size(), 1);
        if (files.isEmpty())
            return message;
        message.MLoad(outBox.filePath(files[0]));
        EXPECT_TRUE(message.Data.startsWith("Received: from ")) << message.Data.left(200).constData();
        EXPECT_TRUE(message.Data.contains(" (Postiq) with ESMTP id " + files[0].toLatin1() + ";\r\n\t"));
        EXPECT_EQ(message.RcptTo(message.MRcptToCount()), "<b@y.org>");
        return message;
    }

    LogBench bench;
    QByteArray output;
};

TEST_F(RealClients, Msmtp)
{
    if (!installed("msmtp"))
        GTEST_SKIP() << "msmtp is not installed";
    const QByteArray text = textFor("msmtp");
    ASSERT_EQ(run(QStringLiteral("msmtp"), {"--host=127.0.0.1", "--port=" + QString::number(port), "--from=a@x.com", "b@y.org"}, text), 0)
        << output.constData();
    const CMessage message = stored();
    EXPECT_EQ(message.From, "<a@x.com>");
    EXPECT_EQ(WithoutReceived(message.Data), text);
}

// swaks ends every text with a line end of its own before the dot, with and without pipelining.
TEST_F(RealClients, SwaksAlsoPipelining)
{
    if (!installed("swaks"))
        GTEST_SKIP() << "swaks is not installed";
    for (const bool pipeline : {false, true}) {
        const QByteArray text = textFor(pipeline ? "swaks-pipelining" : "swaks");
        QStringList arguments{"--server", "127.0.0.1:" + QString::number(port), "--from", "a@x.com", "--to", "b@y.org",
                              "--data", '@' + saved(text)};
        if (pipeline)
            arguments << QStringLiteral("--pipeline");
        ASSERT_EQ(run(QStringLiteral("swaks"), arguments), 0) << output.constData();
        if (pipeline) { // it asks for pipelining and fails if the server does not offer it
            EXPECT_TRUE(output.contains("250-PIPELINING")) << output.constData();
        }
        const CMessage message = stored();
        EXPECT_EQ(WithoutReceived(message.Data), text + "\r\n");
        QDir(folder + QStringLiteral("/OutBox")).removeRecursively();
        QDir().mkpath(folder + QStringLiteral("/OutBox"));
    }
}

TEST_F(RealClients, Curl)
{
    if (!installed("curl"))
        GTEST_SKIP() << "curl is not installed";
    const QByteArray text = textFor("curl");
    ASSERT_EQ(run(QStringLiteral("curl"), {"-sS", "smtp://127.0.0.1:" + QString::number(port), "--mail-from", "a@x.com",
                                           "--mail-rcpt", "b@y.org", "--upload-file", saved(text)}),
              0)
        << output.constData();
    EXPECT_EQ(WithoutReceived(stored().Data), text);
}

// smtplib says EHLO, sends SIZE= with MAIL FROM, and the null sender as "<>".
TEST_F(RealClients, PythonSmtplibWithEhloAndTheNullSender)
{
    if (!installed("python3"))
        GTEST_SKIP() << "python3 is not installed";
    const QByteArray text = textFor("smtplib");
    const QString script = QStringLiteral(
        "import smtplib, sys\n"
        "with smtplib.SMTP('127.0.0.1', %1) as s:\n"
        "    s.ehlo('desk.example')\n"
        "    assert s.has_extn('pipelining') and s.has_extn('8bitmime'), s.esmtp_features\n"
        "    assert s.esmtp_features['size'] == '67108864', s.esmtp_features\n"
        "    s.sendmail('', ['b@y.org'], open(sys.argv[1], 'rb').read())\n").arg(port);
    ASSERT_EQ(run(QStringLiteral("python3"), {"-c", script, saved(text)}), 0) << output.constData();
    const CMessage message = stored();
    EXPECT_EQ(message.From, "<>");
    EXPECT_EQ(WithoutReceived(message.Data), text);
    EXPECT_TRUE(message.Data.startsWith("Received: from desk.example ([127.0.0.1])\r\n\tby "));
}

// NeoMutt composes the message itself; the body's dotted lines arrive as they were written. Its
// Debian build insists on TLS unless told otherwise, and Postiq offers none.
TEST_F(RealClients, NeoMutt)
{
    if (!installed("neomutt"))
        GTEST_SKIP() << "neomutt is not installed";
    const QStringList arguments{"-n", "-F", "/dev/null",
                                "-e", "set smtp_url=smtp://127.0.0.1:" + QString::number(port) + "/",
                                "-e", "set from=a@x.com", "-e", "set ssl_force_tls=no",
                                "-s", "from neomutt", "b@y.org"};
    ASSERT_EQ(run(QStringLiteral("neomutt"), arguments, "body\n.leading dot\n..two dots\n.\nend\n"), 0)
        << output.constData();
    const CMessage message = stored();
    EXPECT_EQ(message.From, "<a@x.com>");
    EXPECT_TRUE(message.Data.contains("\r\nSubject: from neomutt\r\n"));
    EXPECT_TRUE(message.Data.endsWith("\r\n\r\nbody\r\n.leading dot\r\n..two dots\r\n.\r\nend\r\n"))
        << message.Data.constData();
}

// A private Postfix instance with Postiq as its relay host: the text that Postfix was given is
// stored below Postiq's and Postfix's Received headers.
TEST_F(RealClients, PostfixRelaysThroughPostiq)
{
    if (!installed("postfix") || !installed("sendmail"))
        GTEST_SKIP() << "Postfix is not installed";
    const QByteArray text = textFor("postfix");
    // Postfix's own processes run as its user, and must reach its folders.
    QFile::setPermissions(root.path(), QFile::permissions(root.path()) | QFile::ExeOther | QFile::ReadOther);
    const QString script = QStringLiteral(POSTIQ_SOURCE_DIR "/tests/smtp_in/postfix_relay.sh");
    const int status = run(QStringLiteral("sh"),
                           {script, root.path() + QStringLiteral("/postfix"), QString::number(port),
                            QString::number(freeListenPort()), "a@x.com", "b@y.org"},
                           QByteArray(text).replace("\r\n", "\n"));
    if (status == 77)
        GTEST_SKIP() << "Postfix cannot run here: " << output.constData();
    ASSERT_EQ(status, 0) << output.constData();
    const CMessage message = stored();
    EXPECT_EQ(message.From, "<a@x.com>");
    const qsizetype body = text.indexOf("\r\n\r\n");
    EXPECT_TRUE(message.Data.endsWith(text.mid(body))) << message.Data.constData();
    for (const QByteArray& header : text.left(body).split('\n'))
        EXPECT_TRUE(message.Data.contains(header.trimmed() + "\r\n")) << header.constData();
    EXPECT_TRUE(WithoutReceived(message.Data).startsWith("Received: by postfix.test (Postfix"));
}

} // namespace
