#include <QDir>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include "core/postiq_process.h"
#include "support/fakes.h"
#include "support/mail_client.h"

using namespace postiq::test;

// A relay killed while it wrote leaves hidden staging files and, after a cut move, a message in two
// folders; the next start clears both and says so once in error.txt.
TEST(QueueLeftovers, TheNextStartClearsWhatAKilledRelayLeft)
{
    QTemporaryDir root;
    const QString folder = root.path() + QStringLiteral("/relay");
    for (const char* name : {"OutBox", "Deferred", "Error"})
        QDir().mkpath(folder + '/' + name);
    writeFile(folder + QStringLiteral("/Postiq.ini"),
              "ListenPort\t" + QByteArray::number(freeListenPort()) + "\r\nKeepLocal\tOn\r\n");
    writeFile(folder + QStringLiteral("/OutBox/.A1B2.new"), "torn");
    writeFile(folder + QStringLiteral("/Deferred/.C3D4-1.new"), "torn");
    writeFile(folder + QStringLiteral("/OutBox/E5F6"), "whole");
    writeFile(folder + QStringLiteral("/Error/E5F6"), "whole");

    PostiqProcess relay(folder, root.path() + QStringLiteral("/config"));
    const QString errors = folder + QStringLiteral("/error.txt");
    ASSERT_TRUE(spinUntil([&] { return readFile(errors).contains("second copy"); }, 10000))
        << relay.standardError().constData();
    const QByteArray log = readFile(errors);
    EXPECT_EQ(log.count("2 unfinished queue file(s) of an earlier run removed (never acknowledged)\r\n"), 1) << log.constData();
    EXPECT_EQ(log.count("1 second copy(ies) of a message left by an interrupted move removed\r\n"), 1);
    EXPECT_TRUE(QDir(folder + QStringLiteral("/OutBox")).entryList(QDir::Files | QDir::Hidden).size()
                    + QDir(folder + QStringLiteral("/Error")).entryList(QDir::Files | QDir::Hidden).size() == 1);
    EXPECT_TRUE(QDir(folder + QStringLiteral("/Deferred")).entryList(QDir::Files | QDir::Hidden).isEmpty());
    EXPECT_TRUE(relay.running());
}
