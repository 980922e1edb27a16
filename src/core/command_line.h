#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

namespace postiq {

struct CommandLine {
    QString folder;        // the program folder; empty means the executable's folder
    bool headless = false; // no tray and no windows
    bool verbose = false;  // the terminal report even where stderr is not a terminal
    bool showVersion = false;
    bool showHelp = false;
    // --show-queue: the queue window, of the relay already running on the folder or of this one.
    bool showQueue = false;
    // "start", "stop", "reload", "flush" or "quit": the command for the relay already running on
    // the folder; empty to run the relay itself.
    QByteArray control;
    // "queue", "show", "retry" or "delete": a queue command (see core/queue_commands.h), with
    // its message ID in queueArgument and --json in json.
    QByteArray queueCommand;
    QByteArray queueArgument;
    bool json = false;
    // --check-route NAME: the route of Routes.ini to try (connect, TLS, login, quit), here and now.
    QString checkRoute;
    // --sendmail: the sendmail interface, with the arguments that follow it.
    bool sendmail = false;
    QStringList sendmailArguments;
    QString error;         // set when the arguments cannot be understood
};

// Parses the arguments after the program name. A display-less session is always headless, and so
// is a control command, which never shows anything.
CommandLine parseCommandLine(const QStringList& arguments, bool displayAvailable);

QString usageText();

} // namespace postiq
