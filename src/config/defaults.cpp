#include "config/defaults.h"

#include "config/autostart.h"
#include "config/settings.h"
#include "platform/network_discovery.h"

namespace postiq {

namespace {

QString withoutNuls(QString text) { return text.remove(QChar(u'\0')); }

// One setting: its override flag and how its value is copied between two instances.
struct SettingRow {
    bool CConfiguration::*defined;
    void (*copyValue)(const CConfiguration& from, CConfiguration& to);
};

template <auto Value>
void copyValue(const CConfiguration& from, CConfiguration& to)
{
    to.*Value = from.*Value;
}

// In the order the settings are declared.
const SettingRow kSettingRows[] = {
    {&CConfiguration::LaunchStartDefined, copyValue<&CConfiguration::LaunchStart>},
    {&CConfiguration::DebugModeDefined, copyValue<&CConfiguration::DebugMode>},
    {&CConfiguration::ComputerStartDefined, copyValue<&CConfiguration::ComputerStart>},
    {&CConfiguration::DNSServerDefined, copyValue<&CConfiguration::DNSServer>},
    {&CConfiguration::LanguageDefined, copyValue<&CConfiguration::Language>},
    {&CConfiguration::KeepLocalDefined, copyValue<&CConfiguration::KeepLocal>},
    {&CConfiguration::ListenPortDefined, copyValue<&CConfiguration::ListenPort>},
    {&CConfiguration::SmtpServerDefined, copyValue<&CConfiguration::SmtpServer>},
    {&CConfiguration::MaxNbrAttemptDefined, copyValue<&CConfiguration::MaxNbrAttempt>},
    {&CConfiguration::AttemptDelayDefined, copyValue<&CConfiguration::AttemptDelay>},
    {&CConfiguration::RelayDefined, copyValue<&CConfiguration::Relay>},
};

} // namespace

void LoadDefault(Settings& settings, NetworkDiscovery& discovery)
{
    const NetworkParams network = discovery.query();

    settings.LocalHostName = withoutNuls(network.hostName);
    // Generated notices name this server; an empty name would make them malformed.
    if (settings.LocalHostName.isEmpty())
        settings.LocalHostName = QStringLiteral("localhost");

    settings.DnsServerList = QStringList{QString::number(network.dnsServers.size())};
    settings.DnsServerList += network.dnsServers;

    const QString dnsServer = settings.DnsServerList[0].toInt() > 0
        ? withoutNuls(settings.DnsServerList[1])
        : QString::fromLatin1(kFallbackDnsServer);

    CConfiguration& d = settings.DefaultSettings;
    CConfiguration& u = settings.UserSettings;
    d.LaunchStart = true;
    u.LaunchStartDefined = false;
    d.DebugMode = false;
    u.DebugModeDefined = false;
    d.ComputerStart = false;
    u.ComputerStartDefined = false;
    d.DNSServer = dnsServer;
    u.DNSServerDefined = false;
    d.Language = QString::fromLatin1(kDefaultLanguage);
    u.LanguageDefined = false;
    d.KeepLocal = false;
    u.KeepLocalDefined = false;
    d.ListenPort = 25;
    u.ListenPortDefined = false;
    d.SmtpServer = QString::fromLatin1(kDefaultSmtpServer);
    u.SmtpServerDefined = false;
    d.MaxNbrAttempt = 3;
    u.MaxNbrAttemptDefined = false;
    d.AttemptDelay = 60;
    u.AttemptDelayDefined = false;
    d.Relay = true;
    u.RelayDefined = false;
}

void ResetActiveToDefaults(Settings& settings)
{
    for (const SettingRow& row : kSettingRows)
        row.copyValue(settings.DefaultSettings, settings.ActiveSettings);
}

void ApplyUserOverrides(Settings& settings, Registry& registry, const QString& programFolder)
{
    for (const SettingRow& row : kSettingRows) {
        if (settings.UserSettings.*row.defined)
            row.copyValue(settings.UserSettings, settings.ActiveSettings);
    }
    SetComputerStart(registry, programFolder, settings.ActiveSettings.ComputerStart);
}

} // namespace postiq
