#include <gtest/gtest.h>

#include <QFile>
#include <functional>

#include "store/message.h"
#include "store_test_support.h"

using namespace postiq;
using namespace postiq::test;

namespace {

const QByteArray kCrLf = "\r\n";

// The record used in the format's own example, and its exact bytes.
CMessage ExampleRecord(Logs& logs)
{
    CMessage message(logs);
    message.ID = "ABC123";
    message.From = "<a@b.cd>";
    message.AddRcptTo("<x@y.com>");
    message.Data = "hi\r\n";
    return message;
}

QByteArray ExampleBytes()
{
    return U16(6) + "ABC123" + U16(0) + U16(0) + QByteArray(1, '\0') + U16(0) + U16(0) + U16(8)
        + "<a@b.cd>" + U16(1) + U32(2) + U32(0) + U16(0) + U16(9) + "<x@y.com>" + U16(4) + "hi\r\n";
}

void ExpectSameRecord(const CMessage& actual, const CMessage& expected)
{
    EXPECT_EQ(actual.ID, expected.ID);
    EXPECT_EQ(actual.TxtEng, expected.TxtEng);
    EXPECT_EQ(actual.TxtFr, expected.TxtFr);
    EXPECT_EQ(actual.Essai, expected.Essai);
    EXPECT_EQ(actual.LastError, expected.LastError);
    EXPECT_EQ(actual.ForSender, expected.ForSender);
    EXPECT_EQ(actual.From, expected.From);
    ASSERT_EQ(actual.MRcptToCount(), expected.MRcptToCount());
    for (int index = 0; index <= expected.MRcptToCount(); ++index)
        EXPECT_EQ(actual.RcptTo(index), expected.RcptTo(index)) << "recipient " << index;
    EXPECT_TRUE(actual.Data == expected.Data) << "content of " << actual.Data.size() << " bytes";
}

int FaultNumber(const std::function<void()>& action)
{
    try {
        action();
    } catch (const Fault& fault) {
        return fault.number();
    }
    return 0;
}

} // namespace

TEST(QueueFile, ExampleRecordIsWrittenByteForByte)
{
    LogBench bench;
    ExampleRecord(bench.logs).MWrite(bench.path("ABC123"));
    EXPECT_EQ(readFile(bench.path("ABC123")).toHex(' ').toStdString(), ExampleBytes().toHex(' ').toStdString());

    CMessage read(bench.logs);
    read.MOpen(bench.path("ABC123"));
    ExpectSameRecord(read, ExampleRecord(bench.logs));
}

TEST(QueueFile, RoundTripsEveryMember)
{
    QByteArray allBytes;
    for (int value = 0; value < 256; ++value)
        allBytes += char(value);

    struct Case {
        const char* name;
        std::function<void(CMessage&)> fill;
    };
    const Case cases[] = {
        {"sender notice with retries and an empty index 0",
         [&](CMessage& m) {
             m.ForSender = true;
             m.Essai = 255;
             m.LastError = "421 try later";
             m.TxtEng = kCrLf + "==> DO NOT ALTER THIS FILE !" + kCrLf;
             m.TxtFr = kCrLf + "==> NE PAS MODIFIER CE FICHIER !" + kCrLf;
             m.AddRcptTo("<a@x.com>");
             m.AddRcptTo("<a@x.com>");
         }},
        {"bytes of every value, unconverted", [&](CMessage& m) { m.From = allBytes; m.Data = allBytes; }},
        {"a set index 0 and no recipient", [&](CMessage& m) { m.setRcptTo(0, "<zero@x.org>"); }},
        {"content just below the long-length escape", [&](CMessage& m) { m.Data = QByteArray(65534, 'a'); }},
        {"content of exactly the escape value", [&](CMessage& m) { m.Data = QByteArray(65535, 'b'); }},
        {"content of 70,000 bytes and a long sender",
         [&](CMessage& m) {
             m.Data = QByteArray(70000, 'c');
             m.From = "<" + QByteArray(70000, 's') + "@x.com>";
             m.AddRcptTo("<r@y.com>");
         }},
        {"content of 10 MB", [&](CMessage& m) { m.Data = QByteArray(10 * 1024 * 1024, 'd'); }},
        {"255 recipients",
         [&](CMessage& m) {
             for (int index = 1; index <= 255; ++index)
                 m.AddRcptTo("<r" + QByteArray::number(index) + "@x.com>");
         }},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        LogBench bench;
        CMessage written(bench.logs);
        written.ID = "1A2B3";
        test.fill(written);
        written.MWrite(bench.path("1A2B3"));
        CMessage read(bench.logs);
        read.From = "stale";
        read.AddRcptTo("<stale@x.com>");
        read.MOpen(bench.path("1A2B3"));
        ExpectSameRecord(read, written);
    }
}

TEST(QueueFile, LongTextsUseTheEscapeAndFourByteLength)
{
    LogBench bench;
    CMessage message(bench.logs);
    message.Data = QByteArray(65535, 'x');
    message.MWrite(bench.path("long"));
    const QByteArray bytes = readFile(bench.path("long"));
    EXPECT_EQ(bytes.right(65535 + 6).left(6), U16(0xFFFF) + U32(65535));
}

TEST(QueueFile, OpeningAMissingFileLeavesTheRecordAsItWas)
{
    LogBench bench;
    CMessage message = ExampleRecord(bench.logs);
    message.ForSender = true;
    message.MOpen(bench.path("missing"));
    CMessage expected = ExampleRecord(bench.logs);
    expected.ForSender = true;
    ExpectSameRecord(message, expected);
    EXPECT_TRUE(bench.desktop.boxes.isEmpty());
}

TEST(QueueFile, AShorterRewriteReplacesTheWholeFile)
{
    LogBench bench;
    CMessage big(bench.logs);
    big.Data = QByteArray(100000, 'z');
    big.MWrite(bench.path("ABC123"));
    ExampleRecord(bench.logs).MWrite(bench.path("ABC123"));
    EXPECT_EQ(readFile(bench.path("ABC123")), ExampleBytes());
}

TEST(QueueFile, BytesAfterTheRecordAreIgnored)
{
    LogBench bench;
    writeFile(bench.path("f"), ExampleBytes() + "\r\n");
    CMessage read(bench.logs);
    read.MOpen(bench.path("f"));
    ExpectSameRecord(read, ExampleRecord(bench.logs));
}

TEST(QueueFile, MalformedFilesAreFatalUnderTheWritersLabel)
{
    const QByteArray good = ExampleBytes();
    const int descriptor = good.indexOf("<a@b.cd>") + 8; // the recipient list starts here
    const QByteArray head = good.left(descriptor);
    const QByteArray recipients = U16(0) + U16(9) + "<x@y.com>" + U16(4) + "hi\r\n";
    struct Case {
        const char* name;
        QByteArray bytes;
        int number;
    };
    const Case cases[] = {
        {"empty file", QByteArray(), 62},
        {"one byte", good.left(1), 62},
        {"inside the ID", good.left(5), 62},
        {"inside the descriptor", good.left(descriptor + 4), 62},
        {"inside the content", good.left(good.size() - 1), 62},
        {"a 4 GB length in a short file",
         U16(0xFFFF) + U32(0xFFFFFFF0) + QByteArray(100, 'x'), 62},
        {"a length past the end", U16(5000) + QByteArray(100, 'x'), 62},
        {"two dimensions", head + U16(2) + U32(2) + U32(0) + recipients, 54},
        {"no element at all", head + U16(1) + U32(0) + U32(0) + recipients, 54},
        {"a huge element count", head + U16(1) + U32(0x80000000) + U32(0) + recipients, 54},
        {"257 elements", head + U16(1) + U32(257) + U32(0) + recipients, 54},
        {"a lower bound of 1", head + U16(1) + U32(2) + U32(1) + recipients, 54},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        LogBench bench;
        writeFile(bench.path("bad"), test.bytes);
        CMessage message(bench.logs);
        const QString report = FatalReportOf(bench, [&] { message.MOpen(bench.path("bad")); });
        EXPECT_TRUE(report.startsWith(
            QStringLiteral("Where: CLS:CMessage[MWrite], number %1:").arg(test.number)))
            << report.toStdString();
    }
}

TEST(QueueFile, AnUnwritableFolderIsFatal)
{
    LogBench bench;
    CMessage message = ExampleRecord(bench.logs);
    const QString report =
        FatalReportOf(bench, [&] { message.MWrite(bench.path("no-such-folder/ABC123")); });
    EXPECT_TRUE(report.startsWith("Where: CLS:CMessage[MWrite], number 70:")) << report.toStdString();
}

TEST(QueueFile, OpeningAndWritingAreNotedInTheDebugLog)
{
    LogBench bench;
    bench.debug.debug = true;
    CMessage message = ExampleRecord(bench.logs);
    const QString path = bench.path("ABC123");
    message.MWrite(path);
    message.MOpen(path);
    const QByteArray font = "<FONT face='Verdana' size='2'>";
    EXPECT_EQ(readFile(bench.path("Debug.html")),
              font + font + "Feb 05 2004 09:05:07: Ecriture de " + path.toUtf8() + "</FONT><BR>\r\n</FONT>\r\n"
                  + font + font + "Feb 05 2004 09:05:07: Ouverture de " + path.toUtf8()
                  + "</FONT><BR>\r\n</FONT>\r\n");
}

TEST(Recipients, ListOperations)
{
    LogBench bench;
    CMessage message(bench.logs);
    EXPECT_EQ(message.MRcptToCount(), 0);
    EXPECT_EQ(message.RcptTo(0), QByteArray());

    message.OneRcptTo();
    EXPECT_EQ(message.MRcptToCount(), 1);
    EXPECT_EQ(message.RcptTo(1), QByteArray());

    message.ID = "ID1";
    message.ForSender = true;
    message.TxtEng = "eng";
    message.TxtFr = "fr";
    message.From = "<f@x.com>";
    message.Data = "data";
    message.LastError = "err";
    message.Essai = 3;
    message.MClear();
    EXPECT_EQ(message.MRcptToCount(), 0);
    EXPECT_EQ(message.ID, "ID1");
    EXPECT_TRUE(message.ForSender);
    EXPECT_EQ(message.TxtEng, "eng");
    EXPECT_EQ(message.TxtFr, "fr");
    EXPECT_TRUE(message.From.isEmpty() && message.Data.isEmpty() && message.LastError.isEmpty());
    EXPECT_EQ(message.Essai, 0);

    message.AddRcptTo("<first@x.com>");
    message.AddRcptTo("<second@x.com>");
    EXPECT_EQ(message.MRcptToCount(), 2);
    EXPECT_EQ(message.RcptTo(1), "<first@x.com>");
    EXPECT_EQ(message.RcptTo(2), "<second@x.com>");
    message.setRcptTo(2, "<other@x.com>");
    EXPECT_EQ(message.RcptTo(2), "<other@x.com>");
}

TEST(Recipients, OutOfRangeAndOverflowAreFaults)
{
    LogBench bench;
    CMessage message(bench.logs);
    message.AddRcptTo("<a@x.com>");
    EXPECT_EQ(FaultNumber([&] { message.RcptTo(2); }), ErrOutOfRange);
    EXPECT_EQ(FaultNumber([&] { message.RcptTo(-1); }), ErrOutOfRange);
    EXPECT_EQ(FaultNumber([&] { message.setRcptTo(2, "x"); }), ErrOutOfRange);

    for (int index = 2; index <= 255; ++index)
        message.AddRcptTo("<a@x.com>");
    EXPECT_EQ(message.MRcptToCount(), 255);
    EXPECT_EQ(FaultNumber([&] { message.AddRcptTo("<one-too-many@x.com>"); }), ErrOverflow);
    EXPECT_EQ(message.MRcptToCount(), 255);
}
