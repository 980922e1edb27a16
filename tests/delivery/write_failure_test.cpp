#include <QFile>

#include "support/fake_exchanger.h"

#include "delivery_bench.h"

using namespace postiq;
using namespace postiq::test;

namespace {

// A queue folder that cannot take files: the folder is replaced by a plain file.
void breakFolder(DeliveryBench& b, const char* folder)
{
    const QString path = b.path(QString::fromLatin1(folder));
    ASSERT_TRUE(QDir(path).removeRecursively());
    writeFile(path, "not a folder");
}

// Cut short, garbage, or a first recipient without domain (written by hand): each is set aside in
// Error byte for byte, the queue goes on and the program with it.
TEST(WriteFailure, UnreadableQueueFilesGoToErrorAndTheQueueMovesOn)
{
    DeliveryBench b;
    b.queue("GOOD", {"<b@dst.test>"});
    b.queue("NODOMAIN", {"<nobody>"});
    const QByteArray whole = readFile(b.path("OutBox/GOOD"));
    writeFile(b.path("OutBox/SHORT"), whole.left(whole.size() - 5));
    writeFile(b.path("OutBox/JUNK"), QByteArray(3, '\xff') + "garbage");
    QFile::remove(b.path("OutBox/GOOD"));
    for (int tick = 0; tick < 3; ++tick)
        b.dispatcher.VerifOutBox();
    ASSERT_TRUE(b.settle());
    EXPECT_EQ(b.files("Error"), (QStringList{"JUNK", "NODOMAIN", "SHORT"}));
    EXPECT_TRUE(b.files("OutBox").isEmpty());
    EXPECT_EQ(readFile(b.path("Error/SHORT")), whole.left(whole.size() - 5));
    EXPECT_EQ(b.errorLog().count(" D:MODULE[SendOutSmtp] error "), 3);
    EXPECT_TRUE(b.errorLog().contains("The address '<nobody>' has no domain => placed in the error directory"));
    EXPECT_EQ(b.errorLog().count("=> placed in the error directory\r\n"), 3);
    EXPECT_TRUE(b.desktop.boxes.isEmpty());
}

// A deferral that cannot write its Deferred copy leaves the message in OutBox as it was, frees
// the slot and says why in the error log; once the folder is back the next attempt defers it.
TEST(WriteFailure, AFailedDeferralLeavesTheMessageWhereItWas)
{
    DeliveryBench b;
    b.mx("dst.test", {{10, kDeadHost}});
    b.queue("KEEP", {"<b@dst.test>"});
    const QByteArray before = readFile(b.path("OutBox/KEEP"));
    breakFolder(b, "Deferred");
    b.dispatcher.VerifOutBox();
    ASSERT_TRUE(b.settle());
    EXPECT_EQ(b.files("OutBox"), QStringList{"KEEP"});
    EXPECT_EQ(readFile(b.path("OutBox/KEEP")), before);
    EXPECT_TRUE(b.errorLog().contains(" M:MAIN[SmtpDistant_Error] error 70: Cannot create "));
    EXPECT_TRUE(b.desktop.boxes.isEmpty());

    QFile::remove(b.path("Deferred"));
    QDir(b.dir.path()).mkdir("Deferred");
    b.dispatcher.VerifOutBox();
    ASSERT_TRUE(b.settle());
    EXPECT_EQ(b.files("Deferred"), QStringList{"KEEP"});
}

// A message refused with 550 whose Error copy cannot be written stays in OutBox; a failing move
// back from Deferred leaves the deferred copy alone and no second copy in OutBox.
TEST(WriteFailure, FailedMovesNeverLoseNorDoubleAMessage)
{
    DeliveryBench b;
    b.useServer(QString::fromLatin1(kDeadHost));
    b.queue("LOOP", {"<b@dst.test>"}, "x\r\n", 3, true); // its last attempt: Error next
    breakFolder(b, "Error");
    b.dispatcher.VerifOutBox();
    ASSERT_TRUE(b.settle());
    EXPECT_EQ(b.files("OutBox"), QStringList{"LOOP"});
    EXPECT_TRUE(b.errorLog().contains("error 70: Cannot create "));

    b.settings.ActiveSettings.KeepLocal = true;
    QFile::remove(b.path("OutBox/LOOP"));
    b.queue("BACK", {"<b@dst.test>"}, "x\r\n", 1, false, "Deferred");
    breakFolder(b, "OutBox");
    b.dispatcher.Flush();
    EXPECT_EQ(b.files("Deferred"), QStringList{"BACK"});
    EXPECT_TRUE(b.desktop.boxes.isEmpty());
}

// A torn queue file that cannot even be set aside (Error is broken) stays in OutBox with one line,
// is passed over until the next tick instead of being tried in a loop, and the mail behind it
// still leaves.
TEST(WriteFailure, ATornFileThatCannotBeSetAsideStaysAndTheQueueGoesOn)
{
    DeliveryBench b;
    FakeExchanger mx;
    ASSERT_TRUE(mx.listen(QHostAddress(QStringLiteral("127.0.0.14")), 25));
    b.mx("dst.test", {{10, "127.0.0.14"}});
    b.queue("GOOD", {"<b@dst.test>"});
    const QByteArray whole = readFile(b.path("OutBox/GOOD"));
    writeFile(b.path("OutBox/TORN"), whole.left(whole.size() - 4));
    breakFolder(b, "Error");
    b.dispatcher.queueChanged();
    ASSERT_TRUE(spinUntil([&] { return b.idle() && b.files("OutBox") == QStringList{"TORN"}; }, 5000));
    spinUntil([] { return false; }, 300); // time for a loop to show itself
    EXPECT_EQ(mx.sessionCount(), 1);
    EXPECT_EQ(b.errorLog().count(" => left in OutBox: "), 1);
    EXPECT_EQ(readFile(b.path("OutBox/TORN")), whole.left(whole.size() - 4));
    EXPECT_TRUE(b.desktop.boxes.isEmpty());

    // Once Error takes files again, the next tick sets it aside.
    QFile::remove(b.path("Error"));
    QDir(b.dir.path()).mkdir("Error");
    b.dispatcher.tmrVerifOutBox.setInterval(10);
    b.dispatcher.startTimers();
    ASSERT_TRUE(spinUntil([&] { return b.files("Error") == QStringList{"TORN"}; }, 3000));
    EXPECT_TRUE(b.files("OutBox").isEmpty());
}

} // namespace
