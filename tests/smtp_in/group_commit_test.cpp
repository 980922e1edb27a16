#include <QSemaphore>
#include <atomic>
#include <csignal>
#include <list>
#include <memory>
#include <sys/resource.h>

#include "smtp_bench.h"
#include "smtp_in/inbound_server.h"

using namespace postiq;
using namespace postiq::test;

namespace {
// The inbound session alone on a listener of its own, so that its commit queue can be reached.
struct CommitBench {
    QTemporaryDir dir;
    RecordingDesktop desktop;
    FixedClock clock;
    Settings settings;
    Logs logs{dir.path(), settings, desktop, clock};
    DnsCache cache;
    ConnectionTables tables{logs, settings, cache};
    Queue queue{dir.path()};
    InboundServer session{logs, settings, tables, queue};
    quint16 port = 0;

    CommitBench()
    {
        settings.ConfigLoaded = true;
        QDir(dir.path()).mkdir(QStringLiteral("OutBox"));
        tables.SmtpListener().listen(QHostAddress::LocalHost);
        port = tables.SmtpListener().serverPort();
    }
    QString path(const QString& name) const { return dir.path() + '/' + name; }
    // Every entry of OutBox, the hidden staging files included.
    QStringList outBox() const
    {
        return QDir(path(QStringLiteral("OutBox"))).entryList(QDir::Files | QDir::Hidden);
    }
    QByteArray log(const char* name) const { return readFile(path(QString::fromLatin1(name))); }
};

// A flush that holds every round until the test lets it go, then does the real work.
struct GatedFlush {
    QSemaphore gate;
    std::atomic<int> entered{0};
    CommitQueue::Flush flush()
    {
        return [this](const QList<StagedFile>& files, QString* error) {
            ++entered;
            gate.acquire();
            return CommitStagedFiles(files, error);
        };
    }
};

const QByteArray kDataEnd = "Subject: x\r\n\r\nbody\r\n.\r\n";
const QByteArray kNoStorage = "452 Insufficient system storage";
} // namespace

// The 250 waits for the disk. A message staged while a round runs starts a round of its own, and
// sessions that end their data in the same turn share it; past the rounds allowed at once, the
// next round waits for one to end and then takes everything staged meanwhile.
TEST(GroupCommit, RepliesOnlyOnceTheFilesAreOnDiskAndSharesRoundsAmongWaitingSessions)
{
    CommitBench bench;
    GatedFlush gated;
    bench.session.commitQueue().setFlush(gated.flush());

    constexpr int kAtOnce = CommitQueue::kMostRoundsAtOnce;
    constexpr int kClients = kAtOnce + 4;
    std::list<Client> clients;
    for (int i = 0; i < kClients; ++i)
        play(clients.emplace_back(bench.port), kEnvelope);
    auto client = clients.begin();
    EXPECT_EQ(client->answer(kDataEnd, 100), QByteArray()); // held by the first round
    ASSERT_TRUE(spinUntil([&] { return gated.entered == 1; }));
    for (++client; client != std::next(clients.begin(), 3); ++client) // together, in one round
        client->socket.write(kDataEnd);
    ASSERT_TRUE(spinUntil([&] { return gated.entered == 2; }));
    for (int round = 3; round <= kAtOnce; ++round, ++client) {
        client->socket.write(kDataEnd);
        ASSERT_TRUE(spinUntil([&] { return gated.entered == round; }));
    }
    for (; client != clients.end(); ++client) // more than the rounds allowed at once: they wait
        client->socket.write(kDataEnd);
    for (Client& waiting : clients)
        EXPECT_EQ(waiting.answer({}, 20), QByteArray());
    EXPECT_EQ(gated.entered, kAtOnce);
    // Nothing visible yet: only the staged files, hidden.
    EXPECT_TRUE(QDir(bench.path(QStringLiteral("OutBox"))).entryList(QDir::Files).isEmpty());
    EXPECT_EQ(bench.outBox().size(), kClients);

    gated.gate.release(); // one of the rounds ends; the last three messages share the next
    ASSERT_TRUE(spinUntil([&] { return gated.entered == kAtOnce + 1; }));
    gated.gate.release(kAtOnce);
    for (Client& waiting : clients)
        EXPECT_EQ(waiting.answer(), kAccepted);

    EXPECT_EQ(bench.session.commitQueue().rounds(), kAtOnce + 1);
    EXPECT_EQ(bench.session.commitQueue().messages(), kClients);
    const QStringList files = bench.outBox();
    EXPECT_EQ(files.size(), kClients);
    EXPECT_TRUE(std::none_of(files.begin(), files.end(), [](const QString& f) { return f.startsWith('.'); }));
    EXPECT_EQ(bench.log("maillog.txt").count("status=outbox"), kClients);
}

// A flush that fails turns the 250 into a 452, leaves no file, and the session goes on.
TEST(GroupCommit, AFailedFlushAnswers452AndLeavesNoFile)
{
    CommitBench bench;
    bench.session.commitQueue().setFlush([](const QList<StagedFile>& files, QString* error) {
        *error = QStringLiteral("Cannot save to disk '%1': Input/output error").arg(files.first().staging);
        return false;
    });
    Client client(bench.port);
    // Two domains: two staged files, both gone.
    play(client, {{"", kGreeting},
                  {"HELO box\r\n", "250 Hello box"},
                  {"MAIL FROM:<a@x.com>\r\n", "250 sender is <a@x.com> sender ok"},
                  {"RCPT TO:<b@y.org>\r\n", "250 recipient is <b@y.org> recipient ok"},
                  {"RCPT TO:<c@z.org>\r\n", "250 recipient is <c@z.org> recipient ok"},
                  {"DATA\r\n", kGoAhead},
                  {kDataEnd, kNoStorage}});
    EXPECT_TRUE(bench.outBox().isEmpty());
    EXPECT_FALSE(bench.log("maillog.txt").contains("status=outbox"));
    EXPECT_TRUE(bench.log("error.txt").contains(kStamp + " Postiq/smtplocal[1]: message not stored: Cannot save"));

    bench.session.commitQueue().setFlush([](const QList<StagedFile>& files, QString* error) {
        return CommitStagedFiles(files, error);
    });
    play(client, {{"MAIL FROM:<a@x.com>\r\n", "250 sender is <a@x.com> sender ok"},
                  {"RCPT TO:<b@y.org>\r\n", "250 recipient is <b@y.org> recipient ok"},
                  {"DATA\r\n", kGoAhead},
                  {kDataEnd, kAccepted},
                  {"QUIT\r\n", "221 Postiq Goodbye"}});
    EXPECT_EQ(bench.outBox().size(), 1);
}

// What a client sends while it waits is answered after its 250; one that leaves meanwhile still
// has its message stored, and its slot is freed.
TEST(GroupCommit, AWaitingClientIsAnsweredInOrderAndOneThatLeavesStillHasItsMessageStored)
{
    CommitBench bench;
    GatedFlush gated;
    bench.session.commitQueue().setFlush(gated.flush());

    Client patient(bench.port);
    play(patient, kEnvelope);
    EXPECT_EQ(patient.answer(kDataEnd, 50), QByteArray());
    ASSERT_TRUE(spinUntil([&] { return gated.entered == 1; }));
    EXPECT_EQ(patient.answer("QUIT\r\n", 50), QByteArray());
    gated.gate.release();
    EXPECT_EQ(patient.answer(), kAccepted);
    EXPECT_EQ(patient.answer(), "221 Postiq Goodbye");
    EXPECT_TRUE(patient.closed());

    auto leaving = std::make_unique<Client>(bench.port);
    play(*leaving, kEnvelope);
    leaving->socket.write(kDataEnd);
    ASSERT_TRUE(spinUntil([&] { return gated.entered == 2; }));
    leaving->socket.abort();
    leaving.reset();
    spinUntil([] { return false; }, 50); // the session sees the client go while it waits
    gated.gate.release();
    ASSERT_TRUE(spinUntil([&] { return bench.log("maillog.txt").contains("lost connection"); }));
    EXPECT_EQ(bench.log("maillog.txt").count("status=outbox"), 2);
    EXPECT_EQ(QDir(bench.path(QStringLiteral("OutBox"))).entryList(QDir::Files).size(), 2);
    EXPECT_TRUE(spinUntil([&] { return bench.tables.InSession(1) == nullptr && bench.tables.InSession(2) == nullptr; }));
}

// The disk round itself is all or nothing: a name taken meanwhile is never replaced, and nothing
// of the round is left behind.
TEST(GroupCommit, CommittingStagedFilesNeverReplacesAFileAndLeavesNothingOnFailure)
{
    QTemporaryDir dir;
    const QString a = dir.filePath(QStringLiteral("A")), b = dir.filePath(QStringLiteral("B"));
    QString error;
    StagedFile stagedA, stagedB;
    ASSERT_TRUE(StageFile(a, "first", &stagedA, &error)) << qPrintable(error);
    ASSERT_TRUE(StageFile(b, "second", &stagedB, &error)) << qPrintable(error);
    EXPECT_FALSE(StageFile(b, "again", &stagedB, &error)); // a write in progress is not replaced
    QFile taken(b); // queued meanwhile under the same name
    ASSERT_TRUE(taken.open(QIODevice::WriteOnly) && taken.write("queued before") == 13);
    taken.close();

    EXPECT_FALSE(CommitStagedFiles({stagedA, stagedB}, &error));
    EXPECT_TRUE(error.contains(QStringLiteral("Cannot rename to"))) << qPrintable(error);
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden), QStringList{QStringLiteral("B")});
    EXPECT_EQ(readFile(b), "queued before");

    ASSERT_TRUE(StageFile(a, "first", &stagedA, &error));
    EXPECT_TRUE(CommitStagedFiles({stagedA}, &error)) << qPrintable(error);
    EXPECT_EQ(readFile(a), "first");
    EXPECT_FALSE(QFileInfo::exists(stagedA.staging));
}

// A round of more files than are saved to disk at once: all of them are committed; one that
// cannot be saved (gone under the round) fails the whole round and leaves nothing of it.
TEST(GroupCommit, ARoundOfManyFilesIsCommittedWholeOrNotAtAll)
{
    QTemporaryDir dir;
    QString error;
    QList<StagedFile> staged(40);
    for (int i = 0; i < 40; ++i)
        ASSERT_TRUE(StageFile(dir.filePath(QString::number(i)), QByteArray::number(i), &staged[i], &error));
    EXPECT_TRUE(CommitStagedFiles(staged, &error)) << qPrintable(error);
    for (int i = 0; i < 40; ++i)
        EXPECT_EQ(readFile(dir.filePath(QString::number(i))), QByteArray::number(i));
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden).size(), 40);

    QTemporaryDir other;
    for (int i = 0; i < 40; ++i)
        ASSERT_TRUE(StageFile(other.filePath(QString::number(i)), "x", &staged[i], &error));
    ASSERT_TRUE(QFile::remove(staged[29].staging));
    EXPECT_FALSE(CommitStagedFiles(staged, &error));
    EXPECT_TRUE(error.startsWith(QStringLiteral("Cannot open '") + staged[29].staging)) << qPrintable(error);
    EXPECT_TRUE(QDir(other.path()).entryList(QDir::Files | QDir::Hidden).isEmpty());
}

// A message that cannot even be staged (here OutBox is a plain file, so no queue file can be
// made there) is refused with a 452 and leaves nothing; the relay and the session go on, and the
// next message, once the folder is back, is stored.
TEST(GroupCommit, AMessageThatCannotBeStagedIsRefusedAndTheSessionGoesOn)
{
    CommitBench bench;
    const QString outBox = bench.path(QStringLiteral("OutBox"));
    ASSERT_TRUE(QDir(outBox).removeRecursively());
    writeFile(outBox, "not a folder");
    Client client(bench.port);
    const Dialogue oneDomain = {
        {"MAIL FROM:<a@x.com>\r\n", "250 sender is <a@x.com> sender ok"},
        {"RCPT TO:<b@y.org>\r\n", "250 recipient is <b@y.org> recipient ok"},
    };
    const Dialogue twoDomains = oneDomain + Dialogue{{"RCPT TO:<c@z.org>\r\n", "250 recipient is <c@z.org> recipient ok"}};
    play(client, {{"", kGreeting}, {"HELO box\r\n", "250 Hello box"}});
    for (const Dialogue& envelope : {oneDomain, twoDomains}) // one file, then one per domain
        play(client, envelope + Dialogue{{"DATA\r\n", kGoAhead}, {kDataEnd, kNoStorage}});
    EXPECT_EQ(bench.log("error.txt").count(kStamp + " Postiq/smtplocal[1]: message not stored: "), 2);
    EXPECT_TRUE(bench.desktop.diagnostics.isEmpty()); // no fatal report

    ASSERT_TRUE(QFile::remove(outBox));
    ASSERT_TRUE(QDir().mkdir(outBox));
    play(client, oneDomain + Dialogue{{"DATA\r\n", kGoAhead}, {kDataEnd, kAccepted}, {"QUIT\r\n", "221 Postiq Goodbye"}});
    EXPECT_EQ(bench.outBox().size(), 1);
}

namespace {
// While it lives, no file of this process may grow past `bytes`: a write beyond fails (EFBIG) as a
// full disk would fail it, at the same place in the text.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        ::getrlimit(RLIMIT_FSIZE, &saved_);
        signal_ = std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{bytes, saved_.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit()
    {
        ::setrlimit(RLIMIT_FSIZE, &saved_);
        std::signal(SIGXFSZ, signal_);
    }

private:
    rlimit saved_{};
    void (*signal_)(int) = nullptr;
};
} // namespace

// A write that fails in the middle of a text is answered once the text is over, with 452: what was
// written goes at once, the session stays in step (RSET, anything else, the next message), and a
// client that vanishes in its text leaves nothing either.
TEST(GroupCommit, AWriteThatFailsInTheTextIsAnswered452AtItsEndAndLeavesNothing)
{
    CommitBench bench;
    const QByteArray text = QByteArray(998, 't').append("\r\n").repeated(600); // 600 KB
    Client client(bench.port);
    {
        FileSizeLimit limit(300 * 1024);
        play(client, kEnvelope);
        EXPECT_EQ(client.answer(text, 200), QByteArray()); // read on, not answered yet
        EXPECT_EQ(client.answer(text + ".\r\n"), kNoStorage);
        EXPECT_TRUE(bench.outBox().isEmpty());
        play(client, {{"RSET\r\n", "250 Reset Ok."},
                      {"garbage\r\n", "500 Unrecognized command."},
                      {"MAIL FROM:<a@x.com>\r\n", "250 sender is <a@x.com> sender ok"},
                      {"RCPT TO:<b@y.org>\r\n", "250 recipient is <b@y.org> recipient ok"},
                      {"RCPT TO:<c@z.org>\r\n", "250 recipient is <c@z.org> recipient ok"},
                      {"DATA\r\n", kGoAhead},
                      {text + ".\r\n", kNoStorage}});
        EXPECT_TRUE(bench.outBox().isEmpty());
    }
    EXPECT_TRUE(bench.log("error.txt").contains(kStamp + " Postiq/smtplocal[1]: message not stored: Cannot write"));
    play(client, {{"MAIL FROM:<a@x.com>\r\n", "250 sender is <a@x.com> sender ok"},
                  {"RCPT TO:<b@y.org>\r\n", "250 recipient is <b@y.org> recipient ok"},
                  {"DATA\r\n", kGoAhead},
                  {text + ".\r\n", kAccepted}});
    {
        Client leaving(bench.port);
        play(leaving, kEnvelope);
        EXPECT_EQ(leaving.answer(text, 200), QByteArray());
    }
    EXPECT_TRUE(spinUntil([&] { return bench.tables.InSession(2) == nullptr; }));
    EXPECT_EQ(bench.outBox().size(), 1);
    EXPECT_FALSE(bench.outBox().first().startsWith('.'));
}
