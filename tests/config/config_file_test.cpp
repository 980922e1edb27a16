#include <gtest/gtest.h>

#include <QFile>

#include "config/config_file.h"
#include "config_bench.h"

using namespace postiq;
using namespace postiq::test;

namespace {

const QByteArray kHeader =
    "# Fichier de configuration de Postiq\r\n"
    "# Placer un di\xC3\xA8se '#' devant une ligne pour qu'elle devienne un commentaire\r\n"
    "\r\n"
    "# Version de Postiq pour ce fichier de configuration (derni\xC3\xA8re \xC3\xA9" "criture logicielle)\r\n"
    "# Postiq Version 3.0\r\n"
    "\r\n";

CConfiguration everyFlagSet()
{
    CConfiguration c;
    c.LaunchStart = false;
    c.DebugMode = true;
    c.ComputerStart = true;
    c.DNSServer = "10.0.0.53";
    c.Language = "en";
    c.KeepLocal = true;
    c.ListenPort = -2525;
    c.SmtpServer = "smtp.example.net";
    c.MaxNbrAttempt = 255;
    c.AttemptDelay = 15;
    c.Relay = false;
    for (bool* flag : {&c.LaunchStartDefined, &c.DebugModeDefined, &c.ComputerStartDefined,
                       &c.DNSServerDefined, &c.LanguageDefined, &c.KeepLocalDefined,
                       &c.ListenPortDefined, &c.SmtpServerDefined, &c.MaxNbrAttemptDefined,
                       &c.AttemptDelayDefined, &c.RelayDefined})
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

TEST(WriteConf, WithEveryFlagWritesEveryGroupInOrder)
{
    ConfigBench bench;
    bench.writeIni("older contents that must go entirely, even when they are longer than the new file"
                   + QByteArray(4000, 'x'));
    WriteConf(everyFlagSet(), bench.logs);
    EXPECT_EQ(readFile(bench.path("Postiq.ini")),
              kHeader
                  + "Debug\tOn\r\n\r\n"
                    "ListenPort\t-2525\r\n\r\n"
                    "Language\ten\r\n\r\n"
                    "# Nombre maximal de tentatives d'envoi en cas d'\xC3\xA9" "chec\r\n"
                    "MaxNbrAttempt\t255\r\n\r\n"
                    "# Nombre de minutes avant la prochaine tentative d'envoi apr\xC3\xA8s un \xC3\xA9" "chec\r\n"
                    "AttemptDelay\t15\r\n\r\n"
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
                    "</Global>\r\n"
                    "\r\n"
                    "<Registry>\r\n"
                    "\tComputerStart\tOn\r\n"
                    "</Registry>\r\n");
}

TEST(WriteConf, ReadOnlyFileIsAFaultForTheCaller)
{
    ConfigBench bench;
    bench.writeIni("keep me");
    QFile::setPermissions(bench.path("Postiq.ini"), QFile::ReadOwner);
    try {
        WriteConf(CConfiguration{}, bench.logs);
        FAIL() << "a read-only file must not be replaced";
    } catch (const Fault& fault) {
        EXPECT_EQ(fault.number(), ErrAccessDenied);
    }
    QFile::setPermissions(bench.path("Postiq.ini"), QFile::ReadOwner | QFile::WriteOwner);
    EXPECT_EQ(readFile(bench.path("Postiq.ini")), QByteArray("keep me"));
}

TEST(ChargerConfig, WrittenFileReadsBackToTheSameValues)
{
    ConfigBench bench;
    WriteConf(everyFlagSet(), bench.logs);
    bench.loader.ChargerConfig(true);
    // What was read writes back to the very same file.
    const QByteArray written = readFile(bench.path("Postiq.ini"));
    WriteConf(bench.user(), bench.logs);
    EXPECT_EQ(readFile(bench.path("Postiq.ini")), written);
    EXPECT_EQ(bench.active().SmtpServer, QString("smtp.example.net"));
    EXPECT_EQ(bench.active().ListenPort, -2525);
}

TEST(ChargerConfig, FileOfCommentsGivesTheDefaultsAndDoesTheWholeLoading)
{
    ConfigBench bench;
    bench.writeIni("# only a comment\r\n\r\n   # indented, comment\r\n<Global>\r\n</Global>\r\n");
    bench.loader.ChargerConfig(true);

    const CConfiguration& a = bench.active();
    EXPECT_TRUE(a.LaunchStart);
    EXPECT_FALSE(a.DebugMode);
    EXPECT_FALSE(a.ComputerStart);
    EXPECT_EQ(a.DNSServer, QString("127.0.0.1"));
    EXPECT_EQ(a.Language, QString("fr"));
    EXPECT_FALSE(a.KeepLocal);
    EXPECT_EQ(a.ListenPort, 25);
    EXPECT_EQ(a.SmtpServer, QString("smtp.fai.com"));
    EXPECT_EQ(a.MaxNbrAttempt, 3);
    EXPECT_EQ(a.AttemptDelay, 60);
    EXPECT_TRUE(a.Relay);
    EXPECT_FALSE(bench.user().SmtpServerDefined);

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
                   "Language de,KeepLocal Off\r\n"          // a comma starts a new item
                   "\"ListenPort 2525\"\r\n"                // quotes are removed
                   "listenport 1\r\n"                       // keys are case-sensitive
                   "MaxNbrAttempt 7\r\nMaxNbrAttempt 9\n"   // the last occurrence wins
                   "AttemptDelay   +30  \r\n"
                   "Debug # not a comment here\r\n"
                   "#Debug Off\r\n"
                   "<Registry>\r\n\tComputerStart\tOff\r\n</Registry>");
    bench.loader.ChargerConfig(true);
    const CConfiguration& u = bench.user();
    EXPECT_TRUE(u.Relay);
    EXPECT_FALSE(u.LaunchStart);
    EXPECT_EQ(u.SmtpServer, QString("mail..net"));
    EXPECT_TRUE(u.DNSServerDefined);
    EXPECT_EQ(u.DNSServer, QString(""));
    EXPECT_EQ(u.Language, QString("de"));
    EXPECT_FALSE(u.KeepLocal);
    EXPECT_TRUE(u.KeepLocalDefined);
    EXPECT_EQ(u.ListenPort, 2525);
    EXPECT_EQ(u.MaxNbrAttempt, 9);
    EXPECT_EQ(u.AttemptDelay, 30);
    EXPECT_TRUE(u.DebugModeDefined);
    EXPECT_TRUE(u.DebugMode);
    EXPECT_TRUE(u.ComputerStartDefined);
    EXPECT_FALSE(u.ComputerStart);
    EXPECT_EQ(bench.languagesLoaded, QStringList{"de"});
}

TEST(ChargerConfig, WithoutApplyUserTheActiveSettingsStayAtTheDefaults)
{
    ConfigBench bench;
    bench.writeIni("ListenPort 2525\r\nComputerStart On\r\nLanguage en\r\n");
    bench.loader.ChargerConfig(false);
    EXPECT_EQ(bench.user().ListenPort, 2525);
    EXPECT_EQ(bench.active().ListenPort, 25);
    EXPECT_EQ(bench.registry.writes, 0); // the autostart entry waits for the next full loading
    EXPECT_EQ(bench.languagesLoaded, QStringList{"fr"});

    bench.loader.ChargerConfig(true);
    EXPECT_EQ(bench.active().ListenPort, 2525);
    EXPECT_EQ(bench.registry.readValue(kRunKey, "Postiq"), bench.dir.path() + "/postiq");
}

TEST(ChargerConfig, ReloadForgetsKeysThatLeftTheFile)
{
    ConfigBench bench;
    bench.writeIni("SmtpServer relay.example.net\r\n");
    bench.loader.ChargerConfig(true);
    EXPECT_TRUE(bench.user().SmtpServerDefined);
    bench.writeIni("\r\n");
    bench.loader.ChargerConfig(true);
    EXPECT_FALSE(bench.user().SmtpServerDefined);
    EXPECT_EQ(bench.active().SmtpServer, QString("smtp.fai.com"));
}

struct BadNumberCase {
    const char* name;
    QByteArray line;
    int number;
};

void PrintTo(const BadNumberCase& c, std::ostream* os) { *os << c.name; }

class ChargerConfigBadNumber : public ::testing::TestWithParam<BadNumberCase> {};

TEST_P(ChargerConfigBadNumber, IsTheFatalReport)
{
    ConfigBench bench;
    bench.writeIni(GetParam().line + "\r\n");
    try {
        bench.loader.ChargerConfig(true);
        FAIL() << "the loading must end the program";
    } catch (const ProgramEnded& end) {
        EXPECT_EQ(end.status, 1);
    }
    ASSERT_EQ(bench.desktop.diagnostics.size(), 1);
    EXPECT_TRUE(bench.desktop.diagnostics[0].startsWith(
        QString("Where: MOD:CONFIGURATION[ChargerConfig], number %1: ").arg(GetParam().number)))
        << bench.desktop.diagnostics[0].toStdString();
}

INSTANTIATE_TEST_SUITE_P(
    Conversions, ChargerConfigBadNumber,
    ::testing::Values(BadNumberCase{"AttemptsAbove255", "MaxNbrAttempt 256", ErrOverflow},
                      BadNumberCase{"NegativeAttempts", "MaxNbrAttempt -1", ErrOverflow},
                      BadNumberCase{"PortAbove32767", "ListenPort 40000", ErrOverflow},
                      BadNumberCase{"DelayBelowMinus32768", "AttemptDelay -32769", ErrOverflow},
                      BadNumberCase{"ManyDigits", "AttemptDelay 99999999999999999999999", ErrOverflow},
                      BadNumberCase{"NotANumber", "ListenPort abc", ErrTypeMismatch},
                      BadNumberCase{"Decimal", "ListenPort 25.5", ErrTypeMismatch},
                      BadNumberCase{"OnlyASign", "AttemptDelay -", ErrTypeMismatch},
                      BadNumberCase{"Empty", "MaxNbrAttempt", ErrTypeMismatch}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ChargerConfig, NumbersAtTheEdgesOfTheirRanges)
{
    ConfigBench bench;
    bench.writeIni("ListenPort -32768\r\nAttemptDelay 32767\r\nMaxNbrAttempt 0\r\n");
    bench.loader.ChargerConfig(true);
    EXPECT_EQ(bench.active().ListenPort, -32768);
    EXPECT_EQ(bench.active().AttemptDelay, 32767);
    EXPECT_EQ(bench.active().MaxNbrAttempt, 0);
}

TEST(ChargerConfig, MissingFileIsTheFatalReport)
{
    ConfigBench bench;
    EXPECT_THROW(bench.loader.ChargerConfig(true), ProgramEnded);
    ASSERT_EQ(bench.desktop.diagnostics.size(), 1);
    EXPECT_TRUE(bench.desktop.diagnostics[0].startsWith("Where: MOD:CONFIGURATION[ChargerConfig], number 53: "));
    EXPECT_FALSE(bench.settings.ConfigLoaded);
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
    ASSERT_EQ(bench.desktop.diagnostics.size(), 1);
    EXPECT_EQ(bench.desktop.diagnostics[0],
              QString("Where: MOD:CONFIGURATION[LoadDefault], number 10000: no network"));
}

} // namespace
