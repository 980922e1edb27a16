#include "config/config_file.h"

#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <cstdint>
#include <type_traits>

#include "config/configuration.h"
#include "config/defaults.h"
#include "config/field_reader.h"
#include "config/number_text.h"
#include "config/settings.h"
#include "log/logs.h"
#include "log/version.h"
#include "log/dates.h"

namespace postiq {

namespace {

QString configPath(const Logs& logs) { return logs.folder() + '/' + QLatin1String(kConfigFileName); }

template <auto Value>
void storeOnOff(CConfiguration& to, const QString& value, const QString&)
{
    to.*Value = OnOffValue(value);
}

template <auto Value>
void storeText(CConfiguration& to, const QString& value, const QString&)
{
    to.*Value = value;
}

template <auto Value, int64_t Min, int64_t Max>
void storeNumber(CConfiguration& to, const QString& value, const QString& key)
{
    to.*Value = static_cast<std::remove_reference_t<decltype(to.*Value)>>(
        NumberFromText(value, Min, Max, key));
}

// A key of the configuration file, the flag it sets and how its value is stored.
struct KeyRow {
    const char* key;
    bool CConfiguration::*defined;
    void (*store)(CConfiguration& to, const QString& value, const QString& key);
};

// Compared exactly and case-sensitively, in this order.
const KeyRow kKeyRows[] = {
    {"KeepLocal", &CConfiguration::KeepLocalDefined, storeOnOff<&CConfiguration::KeepLocal>},
    {"ListenPort", &CConfiguration::ListenPortDefined,
     storeNumber<&CConfiguration::ListenPort, INT16_MIN, INT16_MAX>},
    {"DNSServer", &CConfiguration::DNSServerDefined, storeText<&CConfiguration::DNSServer>},
    {"Debug", &CConfiguration::DebugModeDefined, storeOnOff<&CConfiguration::DebugMode>},
    {"Language", &CConfiguration::LanguageDefined, storeText<&CConfiguration::Language>},
    {"LaunchStart", &CConfiguration::LaunchStartDefined, storeOnOff<&CConfiguration::LaunchStart>},
    {"ComputerStart", &CConfiguration::ComputerStartDefined,
     storeOnOff<&CConfiguration::ComputerStart>},
    {"SmtpServer", &CConfiguration::SmtpServerDefined, storeText<&CConfiguration::SmtpServer>},
    {"MaxNbrAttempt", &CConfiguration::MaxNbrAttemptDefined,
     storeNumber<&CConfiguration::MaxNbrAttempt, 0, UINT8_MAX>},
    {"AttemptDelay", &CConfiguration::AttemptDelayDefined,
     storeNumber<&CConfiguration::AttemptDelay, INT16_MIN, INT16_MAX>},
    {"Relay", &CConfiguration::RelayDefined, storeOnOff<&CConfiguration::Relay>},
};

void readItem(const QString& rawItem, CConfiguration& into)
{
    const QString item = TrimSpaces(QString(rawItem).replace(u'\t', u' '));
    if (item.isEmpty() || item.startsWith(u'#'))
        return;

    const QString key = item.section(u' ', 0, 0);
    // Every occurrence of the key goes, not only the leading one: "SmtpServer mail.SmtpServer.net"
    // reads as "mail..net". Files in the wild rely on this reading, so it stays.
    const QString value = TrimSpaces(QString(item).remove(key));

    for (const KeyRow& row : kKeyRows) {
        if (key == QLatin1String(row.key)) {
            row.store(into, value, key);
            into.*row.defined = true;
            return;
        }
    }
}

} // namespace

ConfigLoader::ConfigLoader(Settings& settings, Logs& logs, NetworkDiscovery& discovery,
                           Registry& registry,
                           std::function<void(const QString& language)> loadLanguage)
    : settings_(settings),
      logs_(logs),
      discovery_(discovery),
      registry_(registry),
      loadLanguage_(std::move(loadLanguage))
{
}

void ConfigLoader::ChargerConfig(bool applyUser)
{
    logs_.guarded("MOD:CONFIGURATION[ChargerConfig]", [&] {
        logs_.guarded("MOD:CONFIGURATION[LoadDefault]", [&] { LoadDefault(settings_, discovery_); });
        ResetActiveToDefaults(settings_);
        readFile();
        if (applyUser)
            ApplyUserOverrides(settings_, registry_, logs_.folder());
        settings_.ConfigLoaded = true;
        if (loadLanguage_)
            loadLanguage_(settings_.ActiveSettings.Language);
        logs_.MailLog(GMTDate(logs_.clock()) + " Postiq: Chargement de la configuration (Postiq.ini)");
    });
}

void ConfigLoader::readFile() { ReadConfigFile(configPath(logs_), settings_.UserSettings); }

void ReadConfigFile(const QString& path, CConfiguration& into)
{
    QFile file(path);
    if (!file.exists())
        throw Fault(ErrFileNotFound, QStringLiteral("File not found: %1").arg(file.fileName()));
    if (!file.open(QIODevice::ReadOnly))
        throw Fault(ErrFileAccess,
                    QStringLiteral("Cannot read %1: %2").arg(file.fileName(), file.errorString()));
    const QByteArray bytes = file.readAll();
    file.close();

    FieldReader reader(bytes);
    while (!reader.atEnd())
        readItem(reader.next(), into);
}

void WriteConf(const CConfiguration& c, Logs& logs)
{
    QStringList lines{
        QStringLiteral("# Fichier de configuration de Postiq"),
        QStringLiteral("# Placer un dièse '#' devant une ligne pour qu'elle devienne un commentaire"),
        QString(),
        QStringLiteral("# Version de Postiq pour ce fichier de configuration (dernière écriture logicielle)"),
        QStringLiteral("# Postiq Version ") + AppVersion(),
        QString(),
    };
    // A group is written only for a setting whose flag is set.
    auto group = [&lines](bool defined, const QStringList& groupLines) {
        if (defined)
            lines += groupLines;
    };
    group(c.DebugModeDefined, {"Debug\t" + OnOffText(c.DebugMode), ""});
    group(c.ListenPortDefined, {"ListenPort\t" + QString::number(c.ListenPort), ""});
    group(c.LanguageDefined, {"Language\t" + c.Language, ""});
    group(c.MaxNbrAttemptDefined, {QStringLiteral("# Nombre maximal de tentatives d'envoi en cas d'échec"),
                                   "MaxNbrAttempt\t" + QString::number(c.MaxNbrAttempt), ""});
    group(c.AttemptDelayDefined,
          {QStringLiteral("# Nombre de minutes avant la prochaine tentative d'envoi après un échec"),
           "AttemptDelay\t" + QString::number(c.AttemptDelay), ""});
    lines += QStringLiteral("<Global>");
    group(c.LaunchStartDefined, {QStringLiteral("\t# Démarrer Postiq à son lancement"),
                                 "\tLaunchStart\t" + OnOffText(c.LaunchStart), ""});
    group(c.KeepLocalDefined, {QStringLiteral("\t# Forcer Postiq à accepter les mails mais les laisser"),
                               QStringLiteral("\t# dans le répertoire local d'envoi 'OutBox'"),
                               "\tKeepLocal\t" + OnOffText(c.KeepLocal), ""});
    group(c.DNSServerDefined, {QStringLiteral("\t# Serveur DNS (généralement celui de votre FAI)"),
                               QStringLiteral("\t#DNSServer\t127.0.0.1"),
                               "\tDNSServer\t" + c.DNSServer, ""});
    group(c.SmtpServerDefined, {QStringLiteral("\t# Serveur SMTP (pour tous message sortant)"),
                                "\tSmtpServer\t" + c.SmtpServer, ""});
    group(c.RelayDefined, {QStringLiteral("\t# Etre relai pour le réseau 192.168.x.x"),
                           "\tRelay\t" + OnOffText(c.Relay), ""});
    lines << QStringLiteral("</Global>") << QString() << QStringLiteral("<Registry>");
    group(c.ComputerStartDefined, {"\tComputerStart\t" + OnOffText(c.ComputerStart)});
    lines += QStringLiteral("</Registry>");

    const QByteArray bytes = (lines.join(QStringLiteral("\r\n")) + QStringLiteral("\r\n")).toUtf8();
    const QString path = configPath(logs);
    // Replacing the file by renaming would slip past a file the user made read-only; the owner's
    // write bit is checked too, since the super-user may write anything.
    const QFileInfo existing(path);
    if (existing.exists()
        && (!existing.isWritable() || !existing.permissions().testFlag(QFileDevice::WriteOwner)))
        throw Fault(ErrAccessDenied, QStringLiteral("Permission denied: %1 is read-only").arg(path));
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit())
        throw Fault(ErrAccessDenied,
                    QStringLiteral("Cannot write %1: %2").arg(path, file.errorString()));

    logs.MailLog(GMTDate(logs.clock()) + " Postiq: Writing Postiq.ini");
}

} // namespace postiq
