#pragma once

#include <QString>
#include <functional>

namespace postiq {

struct CConfiguration;
class Logs;
class NetworkDiscovery;
class Registry;
class Settings;

// The configuration file's name in the program folder.
inline constexpr char kConfigFileName[] = "Postiq.ini";

// The complete loading of the configuration: defaults, the file's overrides, the autostart entry,
// then the language file and a mail-log line.
class ConfigLoader {
public:
    ConfigLoader(Settings& settings, Logs& logs, NetworkDiscovery& discovery, Registry& registry,
                 std::function<void(const QString& language)> loadLanguage);

    // With applyUser False the active settings stay at the defaults even though UserSettings
    // holds the file's values: what the dialog has just written takes effect at the next loading.
    void ChargerConfig(bool applyUser);

private:
    void readFile();

    Settings& settings_;
    Logs& logs_;
    NetworkDiscovery& discovery_;
    Registry& registry_;
    std::function<void(const QString&)> loadLanguage_;
};

// Reads the configuration file at `path` into `into`: each key found sets its value and its flag,
// the others are left as they are. Throws Fault when the file is missing or cannot be read.
void ReadConfigFile(const QString& path, CConfiguration& into);

// Replaces Postiq.ini in the program folder with the values of `config` whose flags are set, then
// writes a mail-log line. Throws Fault(ErrAccessDenied) when the file cannot be written; the
// caller's handler reports it.
void WriteConf(const CConfiguration& config, Logs& logs);

} // namespace postiq
