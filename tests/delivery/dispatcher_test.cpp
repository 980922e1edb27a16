#include <QElapsedTimer>
#include <QFile>

#include "delivery/transmission.h"
#include "delivery_bench.h"
#include "support/fake_exchanger.h"

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

// A new queue file leaves at once, long before the 10-second tick, and never from inside the call.
TEST(Dispatcher, ANewQueueFileLeavesAtOnce)
{
    DeliveryBench b;
    FakeExchanger mx;
    ASSERT_TRUE(mx.listen(QHostAddress(QStringLiteral("127.0.0.14")), 25));
    b.mx("now.test", {{10, "127.0.0.14"}});
    b.dispatcher.startTimers();
    b.queue("NOW", {"<a@now.test>"});
    QElapsedTimer clock;
    clock.start();
    b.dispatcher.queueChanged();
    b.dispatcher.queueChanged();
    EXPECT_TRUE(b.idle()) << "nothing is dispatched from inside the call";
    ASSERT_TRUE(spinUntil([&] { return b.idle() && b.files("OutBox").isEmpty(); }, 5000));
    EXPECT_LT(clock.elapsed(), 2000);
    EXPECT_EQ(mx.sessionCount(), 1);
    EXPECT_TRUE(mx.session(0).dataEnded);
}

// A deferred message goes again as soon as its delay has run out, not at the next scan.
TEST(Dispatcher, ADeferredFileLeavesWhenItFallsDue)
{
    DeliveryBench b;
    b.settings.ActiveSettings.AttemptDelay = 0; // due one second after the deferral
    ExchangerScript busy;
    busy.rcpt = {reply("450 4.2.0 try again later")};
    FakeExchanger mx;
    mx.setScriptFor(0, busy);
    ASSERT_TRUE(mx.listen(QHostAddress(QStringLiteral("127.0.0.14")), 25));
    b.mx("due.test", {{10, "127.0.0.14"}});
    b.dispatcher.startTimers();
    // From the null sender, so that no delay notice goes with it.
    b.queue("DUE", {"<a@due.test>"}, "Subject: t\r\n\r\nhi\r\n", 0, false, "OutBox", "<>");
    QElapsedTimer clock;
    clock.start();
    b.dispatcher.queueChanged();
    ASSERT_TRUE(spinUntil([&] { return b.files("Deferred") == QStringList{"DUE"}; }, 3000));
    ASSERT_TRUE(spinUntil([&] { return b.idle() && mx.sessionCount() == 2 && b.files("Deferred").isEmpty()
                                    && b.files("OutBox").isEmpty(); },
                          5000));
    EXPECT_LT(clock.elapsed(), 5000) << "well before the 10-second scan";
    EXPECT_TRUE(mx.session(1).dataEnded);
    EXPECT_TRUE(b.mailLog("DUE to=<a@due.test>").value(1).contains("status=sent"));
}

// Thousands of deferred files not yet due: a new message still leaves at once, none of them moves,
// and a message that another program drops into OutBox behind the queue's back is found too.
TEST(Dispatcher, ManyDeferredFilesDoNotDelayANewMessage)
{
    DeliveryBench b;
    FakeExchanger mx;
    ASSERT_TRUE(mx.listen(QHostAddress(QStringLiteral("127.0.0.14")), 25));
    b.mx("dst.test", {{10, "127.0.0.14"}});
    b.queue("TEMPLATE", {"<b@dst.test>"}, "x\r\n", 1, false, "Deferred");
    const QByteArray record = readFile(b.path("Deferred/TEMPLATE"));
    for (int i = 0; i < 3000; ++i)
        writeFile(b.path("Deferred/W" + QString::number(i)), record);
    b.dispatcher.startTimers();
    b.dispatcher.VerifDeferred(); // the index is built here, from one scan

    b.queue("NEW", {"<b@dst.test>"});
    QElapsedTimer clock;
    clock.start();
    b.dispatcher.queueChanged();
    ASSERT_TRUE(spinUntil([&] { return b.idle() && mx.sessionCount() == 1 && b.files("OutBox").isEmpty(); }, 5000));
    EXPECT_LT(clock.elapsed(), 3000);
    // Written by another process, without a word to this one: the tick's rescan finds it.
    writeFile(b.path("OutBox/DROP"), readFile(b.path("Deferred/W7")));
    b.dispatcher.tmrVerifOutBox.setInterval(10);
    b.dispatcher.enableOutboxTimer();
    ASSERT_TRUE(spinUntil([&] { return b.idle() && mx.sessionCount() == 2 && b.files("OutBox").isEmpty(); }, 5000));
    EXPECT_EQ(b.files("Deferred").size(), 3001);
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
