#include <QDir>
#include <QProcess>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include "core/postiq_process.h"
#include "support/fakes.h"
#include "support/mail_client.h"

using namespace postiq::test;

namespace {

// Waits until the relay on the folder answers its control channel ("--stop" of a stopped service
// answers "nothing", status 0).
bool answers(const QString& folder, const QString& configHome)
{
    return spinUntil([&] { return runToEnd(folder, configHome, {QStringLiteral("--stop")}) == 0; }, 15000);
}

} // namespace

TEST(ShowQueueOption, ARunningRelayWithWindowsOpensItsOwnAndAHeadlessOneSaysWhyNot)
{
    QTemporaryDir folder;
    QTemporaryDir config;
    writeFile(folder.path() + QStringLiteral("/Postiq.ini"),
              "ListenPort\t" + QByteArray::number(freeListenPort()) + "\r\nLaunchStart\tOff\r\n");

    // The real program with its windows, on the offscreen platform.
    QProcess desktop;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), config.path());
    environment.insert(QStringLiteral("DISPLAY"), QStringLiteral(":postiq-test"));
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    desktop.setProcessEnvironment(environment);
    desktop.start(QStringLiteral(POSTIQ_BINARY), {QStringLiteral("--folder"), folder.path()});
    ASSERT_TRUE(desktop.waitForStarted(5000));
    ASSERT_TRUE(answers(folder.path(), config.path()));

    QByteArray error;
    EXPECT_EQ(runToEnd(folder.path(), config.path(), {QStringLiteral("--show-queue")}, &error), 0) << error.constData();
    EXPECT_EQ(runToEnd(folder.path(), config.path(), {QStringLiteral("--quit")}), 0);
    EXPECT_TRUE(desktop.waitForFinished(10000));
    EXPECT_EQ(desktop.exitCode(), 0);

    // The same folder with a headless relay: nothing can show the window, and the user hears why.
    PostiqProcess headless(folder.path(), config.path());
    ASSERT_TRUE(answers(folder.path(), config.path()));
    EXPECT_EQ(runToEnd(folder.path(), config.path(), {QStringLiteral("--show-queue")}, &error), 1);
    EXPECT_TRUE(error.contains("runs without windows")) << error.constData();
    EXPECT_EQ(runToEnd(folder.path(), config.path(), {QStringLiteral("--quit")}), 0);

    // No relay and no desktop: refused with the way to list the queue instead.
    EXPECT_EQ(runToEnd(folder.path(), config.path(), {QStringLiteral("--show-queue")}, &error), 2);
    EXPECT_TRUE(error.contains("--queue")) << error.constData();
    const QStringList both{QStringLiteral("--show-queue"), QStringLiteral("--stop")};
    EXPECT_EQ(runToEnd(folder.path(), config.path(), both, &error), 2);
    EXPECT_TRUE(error.contains("cannot be used with another command")) << error.constData();
}
