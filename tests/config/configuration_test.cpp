#include <QCoreApplication>
#include <gtest/gtest.h>

#include <QFile>

#include "platform/xdg_registry.h"
#include "config/autostart.h"
#include "config/config_file.h"
#include "config/defaults.h"
#include "config/settings.h"
#include "platform/network_discovery.h"
#include "support/fakes.h"
#include "support/memory_registry.h"

using namespace postiq;
using namespace postiq::test;

namespace {

struct FakeDiscovery : NetworkDiscovery {
    NetworkParams params{QStringLiteral("desk"), {}};
    NetworkParams query() override { return params; }
};

// A temporary program folder with the program-wide objects the configuration works on.
struct ConfigBench {
    QTemporaryDir dir;
    RecordingDesktop desktop;
    FixedClock clock;
    Settings settings;
    Logs logs{dir.path(), settings, desktop, clock};
    FakeDiscovery discovery;
    MemoryRegistry registry;
    QStringList languagesLoaded;
    ConfigLoader loader{settings, logs, discovery, registry,
                        [this](const QString& language) { languagesLoaded << language; }};

    QString path(const QString& name) const { return dir.path() + '/' + name; }
    void writeIni(const QByteArray& bytes) const { writeFile(path("Postiq.ini"), bytes); }
};

const QByteArray kHeader =
    "# Fichier de configuration de Postiq\r\n"
    "# Placer un di\xC3\xA8se '#' devant une ligne pour qu'elle devienne un commentaire\r\n"
    "\r\n"
    "# Version de Postiq pour ce fichier de configuration (derni\xC3\xA8re \xC3\xA9" "criture logicielle)\r\n"
    "# Postiq Version 3.0\r\n"
    "\r\n";

CConfiguration withEveryFlag(CConfiguration c)
{
    for (bool* flag : {&c.LaunchStartDefined, &c.DebugModeDefined, &c.ComputerStartDefined,
                       &c.DNSServerDefined, &c.LanguageDefined, &c.KeepLocalDefined, &c.ListenPortDefined,
                       &c.SmtpServerDefined, &c.MaxNbrAttemptDefined, &c.AttemptDelayDefined, &c.RelayDefined})
        *flag = true;
    return c;
}

TEST(WriteConf, WithoutFlagsWritesOnlyTheSkeleton)
{
    ConfigBench bench;
    WriteConf(CConfiguration{}, bench.logs);
    EXPECT_EQ(readFile(bench.path("Postiq.ini")),
              kHeader + "<Global>\r\n</Global>\r\n\r\n<Registry>\r\n</Registry>\r\n");
    EXPECT_TRUE(readFile(bench.path("maillog.txt")).endsWith("Feb 05 2004 09:05:07 Postiq: Writing Postiq.ini\r\n"));
}

TEST(WriteConf, EveryFlagWritesEveryGroupInOrderAndReadsBack)
{
    // Numbers at the edges of their ranges.
    const CConfiguration written = withEveryFlag(
        {.DebugMode = true, .ComputerStart = true, .DNSServer = "10.0.0.53", .Language = "en", .KeepLocal = true,
         .ListenPort = -32768, .SmtpServer = "smtp.example.net", .MaxNbrAttempt = 255, .AttemptDelay = 32767});
    ConfigBench bench;
    bench.writeIni(QByteArray(4000, 'x')); // longer than the new file, and must go entirely
    WriteConf(written, bench.logs);
    EXPECT_EQ(readFile(bench.path("Postiq.ini")),
              kHeader
                  + "Debug\tOn\r\n\r\nListenPort\t-32768\r\n\r\nLanguage\ten\r\n\r\n"
                    "# Nombre maximal de tentatives d'envoi en cas d'\xC3\xA9" "chec\r\n"
                    "MaxNbrAttempt\t255\r\n\r\n"
                    "# Nombre de minutes avant la prochaine tentative d'envoi apr\xC3\xA8s un \xC3\xA9" "chec\r\n"
                    "AttemptDelay\t32767\r\n\r\n"
                    "<Global>\r\n"
                    "\t# D\xC3\xA9marrer Postiq \xC3\xA0 son lancement\r\n"
                    "\tLaunchStart\tOff\r\n\r\n"
                    "\t# Forcer Postiq \xC3\xA0 accepter les mails mais les laisser\r\n"
                    "\t# dans le r\xC3\xA9pertoire local d'envoi 'OutBox'\r\n"
                    "\tKeepLocal\tOn\r\n\r\n"
                    "\t# Serveur DNS (g\xC3\xA9n\xC3\xA9ralement celui de votre FAI)\r\n"
                    "\t#DNSServer\t127.0.0.1\r\n"
                    "\tDNSServer\t10.0.0.53\r\n\r\n"
                    "\t# Serveur SMTP (pour tous message sortant)\r\n"
                    "\tSmtpServer\tsmtp.example.net\r\n\r\n"
                    "\t# Etre relai pour le r\xC3\xA9seau 192.168.x.x\r\n"
                    "\tRelay\tOff\r\n\r\n"
                    "</Global>\r\n\r\n<Registry>\r\n\tComputerStart\tOn\r\n</Registry>\r\n");
    bench.loader.ChargerConfig(true);
    EXPECT_EQ(bench.settings.UserSettings, written);
}

TEST(WriteConf, ReadOnlyFileIsAFaultForTheCaller)
{
    ConfigBench bench;
    bench.writeIni("keep me");
    QFile::setPermissions(bench.path("Postiq.ini"), QFile::ReadOwner);
    try {
        WriteConf(CConfiguration{}, bench.logs);
        ADD_FAILURE() << "a read-only file must not be replaced";
    } catch (const Fault& fault) {
        EXPECT_EQ(fault.number(), ErrAccessDenied);
    }
    EXPECT_EQ(readFile(bench.path("Postiq.ini")), QByteArray("keep me"));
}

TEST(ChargerConfig, FileOfCommentsGivesTheDefaultsAndDoesTheWholeLoading)
{
    ConfigBench bench;
    bench.writeIni("# only a comment\r\n\r\n   # indented, comment\r\n<Global>\r\n</Global>\r\n");
    bench.loader.ChargerConfig(true);
    EXPECT_EQ(bench.settings.ActiveSettings,
              CConfiguration({.LaunchStart = true, .DNSServer = "127.0.0.1", .Language = "fr", .ListenPort = 25,
                              .SmtpServer = "smtp.fai.com", .MaxNbrAttempt = 3, .AttemptDelay = 60, .Relay = true}));
    EXPECT_EQ(bench.settings.UserSettings, CConfiguration{});
    EXPECT_TRUE(bench.settings.ConfigLoaded);
    EXPECT_EQ(bench.languagesLoaded, QStringList{"fr"});
    EXPECT_TRUE(readFile(bench.path("maillog.txt"))
                    .endsWith("Feb 05 2004 09:05:07 Postiq: Chargement de la configuration (Postiq.ini)\r\n"));
}

TEST(ChargerConfig, ReaderRules)
{
    ConfigBench bench;
    bench.writeIni("Relay off\r\n"                          // only the exact "Off" is False
                   "\tLaunchStart\tOff\r\n"                 // tabs separate like spaces
                   "SmtpServer mail.SmtpServer.net\r\n"     // every occurrence of the key goes
                   "DNSServer\r\n"                          // an empty value is a value
                   "Language de\xC2\xA0,KeepLocal Off\r\n"  // a comma starts a new item; only spaces are trimmed
                   "\"ListenPort 2525\"\r\n"                // quotes are removed
                   "listenport 1\r\n"                       // keys are case-sensitive
                   "MaxNbrAttempt 7\r\nMaxNbrAttempt 0\n"   // the last occurrence wins
                   "AttemptDelay   +30  \r\n"
                   "Debug # not a comment here\r\n"
                   "#Debug Off\r\n"
                   "<Registry>\r\n\tComputerStart\tOff\r\n</Registry>");
    bench.loader.ChargerConfig(true);
    EXPECT_EQ(bench.settings.UserSettings,
              withEveryFlag({.DebugMode = true, .DNSServer = "", .Language = QString::fromUtf8("de\xC2\xA0"),
                             .ListenPort = 2525, .SmtpServer = "mail..net", .AttemptDelay = 30, .Relay = true}));
}

TEST(ChargerConfig, FileValuesTakeEffectOnlyWhenAppliedAndLeaveWithTheFile)
{
    ConfigBench bench;
    bench.writeIni("ListenPort 2525\r\nComputerStart On\r\nLanguage en\r\n");
    bench.loader.ChargerConfig(false);
    EXPECT_EQ(bench.settings.UserSettings.ListenPort, 2525);
    EXPECT_EQ(bench.settings.ActiveSettings.ListenPort, 25);
    EXPECT_EQ(bench.registry.writes, 0); // the autostart entry waits for the next full loading

    bench.loader.ChargerConfig(true);
    EXPECT_EQ(bench.settings.ActiveSettings.ListenPort, 2525);
    EXPECT_EQ(bench.registry.readValue(kRunKey, "Postiq"), AutostartCommand(bench.dir.path()));
    EXPECT_EQ(bench.languagesLoaded, QStringList({"fr", "en"}));

    bench.writeIni("\r\n");
    bench.loader.ChargerConfig(true);
    EXPECT_FALSE(bench.settings.UserSettings.ListenPortDefined);
    EXPECT_EQ(bench.settings.ActiveSettings.ListenPort, 25);
    EXPECT_FALSE(bench.registry.valueExists(kRunKey, "Postiq"));
}

TEST(ChargerConfig, MissingFileAndBadNumbersAreTheFatalReport)
{
    const struct {
        const char* ini; // no file at all when null
        int number;
    } cases[] = {
        {nullptr, ErrFileNotFound},
        {"MaxNbrAttempt 256", ErrOverflow},
        {"MaxNbrAttempt -1", ErrOverflow},
        {"ListenPort 32768", ErrOverflow},
        {"AttemptDelay 99999999999999999999999", ErrOverflow},
        {"ListenPort 25.5", ErrTypeMismatch},
        {"AttemptDelay -", ErrTypeMismatch},
        {"MaxNbrAttempt", ErrTypeMismatch},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.ini ? c.ini : "no file");
        ConfigBench bench;
        if (c.ini)
            bench.writeIni(QByteArray(c.ini) + "\r\n");
        EXPECT_THROW(bench.loader.ChargerConfig(true), ProgramEnded);
        ASSERT_EQ(bench.desktop.diagnostics.size(), 1);
        EXPECT_TRUE(bench.desktop.diagnostics[0].startsWith(
            QString("Where: MOD:CONFIGURATION[ChargerConfig], number %1: ").arg(c.number)))
            << bench.desktop.diagnostics[0].toStdString();
        EXPECT_FALSE(bench.settings.ConfigLoaded);
    }
}

TEST(ChargerConfig, FailingDiscoveryIsReportedUnderLoadDefault)
{
    struct BrokenDiscovery : NetworkDiscovery {
        NetworkParams query() override { throw Fault(ErrNetwork, "no network"); }
    } broken;
    ConfigBench bench;
    bench.writeIni("");
    ConfigLoader loader(bench.settings, bench.logs, broken, bench.registry, nullptr);
    EXPECT_THROW(loader.ChargerConfig(true), ProgramEnded);
    EXPECT_EQ(bench.desktop.diagnostics, QStringList{"Where: MOD:CONFIGURATION[LoadDefault], number 10000: no network"});
}

TEST(LoadDefault, WithoutDnsServersFallsBackToLoopback)
{
    Settings settings;
    FakeDiscovery discovery;
    discovery.params.hostName = QString(3, QChar(0)); // nothing once the padding goes
    LoadDefault(settings, discovery);
    EXPECT_EQ(settings.LocalHostName, QString("localhost"));
    EXPECT_EQ(settings.DnsServerList, QStringList{"0"});
    EXPECT_EQ(settings.DefaultSettings.DNSServer, QString("127.0.0.1"));
}

TEST(LoadDefault, FirstOfSeveralServersBecomesTheDefault)
{
    Settings settings;
    FakeDiscovery discovery;
    discovery.params = {QString("desk") + QChar(0), {"10.0.0.1", "fd00::53"}};
    LoadDefault(settings, discovery);
    EXPECT_EQ(settings.LocalHostName, QString("desk"));
    EXPECT_EQ(settings.DnsServerList, QStringList({"2", "10.0.0.1", "fd00::53"}));
    EXPECT_EQ(settings.DefaultSettings.DNSServer, QString("10.0.0.1"));
}

TEST(SetComputerStart, WritesOnlyWhenNeededAndRemovesOnlyThisCopysEntry)
{
    MemoryRegistry registry;
    registry.keys[kRunKey]["Postiq"] = "/other/postiq";
    SetComputerStart(registry, "/opt/postiq", false);
    EXPECT_EQ(registry.readValue(kRunKey, "Postiq"), QString("/other/postiq"));

    SetComputerStart(registry, "/opt/postiq", true);
    SetComputerStart(registry, "/opt/postiq", true);
    EXPECT_EQ(registry.writes, 1);
    EXPECT_EQ(registry.readValue(kRunKey, "Postiq"), AutostartCommand("/opt/postiq"));

    SetComputerStart(registry, "/opt/postiq", false);
    EXPECT_FALSE(registry.valueExists(kRunKey, "Postiq"));
}

TEST(AutostartCommand, RunsThisExecutableOnThisFolderQuotedWhereNeeded)
{
    const QString executable = ExecArgument(QCoreApplication::applicationFilePath());
    EXPECT_EQ(AutostartCommand("/opt/postiq"), executable + " --folder /opt/postiq");
    EXPECT_EQ(AutostartCommand("/home/me/My Mail"), executable + " --folder \"/home/me/My Mail\"");
    EXPECT_EQ(AutostartCommand("/home/me/100%"), executable + " --folder /home/me/100%%");
}

} // namespace
