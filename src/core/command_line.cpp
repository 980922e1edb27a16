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

// The queue commands: "--queue", and "--show", "--retry", "--delete" with their ID (also after "=").
QByteArray queueOption(const QString& argument)
{
    if (argument == QLatin1String("--queue"))
        return "queue";
    for (const char* verb : {"show", "retry", "delete"}) {
        const QString option = QLatin1String("--") + QLatin1String(verb);
        if (argument == option || argument.startsWith(option + '='))
            return verb;
    }
    return {};
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
        } else if (argument == QLatin1String("--sendmail")) {
            // Everything after it belongs to the sendmail interface.
            line.sendmail = true;
            line.sendmailArguments = arguments.mid(i + 1);
            line.headless = true;
            break;
        } else if (argument == QLatin1String("--show-queue")) {
            line.showQueue = true;
        } else if (argument == QLatin1String("--json")) {
            line.json = true;
        } else if (argument == QLatin1String("--check-route") || argument.startsWith(QLatin1String("--check-route="))) {
            if (!line.queueCommand.isEmpty() || !line.control.isEmpty() || !line.checkRoute.isEmpty()) {
                line.error = QStringLiteral("--check-route cannot be used with another command");
                return line;
            }
            const qsizetype equals = argument.indexOf('=');
            line.checkRoute = equals >= 0 ? argument.mid(equals + 1) : arguments.value(++i);
            if (line.checkRoute.isEmpty()) {
                line.error = QStringLiteral("--check-route needs a route name");
                return line;
            }
            line.headless = true;
        } else if (const QByteArray verb = queueOption(argument); !verb.isEmpty()) {
            if (!line.queueCommand.isEmpty() || !line.control.isEmpty() || !line.checkRoute.isEmpty()) {
                line.error = QStringLiteral("%1 cannot be used with another command").arg(argument);
                return line;
            }
            line.queueCommand = verb;
            line.headless = true;
            if (verb != "queue") {
                const qsizetype equals = argument.indexOf('=');
                line.queueArgument = (equals >= 0 ? argument.mid(equals + 1) : arguments.value(++i)).toUtf8();
                if (line.queueArgument.isEmpty()) {
                    line.error = QStringLiteral("--%1 needs a message ID").arg(QString::fromLatin1(verb));
                    return line;
                }
            }
        } else if (isControlOption(argument)) {
            if (!line.queueCommand.isEmpty() || !line.checkRoute.isEmpty()) {
                line.error = QStringLiteral("%1 cannot be used with another command").arg(argument);
                return line;
            }
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
    if (line.showQueue && (!line.control.isEmpty() || !line.queueCommand.isEmpty() || !line.checkRoute.isEmpty() || line.sendmail))
        line.error = QStringLiteral("--show-queue cannot be used with another command");
    return line;
}

QString usageText()
{
    return QStringLiteral(
        "Usage: postiq [--folder DIR] [--headless] [--verbose] [--show-queue]\n"
        "       postiq [--folder DIR] --start | --stop | --reload | --flush | --quit\n"
        "       postiq [--folder DIR] --queue [--json] | --show ID | --retry ID|all | --delete ID\n"
        "       postiq [--folder DIR] --sendmail [sendmail options] [recipient...]\n"
        "       postiq [--folder DIR] --check-route NAME\n"
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
        "  --show-queue  open the queue window: the running Postiq's, when one runs on the\n"
        "                folder, else this one's once it has started\n"
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
        "A command that does not apply (--start while the service runs, --flush with nothing\n"
        "deferred) says so and exits with 0.\n"
        "\n"
        "The queue of the folder (DIR, else $POSTIQ_FOLDER, else the Folder line of\n"
        "/etc/postiq/sendmail.conf (postiq-mta), else ~/.local/share/postiq), whether or not a\n"
        "Postiq runs on it:\n"
        "  --queue       list every message: ID, folder, size, arrival, attempts, sender,\n"
        "                recipients, last error (--json: the same as one JSON document)\n"
        "  --show ID     print the text of a message\n"
        "  --retry ID    send a deferred (or failed) message again; --retry all: every deferred one\n"
        "  --delete ID   remove a message (refused while it is being delivered)\n"
        "Exit status 0 when done or nothing was to do, 1 when refused, 2 for bad options.\n"
        "\n"
        "  --check-route NAME  try the route NAME of Routes.ini in the same folder: connect,\n"
        "                STARTTLS or TLS, certificate, login, QUIT; no message is sent and no\n"
        "                running Postiq is needed. One line says what worked and what did not;\n"
        "                exit status 0 when everything worked, 1 when something failed, 2 for\n"
        "                an unknown route or bad options.\n"
        "\n"
        "  --sendmail    queue the message on standard input, as sendmail does (also when this\n"
        "                program is called as 'sendmail'; as 'mailq' it is --queue). Options:\n"
        "                -t recipients from To, Cc and Bcc (Bcc removed); -i, -oi a lone dot is\n"
        "                text; -f ADDR sender; -F NAME full name; -v print the queue ID;\n"
        "                -oem, -oee, -odi, -odb, -oQ..., -B, -N, -R accepted and ignored; -- ends\n"
        "                the options. Exit status 0 queued, 64 bad usage, 65 bad message (no\n"
        "                recipient), 73 cannot create the queue file, 75 full disk (try later).\n"
        "\n"
        "SIGINT and SIGTERM stop the relay cleanly.\n");
}

} // namespace postiq
