#include <gtest/gtest.h>

#include "log/html.h"
#include "log/version.h"
#include "support/fakes.h"

#include <QDir>
#include <QFile>

using namespace postiq;
using namespace postiq::test;

TEST(HtmlEscape, EscapesBracketsAndLineEndsButNotAmpersands)
{
    EXPECT_EQ(HtmlEscape("a<b>\r\nc & d"), QByteArray("a&lt;b&gt;<BR>c & d"));
}

TEST(MailLog, WritesOnlyTheMailLogWhenDebugIsOff)
{
    LogBench bench;
    bench.logs.MailLog("Feb 05 2004 09:05:07 Postiq: Writing Postiq.ini");
    bench.logs.MailLog("second");
    EXPECT_EQ(readFile(bench.path("maillog.txt")),
              QByteArray("Feb 05 2004 09:05:07 Postiq: Writing Postiq.ini\r\nsecond\r\n"));
    EXPECT_FALSE(QFile::exists(bench.path("Debug.html")));
}

TEST(DbgAdd, NormalModeWritesOneEntryAndAppendsCrLfToTheCallersMessage)
{
    LogBench bench;
    bench.debug.debug = true;
    QByteArray message = "hello";
    bench.logs.DbgAdd(message, DbgInbound);
    EXPECT_EQ(message, QByteArray("hello\r\n"));
    bench.logs.MailLog("line");
    EXPECT_EQ(readFile(bench.path("Debug.html")),
              QByteArray("<FONT face='Verdana' size='2' COLOR='#0000FF'><FONT face='Wingdings' "
                         "size='3'>ï</FONT> hello\r\n</FONT>\r\n"
                         "<FONT face='Verdana' size='2'><FONT face='Wingdings' size='3'>3</FONT> "
                         "[MAILLOG]: line<BR>\r\n</FONT>\r\n"));
}

TEST(DbgAdd, SafeModeWritesEveryEntryWithItsBanner)
{
    LogBench bench;
    bench.debug.loaded = false;
    bench.logs.DbgAdd("x", DbgCache);
    EXPECT_EQ(readFile(bench.path("Debug.html")),
              QByteArray("<HR><FONT face='Verdana' size='2'><I>DEBUG - SAFE MODE - CONFIG NOT "
                         "LOADING</I></FONT>\r\n<FONT face='Verdana' size='2' COLOR='#FF8000'>x\r\n"
                         "</FONT><HR>\r\n"));
}

TEST(ReportProgramError, TellsTheUserAndEndsWithStatusOne)
{
    LogBench bench;
    bench.debug.debug = true;
    try {
        bench.logs.guarded("CLS:CMessage[MWrite]", [] { throw Fault(ErrOverflow, "Overflow"); });
        FAIL() << "the report must end the program";
    } catch (const ProgramEnded& end) {
        EXPECT_EQ(end.status, 1);
    }
    ASSERT_EQ(bench.desktop.boxes.size(), 1);
    EXPECT_EQ(bench.desktop.boxes[0].title, QString("Erreur fatale"));
    EXPECT_EQ(bench.desktop.boxes[0].text,
              QString("Une erreur est survenue dans Postiq Version 3.0\r\n"
                      "Si vous avez activez l'option mode debug alors visualisez le fichier Debug.html\r\n"
                      "Ce fichier contient les erreurs survenues\r\n\r\n"
                      "Nous sommes désolé mais l'application ne peut continuer ...\r\n\r\n"));
    EXPECT_EQ(readFile(bench.path("Debug.html")),
              QByteArray("<FONT face='Verdana' size='2'><P><FONT COLOR='#FF0000'><B>ERREUR PROGRAMME "
                         "<BR>Where: CLS:CMessage[MWrite]<BR>Numéro: 6<BR>Description: Overflow"
                         "</B></FONT>\r\n</FONT>\r\n"));
}

// Full disk, I/O error or a folder in a log's place: every log drops its line and the program goes
// on; the first line written afterwards is followed by one error-log line that counts the loss.
TEST(Logs, UnwritableLinesAreDroppedAndCountedOnceWritingWorksAgain)
{
    LogBench bench;
    bench.debug.debug = true;
    QDir(bench.dir.path()).mkdir("Debug.html");
    for (const char* name : {"maillog.txt", "error.txt", "update.txt"})
        ASSERT_TRUE(QFile::link("/dev/full", bench.path(name)));

    bench.logs.MailLog("m1"); // its debug echo is lost too
    bench.logs.ErrorLog("e1");
    bench.logs.UpdateLog("u1");
    bench.logs.DbgAdd("d1");
    EXPECT_TRUE(bench.desktop.boxes.isEmpty());
    EXPECT_EQ(bench.logs.lostLines(), 5u);

    // The error log still full: a line written elsewhere cannot report the loss yet.
    QDir(bench.dir.path()).rmdir("Debug.html");
    bench.logs.reopenFiles();
    bench.logs.DbgAdd("d2");
    EXPECT_EQ(bench.logs.lostLines(), 5u);

    for (const char* name : {"maillog.txt", "error.txt", "update.txt"})
        QFile::remove(bench.path(name));
    bench.logs.reopenFiles();
    bench.logs.UpdateLog("u2");
    bench.logs.ErrorLog("e2");
    EXPECT_EQ(bench.logs.lostLines(), 0u);
    EXPECT_EQ(readFile(bench.path("update.txt")), QByteArray("u2\r\n"));
    EXPECT_EQ(readFile(bench.path("error.txt")),
              QByteArray("Feb 05 2004 09:05:07 Postiq: 5 log lines could not be written and were lost\r\ne2\r\n"));

    QFile::remove(bench.path("update.txt"));
    ASSERT_TRUE(QFile::link("/dev/full", bench.path("update.txt")));
    bench.logs.reopenFiles();
    bench.logs.UpdateLog("u3");
    bench.debug.debug = false;
    bench.logs.MailLog("m2");
    EXPECT_TRUE(readFile(bench.path("error.txt"))
                    .endsWith("e2\r\nFeb 05 2004 09:05:07 Postiq: 1 log line could not be written and was lost\r\n"));
    EXPECT_EQ(readFile(bench.path("maillog.txt")), QByteArray("m2\r\n"));
}
