#include "log/logs.h"

#include <QFile>

#include "log/version.h"
#include "platform/desktop.h"

namespace postiq {

namespace {
const QByteArray kCrLf = "\r\n";

struct KindStyle {
    const char* colour;
    const char* glyph;
};

KindStyle styleOf(int kind)
{
    switch (kind) {
    case DbgInbound: return {" COLOR='#0000FF'", "<FONT face='Wingdings' size='3'>ï</FONT> "};
    case DbgArrow: return {"", "<FONT face='Wingdings' size='3'>ð</FONT> "};
    case DbgMailLog: return {"", "<FONT face='Wingdings' size='3'>3</FONT> "};
    case DbgCache: return {" COLOR='#FF8000'", ""};
    default: return {"", ""};
    }
}
} // namespace

Logs::Logs(QString folder, const DebugSwitch& debug, Desktop& desktop, const Clock& clock)
    : folder_(std::move(folder)), debug_(debug), desktop_(desktop), clock_(clock)
{
}

void Logs::append(const QString& fileName, const QByteArray& bytes)
{
    QFile file(folder_ + '/' + fileName);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Append)
        || file.write(bytes) != bytes.size() || !file.flush()) {
        throw Fault(ErrAccessDenied,
                    QStringLiteral("Cannot write '%1': %2").arg(fileName, file.errorString()));
    }
}

void Logs::MailLog(const QByteArray& line)
{
    DbgAdd("[MAILLOG]: " + line + "<BR>", DbgMailLog);
    append(QStringLiteral("maillog.txt"), line + kCrLf);
    if (lineEcho_)
        lineEcho_(QStringLiteral("maillog.txt"), line);
}

void Logs::ErrorLog(const QByteArray& line)
{
    append(QStringLiteral("error.txt"), line + kCrLf);
    if (lineEcho_)
        lineEcho_(QStringLiteral("error.txt"), line);
}

void Logs::UpdateLog(const QByteArray& line) { append(QStringLiteral("update.txt"), line + kCrLf); }

void Logs::DbgAdd(QByteArray& message, int kind)
{
    const KindStyle style = styleOf(kind);
    const QByteArray open = QByteArray("<FONT face='Verdana' size='2'") + style.colour + ">" + style.glyph;
    try {
        if (debug_.configLoaded()) {
            if (!debug_.debugMode())
                return;
            message += kCrLf;
            append(QStringLiteral("Debug.html"), open + message + "</FONT>" + kCrLf);
        } else {
            message += kCrLf;
            append(QStringLiteral("Debug.html"),
                   "<HR><FONT face='Verdana' size='2'><I>DEBUG - SAFE MODE - CONFIG NOT LOADING</I></FONT>"
                       + kCrLf + open + message + "</FONT><HR>" + kCrLf);
        }
    } catch (const Fault& fault) {
        // The program-error report writes to this log itself, so a failure here has its own box.
        const QString text = QStringLiteral("Erreur fatale dans la procédure DbgAdd !\r\n\r\n"
                                            "Source: Postiq\r\nNuméro: %1\r\nDescription: %2\r\n\r\n"
                                            "L'application ne peut continuer ...")
                                 .arg(fault.number())
                                 .arg(fault.description());
        silenceBeforeFatalBox();
        desktop_.messageBox(QString(), text, Desktop::Icon::Critical);
        desktop_.endProgram(ExitProgramError);
    }
}

void Logs::silenceBeforeFatalBox()
{
    if (!beforeFatalReport_)
        return;
    // Once only: a fault while silencing must still reach the user's box.
    const std::function<void()> hook = std::move(beforeFatalReport_);
    beforeFatalReport_ = nullptr;
    try {
        hook();
    } catch (...) {
    }
}

void Logs::ReportProgramError(const QString& site, int number, const QString& description)
{
    const QString report = "<P><FONT COLOR='#FF0000'><B>ERREUR PROGRAMME <BR>Where: " + site
        + "<BR>Numéro: " + QString::number(number) + "<BR>Description: " + description
        + "</B></FONT>";
    DbgAdd(report.toUtf8(), DbgPlain);
    const QString text = "Une erreur est survenue dans Postiq Version " + AppVersion()
        + "\r\nSi vous avez activez l'option mode debug alors visualisez le fichier Debug.html"
          "\r\nCe fichier contient les erreurs survenues\r\n\r\n"
          "Nous sommes désolé mais l'application ne peut continuer ...\r\n\r\n";
    desktop_.diagnostic(QStringLiteral("Where: %1, number %2: %3").arg(site).arg(number).arg(description));
    silenceBeforeFatalBox();
    desktop_.messageBox(QStringLiteral("Erreur fatale"), text, Desktop::Icon::Critical);
    desktop_.endProgram(ExitProgramError);
    Q_UNREACHABLE(); // the compiler does not see through the virtual call
}

} // namespace postiq
