#include <QFile>

#include "delivery/transmission.h"
#include "delivery_bench.h"

using namespace postiq;
using namespace postiq::test;

namespace {

// A deferred file goes back once its age exceeds AttemptDelay minutes by at least a second; the
// delay is 16-bit seconds, so above 546 minutes the scan fails with an error-log line.
TEST(Dispatcher, DeferredFilesGoBackWhenDue)
{
    DeliveryBench b;
    b.settings.ActiveSettings.KeepLocal = true; // nothing leaves OutBox meanwhile
    b.queue("D1", {"<b@dst.test>"}, "x\r\n", 2, false, "Deferred");
    QDir(b.path("Deferred")).mkdir("sub");

    b.settings.ActiveSettings.AttemptDelay = 1;
    b.clock.offsetSeconds = 59;
    b.dispatcher.VerifDeferred();
    EXPECT_EQ(b.files("Deferred"), QStringList{"D1"});

    b.settings.ActiveSettings.AttemptDelay = 547;
    b.clock.offsetSeconds = 100000;
    b.dispatcher.VerifDeferred();
    EXPECT_EQ(b.files("Deferred"), QStringList{"D1"});
    EXPECT_TRUE(b.errorLog().endsWith(" D:MODULE[VerifDeferred] error 6: Overflow\r\n"));

    b.settings.ActiveSettings.AttemptDelay = 0;
    b.clock.offsetSeconds = 1;
    b.dispatcher.VerifDeferred();
    EXPECT_TRUE(b.files("Deferred").isEmpty());
    EXPECT_EQ(b.files("OutBox"), QStringList{"D1"});
    EXPECT_EQ(b.read("OutBox/D1").Essai, 2) << "the attempt count travels with the file";
    EXPECT_TRUE(QFileInfo(b.path("Deferred/sub")).isDir());
}

TEST(Dispatcher, FlushBringsBackEveryDeferredFileAtOnce)
{
    DeliveryBench b;
    b.settings.ActiveSettings.KeepLocal = true;
    for (const char* id : {"F1", "F2", "F3"})
        b.queue(id, {"<b@dst.test>"}, "x\r\n", 1, false, "Deferred");
    b.dispatcher.ForceDeferred();
    EXPECT_EQ(b.files("OutBox"), (QStringList{"F1", "F2", "F3"}));
    EXPECT_TRUE(b.files("Deferred").isEmpty());
}

// With KeepLocal on, mail stays in OutBox and the timer keeps ticking; subfolders and files
// being written (hidden names) are never taken for queue files.
TEST(Dispatcher, KeepLocalFoldersAndHiddenFilesAreLeftAlone)
{
    DeliveryBench b;
    b.settings.ActiveSettings.KeepLocal = true;
    b.queue("K1", {"<b@dst.test>"});
    b.dispatcher.startTimers();
    b.dispatcher.VerifOutBox();
    EXPECT_TRUE(b.idle());
    EXPECT_TRUE(b.dispatcher.tmrVerifOutBox.isActive());

    b.settings.ActiveSettings.KeepLocal = false;
    QFile::rename(b.path("OutBox/K1"), b.path("OutBox/.K1.new"));
    QDir(b.path("OutBox")).mkdir("sub");
    b.dispatcher.VerifOutBox();
    EXPECT_TRUE(b.idle());
    EXPECT_EQ(b.dns.queries, 0);
}

// Every line that begins with a dot gets one more; the end follows the text's own last line end.
TEST(Dispatcher, TransmissionFormOfTheText)
{
    EXPECT_EQ(TransmissionText(""), ".\r\n");
    EXPECT_EQ(TransmissionText("a\r\n.\r\n..b\r\n.c\r\n"), "a\r\n..\r\n...b\r\n..c\r\n.\r\n");
    EXPECT_EQ(TransmissionText("a\r\n\r\n"), "a\r\n\r\n.\r\n"); // an empty last line is the text's own
    // Bare line ends of older queue files go as CR LF; a last line without one gets it.
    EXPECT_EQ(TransmissionText("a\n.\nb\rc\r\r\n."), "a\r\n..\r\nb\r\nc\r\n\r\n..\r\n.\r\n");
    EXPECT_EQ(TransmissionText("x\x80\xff"), "x\x80\xff\r\n.\r\n");
}

} // namespace
