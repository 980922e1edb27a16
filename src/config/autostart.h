#pragma once

#include <QString>

namespace postiq {

class Registry;

// The command the session autostart entry holds for this copy of the program on this folder: the
// running executable, "--folder" and the folder, each quoted as desktop entries require.
QString AutostartCommand(const QString& programFolder);

// Brings the session autostart entry in line with the setting. Switching on writes the entry only
// when it differs; switching off removes it only when it names this very copy of the program, so
// that an entry for another copy is left alone.
void SetComputerStart(Registry& registry, const QString& programFolder, bool enabled);

} // namespace postiq
