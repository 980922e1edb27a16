#include <QDir>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include <sched.h>
#include <sys/mount.h>

#include "core/postiq_process.h"
#include "store/message.h"
#include "store/queue.h"
#include "support/fakes.h"
#include "support/mail_client.h"
#include "support/thread_clients.h"

using namespace postiq;
using namespace postiq::test;

namespace {

struct Finished {
    int status = -1;
    QByteArray out;
    QByteArray err;
};

// Real programs that call sendmail, each pointed at the relay's folder.
struct SendmailCallers : ::testing::Test {
    QTemporaryDir root;
    QString folder = root.path() + QStringLiteral("/relay");
    QString bin = root.path() + QStringLiteral("/bin"); // holds a "sendmail" link to the program
    LogBench bench;

    void SetUp() override
    {
        QDir().mkpath(folder);
        QDir().mkpath(bin);
        ASSERT_TRUE(QFile::link(QStringLiteral(POSTIQ_BINARY), bin + QStringLiteral("/sendmail")));
        ASSERT_TRUE(QFile::link(QStringLiteral(POSTIQ_BINARY), bin + QStringLiteral("/mailq")));
    }
    QProcessEnvironment environment() const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("POSTIQ_FOLDER"), folder);
        env.insert(QStringLiteral("PATH"), bin + ':' + env.value(QStringLiteral("PATH")));
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), root.path() + QStringLiteral("/config"));
        env.insert(QStringLiteral("HOME"), root.path());
        env.remove(QStringLiteral("DISPLAY"));
        return env;
    }
    Finished run(const QString& program, const QStringList& arguments, const QByteArray& input = {},
            const QString& directory = {})
    {
        QProcess process;
        process.setProcessEnvironment(environment());
        if (!directory.isEmpty())
            process.setWorkingDirectory(directory);
        process.start(program, arguments);
        process.write(input);
        process.closeWriteChannel();
        Finished result;
        if (!process.waitForFinished(30000))
            return result;
        result.status = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
        result.out = process.readAllStandardOutput();
        result.err = process.readAllStandardError();
        return result;
    }
    // Every queued message of a folder, with its recipients.
    QList<CMessage> queued(QueueFolder folder = QueueFolder::OutBox)
    {
        QList<CMessage> messages;
        Queue queue(this->folder);
        for (const QueueEntry& entry : queue.list(folder)) {
            CMessage message(bench.logs);
            queue.read(folder, entry.name, message);
            messages.append(message);
        }
        return messages;
    }
    bool noHiddenFiles()
    {
        return QDir(folder + QStringLiteral("/OutBox")).entryList({QStringLiteral(".*")}, QDir::Files | QDir::Hidden).isEmpty();
    }
};

QByteArray headerOf(const CMessage& message) { return message.Data.left(message.Data.indexOf("\r\n\r\n") + 2); }

} // namespace

TEST_F(SendmailCallers, GitSendEmailHandsItsPatchOver)
{
    const QString repo = root.path() + QStringLiteral("/repo");
    QDir().mkpath(repo);
    const auto git = [&](const QStringList& arguments) { return run(QStringLiteral("git"), arguments, {}, repo); };
    ASSERT_EQ(git({"init", "-q"}).status, 0);
    git({"config", "user.name", "Patch Writer"});
    git({"config", "user.email", "writer@example.org"});
    writeFile(repo + QStringLiteral("/file.txt"), "first line\n.a line with a dot\n");
    git({"add", "file.txt"});
    ASSERT_EQ(git({"commit", "-q", "-m", "Add the file"}).status, 0);

    const Finished sent = git({"send-email", "--sendmail-cmd=" + QStringLiteral(POSTIQ_BINARY) + " --folder " + folder
                              + " --sendmail",
                          "--to=Reviewer <Reviewer@Lists.Example.net>", "--cc=other@example.com", "--suppress-cc=all",
                          "--envelope-sender=writer@example.org", "--confirm=never", "--quiet", "-1"});
    if (sent.err.contains("is not a git command"))
        GTEST_SKIP() << "git send-email is not installed";
    ASSERT_EQ(sent.status, 0) << sent.err.constData();

    const QList<CMessage> messages = queued();
    ASSERT_EQ(messages.size(), 2); // one file per recipient domain
    QByteArrayList recipients;
    for (const CMessage& m : messages) {
        recipients.append(m.RcptTo(1));
        EXPECT_EQ(m.From, QByteArray("<writer@example.org>"));
        EXPECT_TRUE(m.Data.startsWith("Received: by ")) << m.Data.constData();
        EXPECT_EQ(headerOf(m).toLower().count("\r\nmessage-id: "), 1); // git's own, none added
        EXPECT_TRUE(m.Data.contains("Subject: [PATCH] Add the file\r\n"));
        EXPECT_TRUE(m.Data.contains("\r\n+.a line with a dot\r\n")); // stored unstuffed
    }
    std::sort(recipients.begin(), recipients.end());
    EXPECT_EQ(recipients, (QByteArrayList{"<other@example.com>", "<reviewer@lists.example.net>"}));
}

TEST_F(SendmailCallers, PhpStyleMailxAndCronAreQueuedWithTheirHeadersCompleted)
{
    // Python's subprocess as PHP's mail() runs it: "sendmail -t -i", the message on stdin.
    const QByteArray php = "import subprocess\n"
                           "msg = b'To: php@example.org\\nSubject: from php\\nBcc: blind@example.net\\n\\n.line\\nbye\\n'\n"
                           "raise SystemExit(subprocess.run(['sendmail', '-t', '-i'], input=msg).returncode)\n";
    Finished result = run(QStringLiteral("python3"), {"-c", QString::fromLatin1(php)});
    ASSERT_EQ(result.status, 0) << result.err.constData();
    QList<CMessage> messages = queued();
    ASSERT_EQ(messages.size(), 2);
    for (const CMessage& m : messages) {
        EXPECT_TRUE(m.Data.endsWith("\r\n\r\n.line\r\nbye\r\n")) << m.Data.constData();
        EXPECT_FALSE(m.Data.contains("blind"));
        for (const char* field : {"\r\nFrom: ", "\r\nDate: ", "\r\nMessage-ID: <"})
            EXPECT_TRUE(headerOf(m).contains(field)) << field;
    }
    for (const QueueEntry& e : Queue(folder).list(QueueFolder::OutBox))
        Queue(folder).remove(QueueFolder::OutBox, e.name);

    // mailx from bsd-mailx, pointed at the link by its own setting.
    if (!QStandardPaths::findExecutable(QStringLiteral("bsd-mailx")).isEmpty()) {
        writeFile(root.path() + QStringLiteral("/mailrc"), "set sendmail=" + bin.toUtf8() + "/sendmail\n");
        QProcessEnvironment env = environment();
        QProcess mailx;
        env.insert(QStringLiteral("MAILRC"), root.path() + QStringLiteral("/mailrc"));
        mailx.setProcessEnvironment(env);
        mailx.start(QStringLiteral("bsd-mailx"), {"-s", "from mailx", "mx@example.org"});
        mailx.write("text written\nin mailx\n");
        mailx.closeWriteChannel();
        ASSERT_TRUE(mailx.waitForFinished(30000));
        EXPECT_EQ(mailx.exitCode(), 0) << mailx.readAllStandardError().constData();
        ASSERT_TRUE(spinUntil([&] { return queued().size() == 1; }, 10000));
        messages = queued();
        EXPECT_EQ(messages[0].RcptTo(1), QByteArray("<mx@example.org>"));
        EXPECT_TRUE(messages[0].Data.contains("Subject: from mailx\r\n"));
        EXPECT_TRUE(messages[0].Data.endsWith("\r\n\r\ntext written\r\nin mailx\r\n")) << messages[0].Data.constData();
        Queue(folder).remove(QueueFolder::OutBox, messages[0].ID);
    }

    // A cron job's line, no header at all, to a local user; -v names the queue file.
    result = run(bin + QStringLiteral("/sendmail"), {"-v", "-FCron Daemon", "root"}, "backup finished: 0 errors\n");
    ASSERT_EQ(result.status, 0) << result.err.constData();
    messages = queued();
    ASSERT_EQ(messages.size(), 1);
    EXPECT_TRUE(result.out.contains("queued as " + messages[0].ID)) << result.out.constData();
    EXPECT_TRUE(messages[0].RcptTo(1).startsWith("<root@"));
    EXPECT_TRUE(headerOf(messages[0]).contains("\r\nFrom: Cron Daemon <"));
    EXPECT_TRUE(messages[0].Data.endsWith("\r\n\r\nbackup finished: 0 errors\r\n"));

    // mailq is the listing.
    result = run(bin + QStringLiteral("/mailq"), {});
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(result.out.contains(messages[0].ID)) << result.out.constData();
}

TEST_F(SendmailCallers, BadUsageAndBadMessagesAreRefusedWithTheirStatus)
{
    EXPECT_EQ(run(bin + QStringLiteral("/sendmail"), {"-bs"}).status, 64);
    EXPECT_EQ(run(bin + QStringLiteral("/sendmail"), {"-t"}, "Subject: nobody\n\nx\n").status, 65);
    EXPECT_EQ(run(bin + QStringLiteral("/sendmail"), {"a@b@c"}, "x\n").status, 65);
    EXPECT_TRUE(queued().isEmpty());
    EXPECT_TRUE(noHiddenFiles());
}

// Sendmail processes and SMTP clients at once: every message queued once, nothing lost or doubled.
TEST_F(SendmailCallers, TwentyAtOnceWhileTheRelayReceivesOverSmtp)
{
    const quint16 port = freeListenPort();
    writeFile(folder + QStringLiteral("/Postiq.ini"), "ListenPort\t" + QByteArray::number(port) + "\r\nKeepLocal\tOn\r\n");
    PostiqProcess relay(folder, root.path() + QStringLiteral("/config"));
    ASSERT_TRUE(spinUntil([&] { return readFile(folder + QStringLiteral("/maillog.txt")).contains("Start of SMTP service"); }, 10000));

    std::vector<std::unique_ptr<QProcess>> senders;
    for (int i = 0; i < 20; ++i) {
        auto process = std::make_unique<QProcess>();
        process->setProcessEnvironment(environment());
        process->start(bin + QStringLiteral("/sendmail"), {"-i", QStringLiteral("s%1@example.org").arg(i)});
        process->write("Subject: sendmail " + QByteArray::number(i) + "\n\nbody\n");
        process->closeWriteChannel();
        senders.push_back(std::move(process));
    }
    const std::vector<bool> smtp = runInParallel(10, [port](int i) {
        return sendOneMessage(port, "<c@example.org>", "<smtp" + std::to_string(i) + "@example.org>",
                              "Subject: smtp " + std::to_string(i) + "\r\n\r\nbody\r\n");
    });
    for (auto& process : senders) {
        ASSERT_TRUE(process->waitForFinished(30000));
        EXPECT_EQ(process->exitCode(), 0) << process->readAllStandardError().constData();
    }
    EXPECT_EQ(std::count(smtp.begin(), smtp.end(), true), 10);

    QMap<QByteArray, int> seen;
    for (const CMessage& m : queued())
        ++seen[m.Data.mid(m.Data.indexOf("Subject: ") + 9).split('\r').first()];
    EXPECT_EQ(seen.size(), 30);
    for (auto it = seen.cbegin(); it != seen.cend(); ++it)
        EXPECT_EQ(it.value(), 1) << it.key().constData();
    EXPECT_TRUE(noHiddenFiles());
    EXPECT_TRUE(relay.running());
}

// The program folder on a file system that is nearly full: 75, and nothing half-written.
TEST_F(SendmailCallers, AFullDiskIsATemporaryFailureThatLeavesNothing)
{
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        GTEST_SKIP() << "no private mount namespace (needs root)";
    ASSERT_EQ(::mount("tmpfs", QFile::encodeName(folder).constData(), "tmpfs", 0, "size=128k"), 0);

    Finished result = run(bin + QStringLiteral("/sendmail"), {"a@example.org", "b@example.net"},
                     "Subject: big\n\n" + QByteArray(200 * 1024, 'x') + "\n");
    EXPECT_EQ(result.status, 75) << result.err.constData();
    EXPECT_TRUE(queued().isEmpty());
    EXPECT_TRUE(noHiddenFiles());
    result = run(bin + QStringLiteral("/sendmail"), {"a@example.org"}, "Subject: small\n\nfits\n");
    EXPECT_EQ(result.status, 0) << result.err.constData();
    EXPECT_EQ(queued().size(), 1);
    ::umount2(QFile::encodeName(folder).constData(), MNT_DETACH);
}
