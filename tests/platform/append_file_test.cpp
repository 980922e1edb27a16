#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <thread>

#include "platform/append_file.h"
#include "support/fakes.h"

using namespace postiq;
using namespace postiq::test;

namespace {

// Two writers on one file, as two relays or the relay and a script would be: every line lands
// whole, none cut into by the other.
TEST(AppendFile, ConcurrentWritersNeverInterleaveInsideALine)
{
    QTemporaryDir dir;
    const QString path = dir.path() + "/maillog.txt";
    constexpr int kLines = 2000;
    auto writer = [&path](char mark) {
        AppendFile file(path);
        const QByteArray line = QByteArray(4000, mark) + "\r\n"; // more than a pipe's atomic size
        for (int i = 0; i < kLines; ++i)
            ASSERT_TRUE(file.append(line));
    };
    std::thread a(writer, 'a');
    std::thread b(writer, 'b');
    a.join();
    b.join();
    const QList<QByteArray> lines = readFile(path).split('\n');
    ASSERT_EQ(lines.size(), 2 * kLines + 1);
    int countA = 0;
    for (int i = 0; i < 2 * kLines; ++i) {
        const QByteArray& line = lines[i];
        ASSERT_EQ(line.size(), 4001) << "line " << i;
        ASSERT_TRUE(line.count(line[0]) == 4000 && line.endsWith('\r')) << "line " << i;
        countA += line[0] == 'a' ? 1 : 0;
    }
    EXPECT_EQ(countA, kLines);
}

// A file renamed or deleted by a rotation is left within a second, and at once on reopen().
TEST(AppendFile, FollowsAFileMovedAwayOrDeleted)
{
    QTemporaryDir dir;
    const QString path = dir.path() + "/maillog.txt";
    AppendFile file(path);
    ASSERT_TRUE(file.append("one\r\n"));
    ASSERT_TRUE(QFile::rename(path, path + ".1"));
    ASSERT_TRUE(file.append("two\r\n")); // the open file, until the next look at the path
    std::this_thread::sleep_for(AppendFile::kRotationCheck + std::chrono::milliseconds(100));
    ASSERT_TRUE(file.append("three\r\n"));
    EXPECT_EQ(readFile(path + ".1"), QByteArray("one\r\ntwo\r\n"));
    EXPECT_EQ(readFile(path), QByteArray("three\r\n"));

    ASSERT_TRUE(QFile::remove(path));
    file.reopen();
    ASSERT_TRUE(file.append("four\r\n"));
    EXPECT_EQ(readFile(path), QByteArray("four\r\n"));
}

TEST(AppendFile, AFailedWriteIsReportedAndTheNextLineTriesAgain)
{
    QTemporaryDir dir;
    const QString path = dir.path() + "/error.txt";
    ASSERT_TRUE(QFile::link("/dev/full", path)); // every write: no space left
    AppendFile file(path);
    EXPECT_FALSE(file.append("lost\r\n"));
    ASSERT_TRUE(QFile::remove(path));
    EXPECT_TRUE(file.append("kept\r\n"));
    EXPECT_EQ(readFile(path), QByteArray("kept\r\n"));

    AppendFile folder(dir.path()); // a folder in the file's place
    EXPECT_FALSE(folder.append("x\r\n"));
}

} // namespace
