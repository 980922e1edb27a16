#include "log/logs.h"

#include "log/dates.h"
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
    : folder_(std::move(folder)), debug_(debug), desktop_(desktop), clock_(clock),
      mailLog_(folder_ + QStringLiteral("/maillog.txt")), errorLog_(folder_ + QStringLiteral("/error.txt")),
      updateLog_(folder_ + QStringLiteral("/update.txt")), debugLog_(folder_ + QStringLiteral("/Debug.html"))
{
}

void Logs::append(AppendFile& file, const QByteArray& bytes)
{
    if (!file.append(bytes)) {
        ++lostLines_;
        return;
    }
    reportLostLines();
}

void Logs::reportLostLines()
{
    if (lostLines_ == 0)
        return;
    const QByteArray text = lostLines_ == 1
        ? QByteArray(" Postiq: 1 log line could not be written and was lost")
        : " Postiq: " + QByteArray::number(lostLines_) + " log lines could not be written and were lost";
    // Counted again only once the error log has taken the line.
    if (errorLog_.append(GMTDate(clock_) + text + kCrLf))
        lostLines_ = 0;
}

void Logs::reopenFiles()
{
    for (AppendFile* file : {&mailLog_, &errorLog_, &updateLog_, &debugLog_})
        file->reopen();
}

void Logs::MailLog(const QByteArray& line)
{
    DbgAdd("[MAILLOG]: " + line + "<BR>", DbgMailLog);
    append(mailLog_, line + kCrLf);
    if (lineEcho_)
        lineEcho_(QStringLiteral("maillog.txt"), line);
}

void Logs::ErrorLog(const QByteArray& line)
{
    append(errorLog_, line + kCrLf);
    if (lineEcho_)
        lineEcho_(QStringLiteral("error.txt"), line);
}

void Logs::UpdateLog(const QByteArray& line) { append(updateLog_, line + kCrLf); }

void Logs::DbgAdd(QByteArray& message, int kind)
{
    const KindStyle style = styleOf(kind);
    const QByteArray open = QByteArray("<FONT face='Verdana' size='2'") + style.colour + ">" + style.glyph;
    if (debug_.configLoaded()) {
        if (!debug_.debugMode())
            return;
        message += kCrLf;
        append(debugLog_, open + message + "</FONT>" + kCrLf);
    } else {
        message += kCrLf;
        append(debugLog_, "<HR><FONT face='Verdana' size='2'><I>DEBUG - SAFE MODE - CONFIG NOT LOADING</I></FONT>"
                              + kCrLf + open + message + "</FONT><HR>" + kCrLf);
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
