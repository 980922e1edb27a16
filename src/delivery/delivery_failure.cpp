// What becomes of a message whose connection failed: the next mail exchanger, the Deferred folder
// with a delay notice, a bounce once the attempts are used up, or the Error folder where no
// return is allowed.
#include <QTcpSocket>

#include "config/settings.h"
#include "delivery/dispatcher.h"
#include "delivery/error_trap.h"
#include "delivery/outbound_session.h"
#include "delivery/queue_folders.h"
#include "delivery/socket_errors.h"
#include "log/logs.h"
#include "notify/generate_deferred_mail.h"
#include "notify/generate_return_mail.h"
#include "log/dates.h"
#include "store/queue_files.h"

namespace postiq {

namespace {
const QByteArray kNotRoutable =
    "See log file at this time : The corresponding message is not routable => placed in the error directory";

QByteArray number(int n) { return QByteArray::number(n); }
} // namespace

void OutboundSession::SmtpDistant_Error(uint8_t n, int errorNumber, const QByteArray& description)
{
    Trapped(logs_, "M:MAIN[SmtpDistant_Error]", [&] { ReleasingOnFault(tables_, n, [&] {
        CConnexion& cnx = tables_.CnxOut(n);
        CMessage& message = cnx.Message;
        logs_.DbgAdd("<FONT COLOR='#0000FF'>Error for SMTPDISTANT[" + number(n) + "]: " + message.ID + " "
                     + number(errorNumber) + ": " + description + "</FONT><BR>");
        message.LastError = number(errorNumber) + ": " + description;
        opening_[n].password.clear();
        if (QTcpSocket* socket = tables_.SmtpDistant(n))
            socket->abort();
        if (QTimer* watchdog = watchdog_[n])
            watchdog->stop();
        const QByteArray reason = ReasonText(errorNumber);
        const bool attemptsUsed = message.Essai > settings_.ActiveSettings.MaxNbrAttempt;

        // The outcomes, first match wins.
        if (settings_.UserSettings.SmtpServerDefined)
            noRouteWithFixedServer(n, reason);
        else if (cnx.DNS.CurrentMX < cnx.DNS.MX.Count())
            tryNextMx(n, reason);
        else if (attemptsUsed && message.ForSender)
            denyLoop(n, reason);
        else if (attemptsUsed)
            giveUp(n, errorNumber, reason, description);
        else
            defer(n, reason);
    }); });
}

QByteArray OutboundSession::failureHead(uint8_t n) const
{
    return GMTDate(logs_.clock()) + " Postiq/smtpdistant[" + number(n) + "]: " + tables_.CnxOut(n).Message.ID;
}

QByteArray OutboundSession::failedHost(uint8_t n) const
{
    return tables_.CnxOut(n).SrvClient + " [" + remoteIp_[n] + "]";
}

void OutboundSession::noRouteWithFixedServer(uint8_t n, const QByteArray& reason)
{
    const CMessage& message = tables_.CnxOut(n).Message;
    logs_.DbgAdd("<FONT COLOR='#FF8000'>Error for : " + settings_.ActiveSettings.SmtpServer.toUtf8() + "</FONT><BR>");
    logs_.MailLog(failureHead(n) + " " + number(message.Essai) + "st connection failed (" + reason + ") for "
                  + failedHost(n)
                  + ", status=error, not return error neither deferred because there's no route available with"
                    " the specified SMTP server");
    logs_.ErrorLog(GMTDate(logs_.clock()) + " " + kNotRoutable);
    moveToErrorFolder(n);
    tables_.ReleaseSmtpDistant(n);
}

// All hosts of one dispatch count as one attempt.
void OutboundSession::tryNextMx(uint8_t n, const QByteArray& reason)
{
    CConnexion& cnx = tables_.CnxOut(n);
    logs_.MailLog(failureHead(n) + " connection failed (" + reason + ") for " + failedHost(n)
                  + ", status=trying other MX server, attempt=" + number(cnx.Message.Essai));
    cnx.DNS.CurrentMX += 1;
    cnx.setStatus(Connecting);
    // The new connection starts once this socket's own error handling has returned.
    const QPointer<QTcpSocket> socket = tables_.SmtpDistant(n);
    QMetaObject::invokeMethod(this, [this, n, socket] {
        Trapped(logs_, "M:MAIN[SmtpDistant_Error]", [&] {
            if (owns(n, socket) && tables_.CnxOut(n).Status() == Connecting)
                connectToCurrentHost(n);
        });
    }, Qt::QueuedConnection);
}

void OutboundSession::denyLoop(uint8_t n, const QByteArray& reason)
{
    const CMessage& message = tables_.CnxOut(n).Message;
    logs_.MailLog(failureHead(n) + " " + number(message.Essai) + "st connection failed (" + reason + ") for "
                  + failedHost(n) + ", status=error, not return error because it's already a return-error-mail:"
                    " deny loop");
    logs_.ErrorLog(GMTDate(logs_.clock()) + kNotRoutable); // this entry has no blank after the stamp
    moveToErrorFolder(n);
    tables_.ReleaseSmtpDistant(n);
}

void OutboundSession::giveUp(uint8_t n, int errorNumber, const QByteArray& reason, const QByteArray& description)
{
    CConnexion& cnx = tables_.CnxOut(n);
    CMessage& message = cnx.Message;
    logs_.MailLog(failureHead(n) + " " + number(message.Essai) + "st connection failed (" + reason + ") for "
                  + failedHost(n) + ", status=error, return error to=" + message.From);
    message.LastError = number(errorNumber) + ": " + reason + " (" + description + ")\r\n\r\nThis was the "
        + number(message.Essai) + "st attempt ...";
    rewriteOutboxFile(n);
    CGenerateReturnMail(logs_, settings_).Generate(cnx.CurrentOutFile);
    tables_.ReleaseSmtpDistant(n);
}

void OutboundSession::defer(uint8_t n, const QByteArray& reason)
{
    CConnexion& cnx = tables_.CnxOut(n);
    logs_.MailLog(failureHead(n) + " connection failed (" + reason + ") for " + failedHost(n)
                  + ", status=deferred, attempt=" + number(cnx.Message.Essai));
    // The deferred copy is complete before anything else changes; its time is the deferral time.
    const QString deferred = QueueFilePath(logs_, "Deferred", cnx.CurrentOutFile);
    cnx.Message.MSave(deferred);
    UndoingOnFault(
        [&] {
            rewriteOutboxFile(n);
            CGenerateDeferredMail(logs_, settings_).Generate(cnx.CurrentOutFile);
        },
        [&] { RemoveQueueFile(deferred); });
    tables_.ReleaseSmtpDistant(n);
}

} // namespace postiq
