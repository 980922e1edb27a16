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

    CConfiguration& d = settings.DefaultSettings;
    d.LaunchStart = true;
    d.DebugMode = false;
    d.ComputerStart = false;
    d.DNSServer = network.dnsServers.isEmpty() ? QString::fromLatin1(kFallbackDnsServer)
                                               : withoutNuls(network.dnsServers.first());
    d.Language = QString::fromLatin1(kDefaultLanguage);
    d.KeepLocal = false;
    d.ListenPort = 25;
    d.SmtpServer = QString::fromLatin1(kDefaultSmtpServer);
    d.MaxNbrAttempt = 3;
    d.AttemptDelay = 60;
    d.Relay = true;

    for (const SettingRow& row : kSettingRows)
        settings.UserSettings.*row.defined = false;
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
