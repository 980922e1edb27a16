#include "delivery/outbound_session.h"

#include <QHostAddress>
#include <QHostInfo>
#include <QSslSocket>
#include <QTcpSocket>
#include <QTimer>

#include "config/settings.h"
#include "delivery/dispatcher.h"
#include "delivery/error_trap.h"
#include "delivery/queue_folders.h"
#include "delivery/socket_errors.h"
#include "delivery/transmission.h"
#include "log/html.h"
#include "log/logs.h"
#include "notify/generate_deferred_mail.h"
#include "notify/generate_return_mail.h"
#include "log/dates.h"
#include "platform/desktop.h"
#include "store/queue_files.h"

namespace postiq {

namespace {
const QByteArray kCrLf = "\r\n";
constexpr int kRefusal = 550;

template <int32_t S>
bool is(int32_t status) { return status == S; }
bool anyState(int32_t) { return true; }

QByteArray number(int n) { return QByteArray::number(n); }

// The reply without its final CR LF.
QByteArray withoutLineEnd(const QByteArray& reply) { return reply.left(qMax<qsizetype>(0, reply.size() - 2)); }

// A reply is whole when its last line is not a continuation line ("250-...").
bool IsWholeReply(const QByteArray& text)
{
    if (!text.endsWith('\n'))
        return false;
    const qsizetype start = text.lastIndexOf('\n', text.size() - 2) + 1;
    const QByteArray last = text.mid(start);
    return last.size() < 4 || last.at(3) != '-';
}
} // namespace

// The server's replies, tried in order; the first whose state and reply code match is applied.
const OutboundSession::Row OutboundSession::kRows[] = {
    // Status            code       action
    {is<Connecting>,     220,       &OutboundSession::sendHelo},
    {is<HeloSent>,       250,       &OutboundSession::sendMailFrom},
    {is<MailSent>,       250,       &OutboundSession::sendRcptTo},
    {is<LastRcptSent>,   250,       &OutboundSession::sendDataCommand},
    {is<LastRcptSent>,   kRefusal,  &OutboundSession::refused},
    {is<DataSent>,       354,       &OutboundSession::sendText},
    {is<Written>,        250,       &OutboundSession::accepted},
    {anyState,           kRefusal,  &OutboundSession::refused},
    {anyState,           kAnyCode,  &OutboundSession::notImplemented},
};

// The secure opening of a submission route. Once logged in (or at once after the secure EHLO
// when there is no login) the session carries on as if HELO had been answered.
const OutboundSession::Row OutboundSession::kOpeningRows[] = {
    // Status            code       action
    {is<Connecting>,     220,       &OutboundSession::sendEhlo},
    {is<EhloSent>,       250,       &OutboundSession::sendStartTls},
    {is<EhloSent>,       kAnyCode,  &OutboundSession::noStartTls},
    {is<StartTlsSent>,   220,       &OutboundSession::startTls},
    {is<StartTlsSent>,   kAnyCode,  &OutboundSession::noStartTls},
    {is<SecureEhloSent>, 250,       &OutboundSession::authenticate},
    {is<AuthLoginSent>,  334,       &OutboundSession::sendLoginUser},
    {is<AuthUserSent>,   334,       &OutboundSession::sendLoginPassword},
    {is<AuthSent>,       235,       &OutboundSession::authenticated},
    {is<AuthLoginSent>,  kAnyCode,  &OutboundSession::authenticationFailed},
    {is<AuthUserSent>,   kAnyCode,  &OutboundSession::authenticationFailed},
    {is<AuthSent>,       kAnyCode,  &OutboundSession::authenticationFailed},
};

OutboundSession::OutboundSession(Logs& logs, const Settings& settings, ConnectionTables& tables,
                                 Dispatcher& dispatcher, QObject* parent)
    : QObject(parent), logs_(logs), settings_(settings), tables_(tables), dispatcher_(dispatcher)
{
}

void OutboundSession::attach(uint8_t n, QTcpSocket& socket)
{
    const QPointer<QTcpSocket> guard(&socket);
    connect(&socket, &QTcpSocket::connected, this, [this, n, guard] { connected(n, guard); });
    connect(&socket, &QTcpSocket::readyRead, this, [this, n, guard] { SmtpDistant_DataArrival(n, guard); });
    connect(&socket, &QTcpSocket::bytesWritten, this, [this, n, guard] { sendComplete(n, guard); });
    // Queued: a socket may report a failure from inside a call made by another handler.
    connect(&socket, &QTcpSocket::errorOccurred, this, [this, n, guard] { socketError(n, guard); },
            Qt::QueuedConnection);
    if (auto* tls = qobject_cast<QSslSocket*>(&socket))
        connect(tls, &QSslSocket::encrypted, this, [this, n, guard] { encrypted(n, guard); });
    auto* watchdog = new QTimer(&socket);
    watchdog->setSingleShot(true);
    connect(watchdog, &QTimer::timeout, this, [this, n, guard] { watchdogExpired(n, guard); });
    watchdog_[n] = watchdog;
    remoteIp_[n].clear();
}

bool OutboundSession::owns(uint8_t n, QTcpSocket* socket) const
{
    return socket && tables_.SmtpDistant(n) == socket;
}

void OutboundSession::armWatchdog(uint8_t n, std::chrono::milliseconds limit)
{
    if (QTimer* watchdog = watchdog_[n])
        watchdog->start(limit);
}

void OutboundSession::connectToCurrentHost(uint8_t n)
{
    CConnexion& cnx = tables_.CnxOut(n);
    QTcpSocket* socket = tables_.SmtpDistant(n);
    if (!socket)
        throw Fault(ErrInvalidCall, QStringLiteral("SmtpDistant(%1): socket instance not loaded").arg(n));
    const QByteArray configured = cnx.DNS.MX.Host(cnx.DNS.CurrentMX);
    opening_[n] = Opening{ParseServerRoute(configured), {}};
    const ServerRoute& route = opening_[n].route;
    // A submission server is named by host and port: the login stays out of the logs.
    cnx.SrvClient = route.submission() ? route.hostAndPort() : configured;
    cnx.CurrentRcptTo = 0; // a new dialogue names its recipients from the first
    cnx.SmtpCommand.clear();
    remoteIp_[n].clear();
    const QString host = route.host;
    socket->abort();
    armWatchdog(n, timeouts.connect);
    // The name is resolved here rather than by the socket, so that a failure can name the
    // address that refused, and a name that does not resolve is "host not found".
    const QPointer<QTcpSocket> guard(socket);
    QHostInfo::lookupHost(host, this, [this, n, guard](const QHostInfo& info) {
        Trapped(logs_, "M:MAIN[SmtpDistant_Connect]", [&] {
            if (!owns(n, guard) || tables_.CnxOut(n).Status() != Connecting)
                return;
            if (info.error() != QHostInfo::NoError || info.addresses().isEmpty()) {
                SmtpDistant_Error(n, ErrHostNotFound, info.errorString().toUtf8());
                return;
            }
            const QHostAddress address = info.addresses().constFirst();
            remoteIp_[n] = PlainAddressText(address);
            startConnection(n, address);
        });
    });
}

// ---- socket events ----

void OutboundSession::connected(uint8_t n, QTcpSocket* socket)
{
    Trapped(logs_, "M:MAIN[SmtpDistant_Connect]", [&] {
        if (!owns(n, socket))
            return;
        armWatchdog(n, timeouts.silence);
        mailLog(" Postiq/smtpdistant[" + number(n) + "]: " + loggedId() + " connect to "
                + tables_.CnxOut(n).SrvClient + " [" + remoteIp_[n] + "]");
    });
}

void OutboundSession::SmtpDistant_DataArrival(uint8_t n, QTcpSocket* socket)
{
    Trapped(logs_, "M:MAIN[SmtpDistant_DataArrival]", [&] {
        if (!owns(n, socket))
            return;
        const QByteArray text = socket->readAll();
        if (text.isEmpty())
            return;
        armWatchdog(n, timeouts.silence);
        if (settings_.ActiveSettings.DebugMode) {
            logs_.DbgAdd("<FONT COLOR='#008800'>Receive from SMTPDISTANT[" + number(n) + "]: " + loggedId()
                         + " " + HtmlEscape(text) + "</FONT>");
        }
        CConnexion& cnx = tables_.CnxOut(n);
        if (inOpening(n)) {
            // The opening decides on whole replies (an EHLO reply may come in pieces).
            cnx.SmtpCommand += text;
            if (!IsWholeReply(cnx.SmtpCommand))
                return;
            Reply reply{n, cnx, cnx.SmtpCommand};
            cnx.SmtpCommand.clear();
            if (!applyFirstRow(kOpeningRows, reply))
                applyFirstRow(kRows, reply);
            return;
        }
        cnx.SmtpCommand = text;
        Reply reply{n, cnx, text};
        applyFirstRow(kRows, reply);
    });
}

bool OutboundSession::applyFirstRow(std::span<const Row> rows, Reply& reply)
{
    bool isNumber = false;
    const int code = GetResponseCode(reply.text).toInt(&isNumber);
    for (const Row& row : rows) {
        if (row.state(reply.cnx.Status()) && (row.code == kAnyCode || (isNumber && row.code == code))) {
            ReleasingOnFault(tables_, reply.n, [&] { (this->*row.action)(reply); });
            return true;
        }
    }
    return false;
}

void OutboundSession::sendComplete(uint8_t n, QTcpSocket* socket)
{
    Trapped(logs_, "M:MAIN[SmtpDistant_SendComplete]", [&] {
        if (!owns(n, socket))
            return;
        armWatchdog(n, timeouts.silence); // a long message is still moving
        CConnexion& cnx = tables_.CnxOut(n);
        if (cnx.Status() == Writing && socket->bytesToWrite() == 0)
            cnx.setStatus(Written);
    });
}

void OutboundSession::socketError(uint8_t n, QTcpSocket* socket)
{
    if (!owns(n, socket))
        return;
    SmtpDistant_Error(n, SocketErrorNumber(socket->error()), socket->errorString().toUtf8());
}

void OutboundSession::watchdogExpired(uint8_t n, QTcpSocket* socket)
{
    if (!owns(n, socket))
        return;
    const int32_t status = tables_.CnxOut(n).Status();
    if (status == Taken || status == 0)
        return; // no connection under way: nothing to wait for
    SmtpDistant_Error(n, ErrTimedOut, "Socket operation timed out");
}

// ---- the reply table's actions ----

void OutboundSession::sendHelo(Reply& reply)
{
    reply.cnx.setStatus(HeloSent);
    QByteArray name = settings_.LocalHostName.toUtf8();
    name.replace('\0', QByteArray());
    sendCommand(reply.n, "HELO " + name);
    dispatcher_.VerifOutBox();
}

void OutboundSession::sendMailFrom(Reply& reply)
{
    reply.cnx.setStatus(MailSent);
    sendCommand(reply.n, "MAIL FROM: " + reply.cnx.Message.From);
}

void OutboundSession::sendRcptTo(Reply& reply)
{
    CConnexion& cnx = reply.cnx;
    cnx.CurrentRcptTo = uint8_t(cnx.CurrentRcptTo + 1);
    if (cnx.CurrentRcptTo >= cnx.Message.MRcptToCount())
        cnx.setStatus(LastRcptSent);
    sendCommand(reply.n, "RCPT TO: " + cnx.Message.RcptTo(cnx.CurrentRcptTo));
}

void OutboundSession::sendDataCommand(Reply& reply)
{
    reply.cnx.setStatus(DataSent);
    sendCommand(reply.n, "DATA");
    dispatcher_.VerifOutBox();
}

void OutboundSession::sendText(Reply& reply)
{
    reply.cnx.setStatus(Writing);
    logs_.DbgAdd("<FONT COLOR='#0000FF'>Send to SMTPDISTANT[" + number(reply.n) + "]: " + loggedId()
                 + " **** DATA ****</FONT><BR>");
    tables_.SmtpDistant(reply.n)->write(TransmissionText(reply.cnx.Message.Data));
    dispatcher_.postVerifOutBox();
}

void OutboundSession::accepted(Reply& reply)
{
    const uint8_t n = reply.n;
    CConnexion& cnx = reply.cnx;
    cnx.setStatus(Finished);
    const QByteArray text = withoutLineEnd(reply.text);
    for (int i = 1; i <= cnx.Message.MRcptToCount(); ++i) {
        mailLog(" Postiq/smtpdistant[" + number(n) + "]: " + loggedId() + " to=" + cnx.Message.RcptTo(i)
                + ", relay=" + cnx.SrvClient + "[" + remoteIp_[n] + "], status=sent (" + text + ")");
    }
    sendQuitAndClose(n);
    const QString file = cnx.CurrentOutFile;
    tables_.ReleaseSmtpDistant(n);
    RemoveQueueFile(QueueFilePath(logs_, "OutBox", file)); // no copy of a sent message is kept
    dispatcher_.postAfterSession();
}

void OutboundSession::refused(Reply& reply)
{
    const uint8_t n = reply.n;
    CConnexion& cnx = reply.cnx;
    CMessage& message = cnx.Message;
    cnx.setStatus(Finished);
    sendQuitAndClose(n);
    const QByteArray text = withoutLineEnd(reply.text);
    message.LastError = text;
    const QByteArray head = GMTDate(logs_.clock()) + " Postiq/smtpdistant[" + number(n) + "]: " + message.ID
        + " Error 550 (" + text + "), error for=" + message.RcptTo(cnx.CurrentRcptTo) + " status=error, ";
    if (message.ForSender) {
        logs_.MailLog(head + "not return error because it's already a return-error-mail: deny loop");
        logs_.ErrorLog(GMTDate(logs_.clock())
                       + " See log file at this time : The corresponding message is not routable => placed"
                         " in the error directory");
        moveToErrorFolder(n);
    } else {
        logs_.MailLog(head + "return error to=" + message.From);
        rewriteOutboxFile(n);
        CGenerateReturnMail(logs_, settings_).Generate(cnx.CurrentOutFile);
    }
    tables_.ReleaseSmtpDistant(n);
    dispatcher_.postVerifOutBox();
}

// A reply the dialogue has no rule for: the session stays where it is until the server closes
// the connection or the time limit ends it.
void OutboundSession::notImplemented(Reply& reply)
{
    logs_.DbgAdd("<FONT COLOR='#FF0000'>" + reply.cnx.Message.ID + " RECEIVED DATA NOT IMPLEMENTED !</FONT><BR>");
    logs_.desktop().notice(QString(), QStringLiteral("RECEIVED DATA NOT IMPLEMENTED ! See debug log ..."));
    dispatcher_.VerifOutBox();
}

// ---- shared steps ----

void OutboundSession::sendCommand(uint8_t n, const QByteArray& command)
{
    const QByteArray line = command + kCrLf;
    logs_.DbgAdd("<FONT COLOR='#0000FF'>Send to SMTPDISTANT[" + number(n) + "]: " + loggedId() + " " + line
                 + "</FONT><BR>");
    tables_.SmtpDistant(n)->write(line);
}

// QUIT goes out before the connection closes; its reply is not awaited.
void OutboundSession::sendQuitAndClose(uint8_t n)
{
    sendCommand(n, "QUIT");
    tables_.SmtpDistant(n)->disconnectFromHost();
}

void OutboundSession::moveToErrorFolder(uint8_t n)
{
    CConnexion& cnx = tables_.CnxOut(n);
    cnx.Message.MSave(QueueFilePath(logs_, "Error", cnx.CurrentOutFile));
    RemoveQueueFile(QueueFilePath(logs_, "OutBox", cnx.CurrentOutFile));
}

void OutboundSession::rewriteOutboxFile(uint8_t n)
{
    CConnexion& cnx = tables_.CnxOut(n);
    cnx.Message.MSave(QueueFilePath(logs_, "OutBox", cnx.CurrentOutFile));
}

void OutboundSession::mailLog(const QByteArray& text) { logs_.MailLog(GMTDate(logs_.clock()) + text); }

QByteArray OutboundSession::loggedId() const { return tables_.CnxOut(tables_.LastCnxOut).Message.ID; }

} // namespace postiq
