#include "core/terminal_report.h"

#include <QRegularExpression>
#include <QTcpServer>

#include "core/application.h"
#include "platform/standard_error.h"

namespace postiq {

namespace {
// The journal's priority of a line; a terminal gets the line alone.
constexpr char kErrorPriority[] = "<3>";

void report(const QByteArray& line, bool error, bool journal)
{
    standard_error::writeLine(journal && error ? kErrorPriority + line : line);
}

// A start-up refusal, as its box says it, and the way out; %1 is the program folder and %2 what
// the pattern captured.
struct RefusalRow {
    const char* refusal;
    const char* advice;
};

const RefusalRow kRefusals[] = {
    {"^Postiq est déjà lancé !",
     "another Postiq already runs on %1: drive it with postiq --folder %1 --start, --stop, --reload or "
     "--quit, or give this one another --folder"},
    {"^Fichier de log '([^']+)' en lecture seule",
     "%1/%2 is read-only: make it writable (chmod u+w %1/%2) and start again"},
    {"^Fichier de configuration en lecture seule",
     "%1/Postiq.ini is read-only: make it writable (chmod u+w %1/Postiq.ini) and start again"},
};

const char kThenRestart[] = ", then run postiq --folder %1 --reload and postiq --folder %1 --start";
const char kPortTaken[] =
    "port %2 is in use by another program: stop that program, or set ListenPort to a free port in "
    "%1/Postiq.ini";
const char kPortPrivileged[] =
    "port %2 needs a privilege this user lacks: grant the program the capability "
    "CAP_NET_BIND_SERVICE (the postiq system service has it), or set ListenPort to 1024 or above "
    "(2525, say) in %1/Postiq.ini";

// The advice with the detail for %2 and the folder for %1, either of which the text may lack; the
// folder goes in last, so that a folder named with a "%2" stays as it is.
QByteArray filled(QString text, const QString& folder, const QString& detail)
{
    return "postiq: " + text.replace(QLatin1String("%2"), detail).replace(QLatin1String("%1"), folder).toUtf8();
}
} // namespace

QByteArray terminal_text::listening(quint16 port, const QString& folder)
{
    return "postiq: listening on 127.0.0.1:" + QByteArray::number(port) + ", folder " + folder.toUtf8();
}

QByteArray terminal_text::refusalAdvice(const QString& refusal, const QString& folder)
{
    for (const RefusalRow& row : kRefusals) {
        const QRegularExpressionMatch match = QRegularExpression(QString::fromUtf8(row.refusal)).match(refusal);
        if (match.hasMatch())
            return filled(QString::fromUtf8(row.advice), folder, match.captured(1));
    }
    return {};
}

QByteArray terminal_text::logLineAdvice(const QByteArray& line, const QString& folder,
                                        const std::function<bool(quint16 port)>& needsPrivilege)
{
    static const QRegularExpression portUnavailable(
        QStringLiteral(" Port (\\d+) utilisé par une autre application$"));
    const QRegularExpressionMatch match = portUnavailable.match(QString::fromUtf8(line));
    if (!match.hasMatch())
        return {};
    // The service says "used by another program" for both; without the privilege the system
    // refuses the port before it looks whether it is taken, so the privilege decides.
    const QString port = match.captured(1);
    const char* problem = needsPrivilege(quint16(port.toUInt())) ? kPortPrivileged : kPortTaken;
    return filled(QLatin1String(problem) + QLatin1String(kThenRestart), folder, port);
}

AdvisedDesktop::AdvisedDesktop(Desktop& shown, QString folder, bool journal)
    : shown_(shown), folder_(std::move(folder)), journal_(journal)
{
}

void AdvisedDesktop::messageBox(const QString& title, const QString& text, Icon icon)
{
    shown_.messageBox(title, text, icon);
    const QByteArray advice = terminal_text::refusalAdvice(text, folder_);
    if (!advice.isEmpty())
        report(advice, true, journal_);
}

void AdvisedDesktop::endProgram(int status)
{
    shown_.endProgram(status);
    Q_UNREACHABLE(); // the compiler does not see through the virtual call
}

bool TerminalReport::wanted(bool verbose, bool headless)
{
    return verbose || (headless && (standard_error::isTerminal() || standard_error::isJournal()));
}

TerminalReport::TerminalReport(bool on, const QString& folder, Desktop& shown)
    : on_(on), journal_(on && standard_error::isJournal()), folder_(folder), shown_(shown),
      advised_(shown, folder, journal_)
{
}

void TerminalReport::follow(Application& application)
{
    if (!on_)
        return;
    // Log lines may come from the lookup threads too: each is one write of its own.
    application.logs().setLineEcho([this](const QString& file, const QByteArray& line) {
        report(line, file == QLatin1String("error.txt"), journal_);
        const QByteArray advice = terminal_text::logLineAdvice(line, folder_, portNeedsMissingPrivilege);
        if (!advice.isEmpty())
            report(advice, true, journal_);
    });
    QObject::connect(&application, &Application::serviceStateChanged, &application,
                     [this, &application](bool started) {
                         if (started)
                             report(terminal_text::listening(application.tables().SmtpListener().serverPort(),
                                                             folder_),
                                    false, journal_);
                     });
}

} // namespace postiq
