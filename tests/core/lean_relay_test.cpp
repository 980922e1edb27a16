#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <memory>

#include "core/postiq_process.h"
#include "support/fakes.h"
#include "support/mail_client.h"

using namespace postiq::test;

namespace {

// The libraries that only a desktop needs; a headless relay must map none of them.
const char* const kDesktopLibraries[] = {"libQt6Widgets", "libQt6Gui", "libGL", "libEGL", "libpostiq_ui"};
// Loaded on the first DNS question or TLS session, never by a relay that has not sent anything yet.
const char* const kOnDemandLibraries[] = {"libldns", "libssl", "libcrypto"};
// Loaded only where a session bus is advertised, to reach the desktop keyring.
const char* const kKeyringLibraries[] = {"libpostiq_keyring", "libqt6keychain", "libQt6DBus", "libdbus-1"};

bool sessionBusAdvertised()
{
    return !qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS")
        || QFileInfo::exists(qEnvironmentVariable("XDG_RUNTIME_DIR") + QStringLiteral("/bus"));
}

QByteArray mapsOf(qint64 pid) { return readFile(QStringLiteral("/proc/%1/maps").arg(pid)); }

struct LeanRelay : ::testing::Test {
    QTemporaryDir root;
    QString folder = root.path() + QStringLiteral("/relay");
    QString configHome = root.path() + QStringLiteral("/config");
    quint16 port = freeListenPort();

    void SetUp() override
    {
        for (const char* sub : {"OutBox", "Deferred", "Error", "language"})
            QDir().mkpath(folder + '/' + QLatin1String(sub));
        writeFile(path("Postiq.ini"), "ListenPort\t" + QByteArray::number(port) + "\r\nKeepLocal\tOn\r\n");
    }
    QString path(const char* name) const { return folder + '/' + QLatin1String(name); }
    bool serviceStarted() const { return readFile(path("maillog.txt")).contains("Start of SMTP service"); }

    // The program as a desktop session starts it: a display named, no --headless. The display is
    // Qt's offscreen one, so that no X server is needed.
    std::unique_ptr<QProcess> startOnDesktop(const QString& program)
    {
        auto process = std::make_unique<QProcess>();
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("XDG_CONFIG_HOME"), configHome);
        environment.insert(QStringLiteral("DISPLAY"), QStringLiteral(":99"));
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        process->setProcessEnvironment(environment);
        process->start(program, {QStringLiteral("--folder"), folder});
        process->waitForStarted(5000);
        return process;
    }
    void quitAndWait(QProcess& process)
    {
        EXPECT_EQ(runToEnd(folder, configHome, {QStringLiteral("--quit")}), 0);
        EXPECT_TRUE(process.waitForFinished(10000));
        EXPECT_EQ(process.exitCode(), 0);
    }
};

} // namespace

TEST_F(LeanRelay, HeadlessMapsNoWidgetGuiOrGlLibrary)
{
    PostiqProcess relay(folder, configHome);
    ASSERT_TRUE(spinUntil([&] { return serviceStarted(); }, 10000)) << relay.standardError().constData();
    const QByteArray maps = mapsOf(relay.processId());
    ASSERT_TRUE(maps.contains("libQt6Core")); // the maps were read
    for (const char* library : kDesktopLibraries)
        EXPECT_FALSE(maps.contains(library)) << library;
    for (const char* library : kOnDemandLibraries)
        EXPECT_FALSE(maps.contains(library)) << library;
    for (const char* library : kKeyringLibraries)
        EXPECT_TRUE(sessionBusAdvertised() || !maps.contains(library)) << library;
}

// On a desktop the plugin beside the program brings the windows (a build without it skips this).
TEST_F(LeanRelay, ADesktopLoadsThePluginBesideTheProgram)
{
    const QString plugin = QFileInfo(QStringLiteral(POSTIQ_BINARY)).absolutePath() + QStringLiteral("/libpostiq_ui.so");
    if (!QFileInfo::exists(plugin))
        GTEST_SKIP() << "no desktop plugin beside the program";
    const std::unique_ptr<QProcess> desktop = startOnDesktop(QStringLiteral(POSTIQ_BINARY));
    ASSERT_TRUE(spinUntil([&] { return serviceStarted(); }, 10000)) << desktop->readAllStandardError().constData();
    const QByteArray maps = mapsOf(desktop->processId());
    EXPECT_TRUE(maps.contains("libpostiq_ui.so"));
    EXPECT_TRUE(maps.contains("libQt6Widgets"));
    quitAndWait(*desktop);
}

// A copy of the program without the plugin says so and serves mail headless.
TEST_F(LeanRelay, ADesktopWithoutThePluginRunsHeadless)
{
    const QString alone = root.path() + QStringLiteral("/bin/postiq");
    QDir().mkpath(root.path() + QStringLiteral("/bin"));
    ASSERT_TRUE(QFile::copy(QStringLiteral(POSTIQ_BINARY), alone));
    const std::unique_ptr<QProcess> headless = startOnDesktop(alone);
    ASSERT_TRUE(spinUntil([&] { return serviceStarted(); }, 10000)) << headless->readAllStandardError().constData();
    const QByteArray said = headless->readAllStandardError();
    EXPECT_TRUE(said.contains("postiq: no desktop plugin (")) << said.constData();
    EXPECT_TRUE(said.contains("libpostiq_ui.so")) << said.constData();
    EXPECT_TRUE(said.contains("; running headless\n")) << said.constData();
    const QByteArray maps = mapsOf(headless->processId());
    for (const char* library : kDesktopLibraries)
        EXPECT_FALSE(maps.contains(library)) << library;
    Client client(port);
    EXPECT_EQ(client.answer(), kGreeting);
    quitAndWait(*headless);
}

// A full disk under the mail log: mail is still accepted, the lines are dropped, and once the log
// can be written again (after --reload here) the error log counts what was lost.
TEST_F(LeanRelay, AnUnwritableMailLogLosesLinesButNoMail)
{
    ASSERT_TRUE(QFile::link(QStringLiteral("/dev/full"), path("maillog.txt")));
    PostiqProcess relay(folder, configHome);
    std::unique_ptr<Client> client;
    ASSERT_TRUE(spinUntil([&] { // nothing in the mail log says when the service listens
        client = std::make_unique<Client>(port);
        return client->answer({}, 500) == kGreeting;
    }, 10000)) << relay.standardError().constData();
    Client& first = *client;
    play(first, kEnvelope.mid(1));
    EXPECT_EQ(first.answer("Subject: s\r\n\r\nbody\r\n.\r\n"), kAccepted);
    EXPECT_EQ(first.answer("QUIT\r\n").left(3), QByteArray("221"));
    EXPECT_EQ(QDir(path("OutBox")).entryList(QDir::Files).size(), 1);
    EXPECT_FALSE(readFile(path("error.txt")).contains("could not be written"));

    ASSERT_TRUE(QFile::remove(path("maillog.txt")));
    EXPECT_EQ(runToEnd(folder, configHome, {QStringLiteral("--reload")}), 0);
    EXPECT_TRUE(relay.running());
    EXPECT_TRUE(readFile(path("maillog.txt")).contains(" Postiq: Chargement de la configuration"));
    const QList<QByteArray> lost = logLines(path("error.txt"), "could not be written");
    ASSERT_EQ(lost.size(), 1);
    EXPECT_TRUE(lost[0].mid(20).startsWith(" Postiq: ")) << lost[0].constData();
    EXPECT_TRUE(lost[0].endsWith(" log lines could not be written and were lost")) << lost[0].constData();
    EXPECT_GE(lost[0].mid(29).split(' ').first().toInt(), 5) << lost[0].constData(); // start-up and session lines
}
