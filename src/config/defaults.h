#pragma once

#include <QString>

namespace postiq {

class NetworkDiscovery;
class Registry;
class Settings;

// Built-in defaults of the settings that no discovery can supply.
inline constexpr char kDefaultLanguage[] = "fr";
inline constexpr char kDefaultSmtpServer[] = "smtp.fai.com";
inline constexpr char kFallbackDnsServer[] = "127.0.0.1";

// Discovers the host name and DNS servers, fills DefaultSettings and clears every flag of
// UserSettings (its values are kept). Leaves ActiveSettings alone.
void LoadDefault(Settings& settings, NetworkDiscovery& discovery);

// Copies the eleven values of DefaultSettings into ActiveSettings; flags are untouched.
void ResetActiveToDefaults(Settings& settings);

// Copies every value whose flag is set in UserSettings into ActiveSettings, then brings the
// session autostart entry in line with the active ComputerStart.
void ApplyUserOverrides(Settings& settings, Registry& registry, const QString& programFolder);

} // namespace postiq
