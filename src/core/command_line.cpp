#include "core/command_line.h"

namespace postiq {

namespace {
// The control options, each named after the command it sends.
bool isControlOption(const QString& argument)
{
    for (const char* command : {"start", "stop", "reload", "flush", "quit"}) {
        if (argument == QLatin1String("--") + QLatin1String(command))
            return true;
    }
    return false;
}
} // namespace

CommandLine parseCommandLine(const QStringList& arguments, bool displayAvailable)
{
    CommandLine line;
    line.headless = !displayAvailable;
    for (int i = 0; i < arguments.size(); ++i) {
        const QString& argument = arguments[i];
        if (argument == QLatin1String("--headless")) {
            line.headless = true;
        } else if (argument == QLatin1String("--verbose")) {
            line.verbose = true;
        } else if (argument == QLatin1String("--version")) {
            line.showVersion = true;
        } else if (argument == QLatin1String("--help") || argument == QLatin1String("-h")) {
            line.showHelp = true;
        } else if (argument == QLatin1String("--folder")) {
            if (i + 1 >= arguments.size() || arguments[i + 1].isEmpty()) {
                line.error = QStringLiteral("--folder needs a folder");
                return line;
            }
            line.folder = arguments[++i];
        } else if (argument.startsWith(QLatin1String("--folder="))) {
            line.folder = argument.mid(int(sizeof("--folder=") - 1));
            if (line.folder.isEmpty()) {
                line.error = QStringLiteral("--folder needs a folder");
                return line;
            }
        } else if (isControlOption(argument)) {
            if (!line.control.isEmpty()) {
                line.error = QStringLiteral("--%1 and %2 cannot be used together")
                                 .arg(QString::fromLatin1(line.control), argument);
                return line;
            }
            line.control = argument.mid(2).toLatin1();
            line.headless = true;
        } else {
            line.error = QStringLiteral("unknown option: ") + argument;
            return line;
        }
    }
    return line;
}

QString usageText()
{
    return QStringLiteral(
        "Usage: postiq [--folder DIR] [--headless] [--verbose]\n"
        "       postiq [--folder DIR] --start | --stop | --reload | --flush | --quit\n"
        "A mail relay for this computer: mail programs send to it over SMTP, it queues and delivers.\n"
        "\n"
        "  --folder DIR  program folder holding Postiq.ini, the logs, OutBox, Deferred, Error,\n"
        "                language and Hosts.dns (default: the folder of the executable;\n"
        "                created when missing)\n"
        "  --headless    no tray icon and no windows; messages go to stderr (implied when\n"
        "                neither DISPLAY nor WAYLAND_DISPLAY is set)\n"
        "  --verbose     print on stderr where the relay listens, every mail-log and error-log\n"
        "                line, and what to do about a refusal (the default headless when stderr\n"
        "                is a terminal or the systemd journal)\n"
        "  --version     print the version and exit\n"
        "  --help        print this help and exit\n"
        "\n"
        "Commands for the Postiq already running on the folder (exit status 0 when done,\n"
        "2 when none runs there, 1 when it refused or did not answer):\n"
        "  --start       start the SMTP service\n"
        "  --stop        stop the SMTP service\n"
        "  --reload      read Postiq.ini again\n"
        "  --flush       move every deferred message back to OutBox and send at once\n"
        "  --quit        stop the service and end that Postiq\n"
        "\n"
        "SIGINT and SIGTERM stop the relay cleanly.\n");
}

} // namespace postiq
