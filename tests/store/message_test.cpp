#include <gtest/gtest.h>

#include <QDir>
#include <QFile>

#include "store_test_support.h"
#include "support/fakes.h"

using namespace postiq;
using namespace postiq::test;

namespace {

QByteArray U16(quint16 value) { return QByteArray(1, char(value & 0xFF)) + char(value >> 8); }
QByteArray U32(quint32 value) { return U16(quint16(value)) + U16(quint16(value >> 16)); }

CMessage ExampleRecord(Logs& logs)
{
    CMessage message(logs);
    message.ID = "ABC123";
    message.From = "<a@b.cd>";
    message.AddRcptTo("<x@y.com>");
    message.Data = "hi\r\n";
    return message;
}

const QByteArray kExampleBytes = U16(6) + "ABC123" + U16(0) + U16(0) + QByteArray(1, '\0') + U16(0) + U16(0)
    + U16(8) + "<a@b.cd>" + U16(1) + U32(2) + U32(0) + U16(0) + U16(9) + "<x@y.com>" + U16(4) + "hi\r\n";

} // namespace

TEST(QueueFile, ExampleRecordIsWrittenByteForByteAndReadBack)
{
    LogBench bench;
    CMessage longer(bench.logs);
    longer.Data = QByteArray(100000, 'z');
    longer.MWrite(bench.path("ABC123"));
    // A shorter rewrite leaves nothing of the longer file behind.
    ExampleRecord(bench.logs).MWrite(bench.path("ABC123"));
    EXPECT_EQ(readFile(bench.path("ABC123")).toHex(' ').toStdString(), kExampleBytes.toHex(' ').toStdString());

    // A line end added by an editor does not make the message unreadable.
    writeFile(bench.path("edited"), kExampleBytes + "\r\n");
    CMessage read(bench.logs);
    read.MOpen(bench.path("edited"));
    EXPECT_EQ(Members(read), Members(ExampleRecord(bench.logs)));
    // A missing file is no fault and leaves the record as it was.
    read.MOpen(bench.path("missing"));
    EXPECT_EQ(Members(read), Members(ExampleRecord(bench.logs)));
    EXPECT_TRUE(bench.desktop.diagnostics.isEmpty());
}

TEST(QueueFile, RewriteSwapsInAWholeNewFileAndLeavesNoTemporaryBehind)
{
    LogBench bench;
    CMessage longer(bench.logs);
    longer.Data = QByteArray(5000, 'z');
    longer.MWrite(bench.path("ABC123"));
    const QByteArray longerBytes = readFile(bench.path("ABC123"));
    // A crash during an earlier rewrite left its hidden temporary: folder scans never see it.
    writeFile(bench.path(".ABC123.new"), "torn");
    EXPECT_EQ(QDir(bench.dir.path()).entryList(QDir::Files), QStringList{"ABC123"});

    // A reader that opened the old file keeps reading it whole: the file is replaced by a new
    // one, not rewritten in place.
    QFile reader(bench.path("ABC123"));
    ASSERT_TRUE(reader.open(QIODevice::ReadOnly));
    ExampleRecord(bench.logs).MWrite(bench.path("ABC123"));
    EXPECT_EQ(reader.readAll(), longerBytes);
    EXPECT_EQ(readFile(bench.path("ABC123")), kExampleBytes);
    EXPECT_EQ(QDir(bench.dir.path()).entryList(QDir::Files | QDir::Hidden), QStringList{"ABC123"});
}

TEST(QueueFile, RecordsComeBackAsWrittenWithLongContentsBehindAnEscape)
{
    LogBench bench;
    CMessage written(bench.logs);
    written.ID = "1A2B3";
    written.TxtEng = "\r\n==> DO NOT ALTER THIS FILE !\r\n";
    written.TxtFr = "\r\n==> NE PAS MODIFIER CE FICHIER !\r\n";
    written.Essai = 255;
    written.LastError = "421 try later";
    written.ForSender = true;
    for (int value = 0; value < 256; ++value)
        written.From += char(value); // bytes of every value, unconverted
    written.AddRcptTo("<a@x.com>");  // index 0 stays empty
    written.AddRcptTo("<a@x.com>");
    const struct { int size; QByteArray length; } contents[] = {
        {65534, U16(65534)},
        {65535, U16(0xFFFF) + U32(65535)},
        {70000, U16(0xFFFF) + U32(70000)},
        {10 << 20, U16(0xFFFF) + U32(10 << 20)},
    };
    for (const auto& content : contents) {
        SCOPED_TRACE(content.size);
        written.Data = QByteArray(content.size, 'd');
        written.MWrite(bench.path("1A2B3"));
        const QByteArray bytes = readFile(bench.path("1A2B3"));
        EXPECT_EQ(bytes.chopped(content.size).right(content.length.size()), content.length);

        CMessage read(bench.logs);
        read.From = "stale";
        read.AddRcptTo("<stale@x.com>");
        read.MOpen(bench.path("1A2B3"));
        EXPECT_EQ(Members(read), Members(written));
    }
}

TEST(QueueFile, TruncatedOrMalformedFilesAreFatalWithoutHugeAllocations)
{
    const qsizetype descriptor = kExampleBytes.indexOf("<a@b.cd>") + 8;
    const QByteArray head = kExampleBytes.left(descriptor);
    const QByteArray rest = U16(0) + U16(9) + "<x@y.com>" + U16(4) + "hi\r\n";
    const struct { const char* name; QByteArray bytes; int number; } cases[] = {
        {"empty file", QByteArray(), ErrPastEndOfFile},
        {"inside the ID", kExampleBytes.left(5), ErrPastEndOfFile},
        {"inside the content", kExampleBytes.chopped(1), ErrPastEndOfFile},
        {"a 4 GB length in a short file", U16(0xFFFF) + U32(0xFFFFFFF0) + QByteArray(100, 'x'), ErrPastEndOfFile},
        {"two dimensions", head + U16(2) + U32(2) + U32(0) + rest, ErrBadFileFormat},
        {"no element at all", head + U16(1) + U32(0) + U32(0) + rest, ErrBadFileFormat},
        {"257 elements", head + U16(1) + U32(257) + U32(0) + rest, ErrBadFileFormat},
        {"two billion elements", head + U16(1) + U32(0x80000000) + U32(0) + rest, ErrBadFileFormat},
        {"a lower bound of 1", head + U16(1) + U32(2) + U32(1) + rest, ErrBadFileFormat},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        LogBench bench;
        writeFile(bench.path("bad"), test.bytes);
        CMessage message(bench.logs);
        EXPECT_THROW(message.MOpen(bench.path("bad")), ProgramEnded);
        const QString report = bench.desktop.diagnostics.value(0);
        EXPECT_TRUE(report.startsWith(QStringLiteral("Where: CLS:CMessage[MWrite], number %1:").arg(test.number)))
            << report.toStdString();
    }
}

TEST(QueueFile, WritingIntoAMissingFolderIsFatal)
{
    LogBench bench;
    EXPECT_THROW(ExampleRecord(bench.logs).MWrite(bench.path("no-such-folder/ABC123")), ProgramEnded);
    EXPECT_TRUE(bench.desktop.diagnostics.value(0).startsWith("Where: CLS:CMessage[MWrite], number 70:"));
}

TEST(QueueFile, OpeningAndWritingAreNotedInTheDebugLog)
{
    LogBench bench;
    bench.debug.debug = true;
    const QString path = bench.path("ABC123");
    CMessage message = ExampleRecord(bench.logs);
    message.MWrite(path);
    message.MOpen(path);
    const QByteArray note = "<FONT face='Verdana' size='2'><FONT face='Verdana' size='2'>Feb 05 2004 09:05:07: ";
    const QByteArray end = path.toUtf8() + "</FONT><BR>\r\n</FONT>\r\n";
    EXPECT_EQ(readFile(bench.path("Debug.html")), note + "Ecriture de " + end + note + "Ouverture de " + end);
}

TEST(Recipients, A256thIsAFaultAnd255ComeBackFromTheFile)
{
    LogBench bench;
    CMessage message(bench.logs);
    for (int index = 1; index <= 255; ++index)
        message.AddRcptTo("<r" + QByteArray::number(index) + "@x.com>");
    EXPECT_THROW(message.AddRcptTo("<one-too-many@x.com>"), Fault);
    EXPECT_THROW(message.RcptTo(256), Fault);
    EXPECT_THROW(message.setRcptTo(-1, "x"), Fault);
    message.MWrite(bench.path("full"));
    CMessage read(bench.logs);
    read.MOpen(bench.path("full"));
    EXPECT_EQ(Members(read), Members(message));
}
