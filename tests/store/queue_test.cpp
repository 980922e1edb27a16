#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <algorithm>
#include <tuple>

#include <sched.h>
#include <sys/mount.h>
#include <utime.h>

#include "platform/locked_file.h"
#include "store/message.h"
#include "store/queue.h"
#include "store/queue_text_reader.h"
#include "support/fakes.h"

using namespace postiq;
using namespace postiq::test;

namespace {

struct QueueBench : ::testing::Test {
    QTemporaryDir root;
    LogBench bench; // only for the records' logs
    Queue queue{root.path()};

    void SetUp() override { queue.createMissingFolders(); }

    CMessage message(QList<QByteArray> recipients, const QByteArray& data = "Subject: t\r\n\r\nhi\r\n")
    {
        CMessage m(bench.logs);
        m.From = "<me@here.org>";
        for (const QByteArray& r : recipients)
            m.AddRcptTo(r);
        m.Data = data;
        return m;
    }
    QStringList hidden(QueueFolder folder) const
    {
        return QDir(queue.folderPath(folder)).entryList({".*"}, QDir::Files | QDir::Hidden);
    }
    QByteArrayList names(QueueFolder folder) const
    {
        QByteArrayList names;
        for (const QueueEntry& entry : queue.list(folder))
            names.append(entry.name);
        std::sort(names.begin(), names.end());
        return names;
    }
    void age(QueueFolder folder, const QByteArray& name, int seconds)
    {
        const QDateTime then = QDateTime::currentDateTime().addSecs(-seconds);
        utimbuf times{then.toSecsSinceEpoch(), then.toSecsSinceEpoch()};
        ASSERT_EQ(::utime(QFile::encodeName(queue.filePath(folder, name)).constData(), &times), 0);
    }
};

TEST_F(QueueBench, EnqueueSplitsPerDomainAndReadsBackWhole)
{
    const QByteArrayList one = queue.enqueue(message({"<a@x.org>", "<b@x.org>"}));
    ASSERT_EQ(one.size(), 1);
    CMessage back(bench.logs);
    queue.read(QueueFolder::OutBox, one[0], back);
    EXPECT_EQ(back.ID, one[0]);
    EXPECT_EQ(back.MRcptToCount(), 2);
    EXPECT_EQ(back.Data, QByteArray("Subject: t\r\n\r\nhi\r\n"));
    EXPECT_EQ(back.TxtEng, QByteArray("\r\n==> DO NOT ALTER THIS FILE !\r\n"));

    const QByteArrayList split = queue.enqueue(message({"<a@x.org>", "<c@y.net>", "<b@x.org>"}));
    ASSERT_EQ(split.size(), 2);
    EXPECT_TRUE(split[0].endsWith("-1") && split[1].endsWith("-2"));
    queue.read(QueueFolder::OutBox, split[1], back);
    EXPECT_EQ(back.MRcptToCount(), 1);
    EXPECT_EQ(back.RcptTo(1), QByteArray("<c@y.net>"));
    queue.read(QueueFolder::OutBox, split[0], back);
    EXPECT_EQ(back.MRcptToCount(), 2);
    EXPECT_EQ(back.RcptTo(2), QByteArray("<b@x.org>"));

    EXPECT_EQ(queue.listAll().size(), 3);
    EXPECT_TRUE(hidden(QueueFolder::OutBox).isEmpty());
    for (const QueueEntry& entry : queue.list(QueueFolder::OutBox))
        EXPECT_EQ(entry.size, QFileInfo(queue.filePath(entry.folder, entry.name)).size());

    try {
        queue.read(QueueFolder::Deferred, one[0], back);
        ADD_FAILURE() << "read a message from the wrong folder";
    } catch (const QueueFault& fault) {
        EXPECT_EQ(fault.number(), ErrFileNotFound);
    }
}

TEST_F(QueueBench, AStreamedTextIsInvisibleUntilCommittedAndGoneWhenDropped)
{
    QByteArray text;
    for (int i = 0; i < 40000; ++i)
        text += "line " + QByteArray::number(i) + " of a long message\r\n"; // over a megabyte
    std::unique_ptr<QueueWriter> writer = queue.open(message({"<a@x.org>"}, {}));
    for (qsizetype at = 0; at < text.size(); at += 1000)
        writer->append(text.mid(at, 1000));
    writer->finish();
    EXPECT_TRUE(queue.list(QueueFolder::OutBox).isEmpty());
    EXPECT_EQ(hidden(QueueFolder::OutBox).size(), 1);
    writer->commit();
    const QByteArray name = writer->name();
    writer.reset();
    CMessage back(bench.logs);
    EXPECT_EQ(queue.readHead(QueueFolder::OutBox, name, back), text.size());
    EXPECT_TRUE(back.Data.isEmpty());
    queue.read(QueueFolder::OutBox, name, back);
    EXPECT_EQ(back.Data, text);

    writer = queue.open(message({"<a@x.org>"}));
    writer->append("half a message");
    writer.reset();
    EXPECT_TRUE(hidden(QueueFolder::OutBox).isEmpty());
    EXPECT_EQ(names(QueueFolder::OutBox), QByteArrayList{name});
}

TEST_F(QueueBench, AStreamedMessageForSeveralDomainsIsSplitFromItsFile)
{
    const QByteArray text = QByteArray(700 * 1024, 't') + "\r\n";
    const CMessage envelope = message({"<a@x.org>", "<b@y.org>", "<c@x.org>"}, {});
    std::unique_ptr<QueueWriter> writer = queue.open(envelope);
    writer->append(text);
    const QList<StagedFile> staged = queue.stageWritten(std::move(writer), envelope);
    ASSERT_EQ(staged.size(), 2);
    EXPECT_EQ(hidden(QueueFolder::OutBox).size(), 2); // the parts only, the whole is gone
    QString error;
    ASSERT_TRUE(CommitStagedFiles(staged, &error)) << error.toStdString();
    CMessage back(bench.logs);
    for (const QueueEntry& entry : queue.list(QueueFolder::OutBox)) {
        queue.read(QueueFolder::OutBox, entry.name, back);
        EXPECT_EQ(back.Data, text);
        EXPECT_EQ(back.MRcptToCount(), entry.name.endsWith("-1") ? 2 : 1);
    }
    EXPECT_TRUE(hidden(QueueFolder::OutBox).isEmpty());

    // One domain: the writer's own file, as it is.
    writer = queue.open(message({"<a@z.org>"}, {}));
    writer->append("short\r\n");
    EXPECT_EQ(queue.stageWritten(std::move(writer), message({"<a@z.org>"})).size(), 1);
}

TEST_F(QueueBench, MovesKeepOneCopyAndCarryTheUpdatedRecord)
{
    const QByteArray a = queue.enqueue(message({"<a@x.org>"}))[0];
    const QByteArray b = queue.enqueue(message({"<b@x.org>"}))[0];
    CMessage updated(bench.logs);
    queue.read(QueueFolder::OutBox, a, updated);
    updated.Essai = 3;
    updated.LastError = "421 try later";
    queue.defer(a, &updated);
    queue.moveToError(QueueFolder::OutBox, b);
    EXPECT_EQ(names(QueueFolder::OutBox), QByteArrayList{});
    EXPECT_EQ(names(QueueFolder::Deferred), QByteArrayList{a});
    EXPECT_EQ(names(QueueFolder::Error), QByteArrayList{b});
    CMessage back(bench.logs);
    queue.read(QueueFolder::Deferred, a, back);
    EXPECT_EQ(back.Essai, 3);
    EXPECT_EQ(back.LastError, QByteArray("421 try later"));
    EXPECT_EQ(queue.find(a), QueueFolder::Deferred);
    EXPECT_EQ(queue.find("../x"), std::nullopt);
    EXPECT_EQ(queue.next(QueueFolder::Deferred), a);
    EXPECT_EQ(queue.next(QueueFolder::Deferred, [&](const QByteArray& name) { return name == a; }), std::nullopt);

    // Only what waited longer than the delay goes back, unless all is asked for.
    EXPECT_EQ(queue.returnDeferred(600, QDateTime::currentDateTime()), 0);
    EXPECT_EQ(queue.returnDeferred(600, QDateTime::currentDateTime().addSecs(601)), 1);
    queue.backToOutBox(QueueFolder::Error, b);
    EXPECT_EQ(queue.find(a), QueueFolder::OutBox);
    EXPECT_EQ(queue.find(b), QueueFolder::OutBox);
    EXPECT_EQ(queue.listAll().size(), 2);

    back.LastError = "rewritten";
    queue.rewrite(QueueFolder::OutBox, a, back);
    queue.read(QueueFolder::OutBox, a, back);
    EXPECT_EQ(back.LastError, QByteArray("rewritten"));
    queue.remove(QueueFolder::OutBox, a);
    EXPECT_EQ(names(QueueFolder::OutBox), QByteArrayList{b});
    EXPECT_THROW(queue.defer(a), QueueFault);
    EXPECT_THROW(queue.rewrite(QueueFolder::Error, a, back), QueueFault);
    for (const QueueFolder folder : kQueueFolders)
        EXPECT_TRUE(hidden(folder).isEmpty());

    EXPECT_TRUE(queue.claim(b));
    EXPECT_FALSE(queue.claim(b));
    EXPECT_TRUE(queue.claimed(b));
    queue.release(b);
    EXPECT_FALSE(queue.claimed(b));
}

// A move or rewrite with new fields never needs the text: the caller's record may lack it, and
// the text is carried over from the file whole, however long.
TEST_F(QueueBench, HeadOnlyMovesCarryTheTextOverWhole)
{
    QByteArray text;
    for (int i = 0; text.size() < 700 * 1024; ++i)
        text += "line " + QByteArray::number(i) + "\r\n";
    const QByteArray name = queue.enqueue(message({"<a@x.org>", "<b@x.org>"}, text)).value(0);
    CMessage head(bench.logs);
    queue.readHead(QueueFolder::OutBox, name, head);
    ASSERT_TRUE(head.Data.isEmpty());
    head.Essai = 2;
    head.LastError = "451 later";
    queue.defer(name, &head);

    CMessage back(bench.logs);
    queue.read(QueueFolder::Deferred, name, back);
    EXPECT_EQ(back.Data, text);
    EXPECT_EQ(back.Essai, 2);
    EXPECT_EQ(back.LastError, QByteArray("451 later"));
    EXPECT_EQ(back.MRcptToCount(), 2);

    // A record that holds another text still only gives the fields: the file's text stays.
    back.Data = "not this";
    back.OneRcptTo();
    back.setRcptTo(1, "<b@x.org>");
    queue.rewrite(QueueFolder::Deferred, name, back);
    // The refused recipient goes to Error as a file of its own, the text copied again.
    CMessage refused = back;
    refused.setRcptTo(1, "<a@x.org>");
    const QByteArray part = queue.derive(QueueFolder::Deferred, name, QueueFolder::Error, refused);
    EXPECT_NE(part, name);
    for (const auto& [folder, id, rcpt] : {std::tuple{QueueFolder::Deferred, name, QByteArray("<b@x.org>")},
                                         std::tuple{QueueFolder::Error, part, QByteArray("<a@x.org>")}}) {
        CMessage one(bench.logs);
        queue.read(folder, id, one);
        EXPECT_EQ(one.ID, id);
        EXPECT_EQ(one.Data, text);
        EXPECT_EQ(one.MRcptToCount(), 1);
        EXPECT_EQ(one.RcptTo(1), rcpt);
    }
    for (const QueueFolder folder : kQueueFolders)
        EXPECT_TRUE(hidden(folder).isEmpty());
}

// A move that cannot be made (its folder gone, the file torn) leaves the message where it was,
// byte for byte, and nothing half-written anywhere.
TEST_F(QueueBench, AFailedMoveLeavesTheMessageWhereItWas)
{
    const QByteArray name = queue.enqueue(message({"<a@x.org>"}))[0];
    const QString path = queue.filePath(QueueFolder::OutBox, name);
    const QByteArray before = readFile(path);
    CMessage head(bench.logs);
    queue.readHead(QueueFolder::OutBox, name, head);
    const QString error = queue.folderPath(QueueFolder::Error);
    ASSERT_TRUE(QDir(error).removeRecursively());
    writeFile(error, "a file where the folder was");
    EXPECT_THROW(queue.moveToError(QueueFolder::OutBox, name, &head), QueueFault);
    EXPECT_THROW(queue.derive(QueueFolder::OutBox, name, QueueFolder::Error, head), QueueFault);
    EXPECT_EQ(readFile(path), before);
    EXPECT_EQ(queue.next(QueueFolder::OutBox), name);

    // Torn: the text ends early. A head-only move refuses it; taken as it is, it moves whole.
    writeFile(path, before.left(before.size() - 3));
    QFile::remove(error);
    queue.createMissingFolders();
    EXPECT_THROW(queue.defer(name, &head), QueueFault);
    EXPECT_EQ(queue.find(name), QueueFolder::OutBox);
    EXPECT_TRUE(hidden(QueueFolder::Deferred).isEmpty());
    queue.moveToError(QueueFolder::OutBox, name);
    EXPECT_EQ(readFile(queue.filePath(QueueFolder::Error, name)), before.left(before.size() - 3));
    EXPECT_EQ(queue.next(QueueFolder::OutBox), std::nullopt);
}

// The index answers what waits without a listing, and stays right through every change: the
// queue's own, and files that another process drops into OutBox or takes away.
TEST_F(QueueBench, TheIndexFollowsEveryChange)
{
    const QByteArray a = queue.enqueue(message({"<a@x.org>"}))[0];
    EXPECT_EQ(queue.next(QueueFolder::OutBox), a); // built here, from the disk
    const QByteArray b = queue.enqueue(message({"<b@x.org>"}))[0];
    const QByteArray c = queue.enqueue(message({"<c@x.org>"}))[0];
    EXPECT_EQ(queue.next(QueueFolder::OutBox, [&](const QByteArray& n) { return n == a; }), b) << "in arrival order";

    queue.defer(a);
    const QDateTime aDeferred = QFileInfo(queue.filePath(QueueFolder::Deferred, a)).lastModified();
    queue.defer(b);
    EXPECT_EQ(queue.next(QueueFolder::OutBox), c);
    EXPECT_EQ(queue.earliestDeferral(), aDeferred);
    queue.remove(QueueFolder::OutBox, c);
    EXPECT_EQ(queue.next(QueueFolder::OutBox), std::nullopt);

    // Dropped from outside: seen once OutBox is looked at again, and the observers hear of it.
    QByteArrayList heard;
    queue.addObserver([&](QueueFolder, const QByteArray& name, QueueChange change) {
        heard << name + (change == QueueChange::Added ? "+" : "-");
    });
    const Queue otherProcess(root.path());
    std::unique_ptr<QueueWriter> outside = otherProcess.open(message({"<d@x.org>"}));
    outside->append("Subject: d\r\n\r\nd\r\n");
    outside->commit();
    const QByteArray d = outside->name();
    EXPECT_EQ(queue.next(QueueFolder::OutBox), std::nullopt);
    queue.rescanOutBox();
    EXPECT_EQ(queue.next(QueueFolder::OutBox), d);
    EXPECT_EQ(heard, QByteArrayList{d + "+"});

    // Taken from outside: a rescan forgets it in OutBox; in Deferred the failed move does.
    QFile::remove(queue.filePath(QueueFolder::OutBox, d));
    QFile::remove(queue.filePath(QueueFolder::Deferred, a));
    queue.rescanOutBox();
    QStringList errors;
    EXPECT_EQ(queue.returnDeferred(std::nullopt, QDateTime::currentDateTime(), &errors), 1);
    EXPECT_EQ(errors.size(), 1);
    EXPECT_EQ(queue.earliestDeferral(), std::nullopt);
    EXPECT_EQ(queue.next(QueueFolder::OutBox), b);
    EXPECT_EQ(heard, (QByteArrayList{d + "+", d + "-", a + "-", b + "-", b + "+"}));
}

// Tens of thousands of deferred files: the next message and the next file due are found without
// a listing, and only the due files move.
TEST_F(QueueBench, ManyDeferredFilesCostNothingToPassOver)
{
    const QByteArray record = readFile(queue.filePath(QueueFolder::OutBox, queue.enqueue(message({"<a@x.org>"}))[0]));
    const QString deferred = queue.folderPath(QueueFolder::Deferred);
    const QDateTime old = QDateTime::currentDateTime().addSecs(-3600);
    for (int i = 0; i < 5000; ++i) {
        const QString path = deferred + "/M" + QString::number(i);
        writeFile(path, record);
        if (i < 3) { // three of them long overdue
            utimbuf times{old.toSecsSinceEpoch(), old.toSecsSinceEpoch()};
            ASSERT_EQ(::utime(QFile::encodeName(path).constData(), &times), 0);
        }
    }
    Queue fresh(root.path());
    ASSERT_TRUE(fresh.next(QueueFolder::OutBox).has_value());
    EXPECT_EQ(fresh.earliestDeferral()->toSecsSinceEpoch(), old.toSecsSinceEpoch());
    EXPECT_EQ(fresh.returnDeferred(600, QDateTime::currentDateTime()), 3);
    EXPECT_EQ(fresh.list(QueueFolder::OutBox).size(), 4);
    EXPECT_EQ(fresh.list(QueueFolder::Deferred).size(), 4997);
    EXPECT_GT(fresh.earliestDeferral(), old);
}

TEST(Queue, FoldersAreFoundWhateverTheirCase)
{
    QTemporaryDir root;
    for (const char* name : {"outbox", "DEFERRED"})
        QDir(root.path()).mkdir(name);
    Queue queue(root.path());
    EXPECT_EQ(queue.createMissingFolders(), QList<QueueFolder>{QueueFolder::Error});
    EXPECT_EQ(queue.folderPath(QueueFolder::OutBox), root.path() + "/outbox");
    EXPECT_EQ(queue.folderPath(QueueFolder::Deferred), root.path() + "/DEFERRED");
    EXPECT_EQ(QDir(root.path()).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size(), 3);
}

TEST_F(QueueBench, ObserversHearEveryChangeOnceItIsDurable)
{
    QStringList heard;
    const int id = queue.addObserver([&](QueueFolder folder, const QByteArray& name, QueueChange change) {
        // Told after the fact: the file is already where the change says.
        EXPECT_EQ(QFileInfo::exists(queue.filePath(folder, name)), change != QueueChange::Removed);
        heard << QStringLiteral("%1 %2 %3").arg(QString::fromLatin1(Queue::folderName(folder)), QString::fromLatin1(name))
                     .arg(int(change));
    });
    const QByteArray name = queue.enqueue(message({"<a@x.org>"})).value(0);
    std::unique_ptr<QueueWriter> writer = queue.open(message({"<b@y.org>"}));
    const QByteArray streamed = writer->name();
    writer->append("Subject: s\r\n\r\nbody\r\n");
    writer->commit();
    queue.defer(name);
    CMessage record = message({"<a@x.org>"});
    queue.rewrite(QueueFolder::Deferred, name, record);
    queue.remove(QueueFolder::OutBox, streamed);
    queue.removeObserver(id);
    queue.backToOutBox(QueueFolder::Deferred, name);

    const QString n = QString::fromLatin1(name), s = QString::fromLatin1(streamed);
    EXPECT_EQ(heard, QStringList({"OutBox " + n + " 0", "OutBox " + s + " 0", "OutBox " + n + " 1",
                                  "Deferred " + n + " 0", "Deferred " + n + " 2", "OutBox " + s + " 1"}));
}

TEST_F(QueueBench, ATextIsReadBackInChunksWithItsRecord)
{
    QByteArray text;
    for (int i = 0; i < 40000; ++i)
        text += "line " + QByteArray::number(i) + "\r\n";
    const QByteArray name = queue.enqueue(message({"<a@x.org>"}, text)).value(0);

    CMessage head(bench.logs);
    QueueTextReader reader(queue, QueueFolder::OutBox, name, head);
    EXPECT_EQ(head.From, "<me@here.org>");
    EXPECT_TRUE(head.Data.isEmpty());
    EXPECT_EQ(reader.size(), text.size());
    QByteArray back;
    while (!reader.atEnd()) {
        const QByteArray chunk = reader.read(4096);
        ASSERT_FALSE(chunk.isEmpty());
        ASSERT_LE(chunk.size(), 4096);
        back += chunk;
    }
    EXPECT_EQ(back, text);
    EXPECT_TRUE(reader.read(4096).isEmpty());
    reader.rewind();
    EXPECT_EQ(reader.read(6), "line 0");

    // A file cut short inside its text is a fault, not a short message.
    QFile::resize(queue.filePath(QueueFolder::OutBox, name), QFileInfo(queue.filePath(QueueFolder::OutBox, name)).size() - 10);
    EXPECT_THROW(QueueTextReader(queue, QueueFolder::OutBox, name, head), QueueFault);
    EXPECT_THROW(QueueTextReader(queue, QueueFolder::OutBox, "nothing", head), QueueFault);
}

TEST_F(QueueBench, LeftoversOfAKilledRelayAreClearedButALiveWriteIsLeftAlone)
{
    const QByteArray moved = queue.enqueue(message({"<a@x.org>"}))[0];
    const QByteArray kept = queue.enqueue(message({"<b@x.org>"}))[0];
    // A defer cut between its copy and the removal: the copy in Deferred is the newer one.
    QFile::copy(queue.filePath(QueueFolder::OutBox, moved), queue.filePath(QueueFolder::Deferred, moved));
    age(QueueFolder::OutBox, moved, 30);
    // Staging files of writes that never finished, in every folder.
    writeFile(queue.folderPath(QueueFolder::OutBox) + "/.A1.new", "torn");
    writeFile(queue.folderPath(QueueFolder::Deferred) + "/.B2.new", "torn");
    writeFile(queue.folderPath(QueueFolder::Error) + "/.C3.new", "torn");
    // ...and one that another process is writing right now.
    std::unique_ptr<QueueWriter> live = queue.open(message({"<c@x.org>"}));

    const QueueLeftovers found = queue.clearLeftovers();
    EXPECT_EQ(found.stagingFiles, 3);
    EXPECT_EQ(found.duplicates, 1);
    EXPECT_EQ(names(QueueFolder::OutBox), QByteArrayList{kept});
    EXPECT_EQ(names(QueueFolder::Deferred), QByteArrayList{moved});
    EXPECT_EQ(hidden(QueueFolder::OutBox).size(), 1);
    EXPECT_TRUE(hidden(QueueFolder::Deferred).isEmpty());
    live->commit();
    EXPECT_EQ(queue.listAll().size(), 3);

    const QueueLeftovers again = queue.clearLeftovers();
    EXPECT_EQ(again.stagingFiles + again.duplicates, 0);
}

// The queue folders on a tiny file system of their own, in a private mount namespace.
struct FullDisk : QueueBench {
    void SetUp() override
    {
        if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            GTEST_SKIP() << "no private mount namespace (needs root)";
        ASSERT_EQ(::mount("tmpfs", QFile::encodeName(root.path()).constData(), "tmpfs", 0, "size=96k"), 0);
        QueueBench::SetUp();
    }
    void TearDown() override { ::umount2(QFile::encodeName(root.path()).constData(), MNT_DETACH); }
};

TEST_F(FullDisk, AFullDiskIsATemporaryFaultThatLeavesNothingBehind)
{
    const QByteArray small = queue.enqueue(message({"<a@x.org>"}))[0];
    try {
        queue.enqueue(message({"<a@x.org>", "<b@y.org>"}, QByteArray(80 * 1024, 'x')));
        ADD_FAILURE() << "queued more than the disk holds";
    } catch (const QueueFault& fault) {
        EXPECT_TRUE(fault.diskFull()) << fault.description().toStdString();
    }
    EXPECT_EQ(names(QueueFolder::OutBox), QByteArrayList{small});
    EXPECT_TRUE(hidden(QueueFolder::OutBox).isEmpty());

    // A streamed text that fills the disk half-way: nothing of it stays.
    std::unique_ptr<QueueWriter> writer = queue.open(message({"<a@x.org>"}));
    EXPECT_THROW(
        {
            for (int i = 0; i < 100; ++i)
                writer->append(QByteArray(64 * 1024, 'y'));
            writer->commit();
        },
        QueueFault);
    writer.reset();
    EXPECT_TRUE(hidden(QueueFolder::OutBox).isEmpty());

    // A move that cannot write its copy leaves the message where it was.
    const QByteArray big = queue.enqueue(message({"<a@x.org>"}, QByteArray(40 * 1024, 'w')))[0];
    writeFile(root.path() + "/filler", QByteArray(40 * 1024, 'z'));
    EXPECT_THROW(queue.defer(big), QueueFault);
    EXPECT_EQ(queue.find(big), QueueFolder::OutBox);
    EXPECT_TRUE(names(QueueFolder::Deferred).isEmpty());
    EXPECT_TRUE(hidden(QueueFolder::Deferred).isEmpty());

    // Once there is room again, the next message is taken.
    QFile::remove(root.path() + "/filler");
    EXPECT_EQ(queue.enqueue(message({"<a@x.org>"})).size(), 1);
}

} // namespace
