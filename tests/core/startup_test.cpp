#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include "core/postiq_process.h"
#include "support/fakes.h"
#include "support/mail_client.h"

using namespace postiq::test;

namespace {

const QRegularExpression kStamp(QStringLiteral("^[A-Z][a-z]{2} \\d\\d \\d{4} \\d\\d:\\d\\d:\\d\\d"));

// The mail-log lines without their date stamps, checking that each has one.
QStringList unstampedLines(const QString& path)
{
    QStringList lines;
    for (const QString& line : QString::fromUtf8(readFile(path)).split(QStringLiteral("\r\n"), Qt::SkipEmptyParts)) {
        EXPECT_TRUE(kStamp.match(line).hasMatch()) << line.toStdString();
        lines << line.mid(20);
    }
    return lines;
}

struct StartUpFixture : ::testing::Test {
    QTemporaryDir root;
    QString folder = root.path() + QStringLiteral("/relay");
    QString configHome = root.path() + QStringLiteral("/config");

    QString path(const QString& name) const { return folder + '/' + name; }
    bool configurationLoaded() const
    {
        return readFile(path(QStringLiteral("maillog.txt"))).contains("Chargement de la configuration");
    }
    void writeIni(const QByteArray& lines)
    {
        QDir().mkpath(folder);
        writeFile(path(QStringLiteral("Postiq.ini")), lines);
    }
};

} // namespace

TEST_F(StartUpFixture, FirstStartInAnEmptyFolderLeavesTheFoldersLogsIniAndRegistryRecord)
{
    PostiqProcess postiq(folder, configHome);
    ASSERT_TRUE(spinUntil([&] { return configurationLoaded(); }, 10000));
    // The service starts on port 25 by default; without the right to bind it the port is reported.
    ASSERT_TRUE(spinUntil([&] {
        return readFile(path(QStringLiteral("maillog.txt"))).contains("Start of SMTP service")
            || readFile(path(QStringLiteral("error.txt"))).contains(" Port 25 utilis");
    }, 10000));
    postiq.terminate();
    ASSERT_EQ(postiq.waitForExit(), 0);

    for (const char* name : {"OutBox", "Deferred", "Error", "language"})
        EXPECT_TRUE(QFileInfo(path(QLatin1String(name))).isDir()) << name;
    EXPECT_EQ(readFile(path(QStringLiteral("Postiq.ini"))), kHeaderOnlyIni);

    QStringList lines = unstampedLines(path(QStringLiteral("maillog.txt")));
    const QStringList startUp{
        QStringLiteral(" Postiq: 'OutBox' directory creation"),
        QStringLiteral(" Postiq: 'Deferred' directory creation"),
        QStringLiteral(" Postiq: 'Error' directory creation"),
        QStringLiteral(" Postiq: 'language' directory creation"),
        QStringLiteral(" Postiq: Writing Postiq.ini"),
        QStringLiteral(" Postiq: Chargement du langage"), // fr.ini, beside the program
        QStringLiteral(" Postiq: Chargement de la configuration (Postiq.ini)"),
    };
    ASSERT_GE(lines.size(), startUp.size());
    EXPECT_EQ(lines.mid(0, startUp.size()), startUp);
    EXPECT_EQ(lines.mid(lines.size() - 2),
              (QStringList{QStringLiteral(" Postiq SMTP service stopped"),
                           QStringLiteral(" Postiq Writing DNS cache (0) [OK]")}));

    // Before the configuration is read every debug entry is written, each with its banner.
    const QByteArray debug = readFile(path(QStringLiteral("Debug.html")));
    EXPECT_EQ(debug.count("DEBUG - SAFE MODE - CONFIG NOT LOADING"), 5);
    EXPECT_TRUE(debug.contains("[MAILLOG]: "));

    const QByteArray registry = readFile(configHome + QStringLiteral("/postiq/registry.ini"));
    EXPECT_TRUE(registry.contains("System=Installed")) << registry.constData();
    EXPECT_TRUE(registry.contains("Version=3.0"));
    EXPECT_TRUE(registry.contains("[Software\\Groupe Valbrin\\Postiq\\Configuration]"));
    EXPECT_FALSE(QFile::exists(configHome + QStringLiteral("/autostart/postiq.desktop")));
}

TEST_F(StartUpFixture, ASecondInstanceIsRefusedAndLeavesTheFirstRunning)
{
    writeIni("LaunchStart\tOff\r\n");
    PostiqProcess first(folder, configHome);
    ASSERT_TRUE(spinUntil([&] { return configurationLoaded(); }, 10000));
    const QByteArray logBefore = readFile(path(QStringLiteral("maillog.txt")));

    PostiqProcess second(folder, configHome);
    EXPECT_EQ(second.waitForExit(), 2);
    EXPECT_TRUE(second.standardError().contains("Postiq est déjà lancé !"));
    EXPECT_EQ(readFile(path(QStringLiteral("maillog.txt"))), logBefore);

    EXPECT_TRUE(first.running());
    first.terminate();
    EXPECT_EQ(first.waitForExit(), 0);
}

TEST_F(StartUpFixture, ReadOnlyFilesStopTheStartUp)
{
    struct Case {
        const char* file;
        const char* message;
    };
    const Case cases[] = {
        {"update.txt", "Fichier de log 'update.txt' en lecture seule !\r\n\r\nL'application ne peut continuer ..."},
        {"maillog.txt", "Fichier de log 'maillog.txt' en lecture seule !"},
        {"Postiq.ini", "Fichier de configuration en lecture seule !\r\n\r\nL'application ne peut continuer ..."},
    };
    for (const Case& c : cases) {
        QDir(folder).removeRecursively();
        for (const char* sub : {"OutBox", "Deferred", "Error", "language"})
            QDir().mkpath(path(QLatin1String(sub))); // so that nothing is logged before the check
        const QString file = path(QLatin1String(c.file));
        writeFile(file, "");
        QFile::setPermissions(file, QFileDevice::ReadOwner | QFileDevice::ReadGroup | QFileDevice::ReadOther);

        PostiqProcess run(folder, configHome);
        EXPECT_EQ(run.waitForExit(), 2) << c.file;
        EXPECT_TRUE(run.standardError().contains(c.message)) << c.file;
        EXPECT_FALSE(readFile(path(QStringLiteral("maillog.txt"))).contains("Chargement de la configuration"));
    }
}

TEST_F(StartUpFixture, CommandLineVersionHelpAndBadFolder)
{
    QProcess process;
    process.start(QStringLiteral(POSTIQ_BINARY), {QStringLiteral("--version")});
    ASSERT_TRUE(process.waitForFinished(5000));
    EXPECT_EQ(process.exitCode(), 0);
    EXPECT_EQ(process.readAllStandardOutput(), QByteArray("Postiq 3.0\n"));

    process.start(QStringLiteral(POSTIQ_BINARY), {QStringLiteral("--help")});
    ASSERT_TRUE(process.waitForFinished(5000));
    EXPECT_EQ(process.exitCode(), 0);
    EXPECT_TRUE(process.readAllStandardOutput().contains("--folder DIR"));

    writeFile(root.path() + QStringLiteral("/plain-file"), "x");
    PostiqProcess run(root.path() + QStringLiteral("/plain-file/relay"), configHome);
    EXPECT_EQ(run.waitForExit(), 2);
    EXPECT_FALSE(run.standardError().isEmpty());
}

TEST_F(StartUpFixture, AnInvalidSettingIsTheFatalReport)
{
    writeIni("MaxNbrAttempt 256\r\n");
    PostiqProcess run(folder, configHome);
    EXPECT_EQ(run.waitForExit(), 1);
    const QByteArray standardError = run.standardError();
    EXPECT_TRUE(standardError.contains("Une erreur est survenue dans Postiq Version 3.0"));
    EXPECT_TRUE(standardError.contains("MOD:CONFIGURATION[ChargerConfig]"));
}
