#pragma once

#include <QString>
#include <QStringList>

namespace postiq {

struct CommandLine {
    QString folder;        // the program folder; empty means the executable's folder
    bool headless = false; // no tray and no windows
    bool showVersion = false;
    bool showHelp = false;
    QString error;         // set when the arguments cannot be understood
};

// Parses the arguments after the program name. A display-less session is always headless.
CommandLine parseCommandLine(const QStringList& arguments, bool displayAvailable);

QString usageText();

} // namespace postiq
