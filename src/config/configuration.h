#pragma once

#include <QString>
#include <cstdint>

namespace postiq {

// One complete set of the eleven settings, each with its override flag. Plain stores: setting a
// value checks nothing. A new instance is all zero, False or empty.
struct CConfiguration {
    bool LaunchStart = false;
    bool LaunchStartDefined = false;
    bool DebugMode = false; // key "Debug" in the configuration file
    bool DebugModeDefined = false;
    bool ComputerStart = false;
    bool ComputerStartDefined = false;
    QString DNSServer;
    bool DNSServerDefined = false;
    QString Language;
    bool LanguageDefined = false;
    bool KeepLocal = false;
    bool KeepLocalDefined = false;
    int16_t ListenPort = 0;
    bool ListenPortDefined = false;
    QString SmtpServer;
    bool SmtpServerDefined = false;
    uint8_t MaxNbrAttempt = 0;
    bool MaxNbrAttemptDefined = false;
    int16_t AttemptDelay = 0;
    bool AttemptDelayDefined = false;
    bool Relay = false;
    bool RelayDefined = false;

    bool operator==(const CConfiguration&) const = default;
};

// "On" or "Off". Reading goes the other way: only the exact text "Off" is False.
inline QString OnOffText(bool value) { return value ? QStringLiteral("On") : QStringLiteral("Off"); }
inline bool OnOffValue(const QString& text) { return text != QLatin1String("Off"); }

} // namespace postiq
