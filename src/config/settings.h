#pragma once

#include <QString>
#include <QStringList>

#include "config/configuration.h"
#include "log/logs.h"

namespace postiq {

class Keyring;

// The program-wide settings: the four instances with their roles, whether the configuration file
// has been read, and what was discovered of the computer's network.
class Settings : public DebugSwitch {
public:
    CConfiguration DefaultSettings; // the built-in defaults
    CConfiguration UserSettings;    // what the configuration file says, with its flags
    CConfiguration ActiveSettings;  // the values in force, read by the whole program
    CConfiguration EditSettings;    // the configuration dialog's working copy

    bool ConfigLoaded = false; // True once the configuration file has been read; never goes back

    QString LocalHostName;
    // Element 0 is the number of servers as decimal text, elements 1..n their addresses.
    QStringList DnsServerList{QStringLiteral("0")};

    // Where the outgoing server's password is looked for first; null: its file only.
    Keyring* keyring = nullptr;

    bool configLoaded() const override { return ConfigLoaded; }
    bool debugMode() const override { return ActiveSettings.DebugMode; }
};

} // namespace postiq
