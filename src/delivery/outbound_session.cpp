#include "delivery/outbound_session.h"

#include <QHostAddress>
#include <QSslCipher>
#include <QSslConfiguration>
#include <QSslSocket>

#include "config/settings.h"
#include "delivery/error_trap.h"
#include "delivery/socket_errors.h"
#include "delivery/tls_trust.h"
#include "delivery/transmission.h"
#include "dns/address_resolver.h"
#include "log/dates.h"
#include "log/html.h"
#include "log/logs.h"
#include "smtp_in/connexion.h"

namespace postiq {

namespace {
QByteArray number(int n) { return QByteArray::number(n); }

bool hasEightBitBytes(const QByteArray& text)
{
    for (char c : text)
        if (static_cast<unsigned char>(c) >= 0x80)
            return true;
    return false;
}
} // namespace

// The server's replies, tried in order: the first row whose state and reply class match is
// applied. A reply no row expects is nonsense in its state.
const OutboundSession::Row OutboundSession::kRows[] = {
    // State          Reply          Action
    {Connecting,      Positive,      &OutboundSession::sendEhlo},
    {Connecting,      Transient,     &OutboundSession::temporaryFailure},
    {Connecting,      Permanent,     &OutboundSession::permanentFailure},
    {EhloSent,        Positive,      &OutboundSession::afterEhlo},
    {EhloSent,        Transient,     &OutboundSession::temporaryFailure},
    {EhloSent,        Permanent,     &OutboundSession::sendHelo},
    {HeloSent,        Positive,      &OutboundSession::sendMailFrom},
    {HeloSent,        Transient,     &OutboundSession::temporaryFailure},
    {HeloSent,        Permanent,     &OutboundSession::permanentFailure},
    {StartTlsSent,    Positive,      &OutboundSession::startTls},
    {StartTlsSent,    Transient,     &OutboundSession::noStartTls},
    {StartTlsSent,    Permanent,     &OutboundSession::noStartTls},
    {SecureEhloSent,  Positive,      &OutboundSession::afterSecureEhlo},
    {SecureEhloSent,  Transient,     &OutboundSession::temporaryFailure},
    {SecureEhloSent,  Permanent,     &OutboundSession::permanentFailure},
    {AuthLoginSent,   Intermediate,  &OutboundSession::sendLoginUser},
    {AuthUserSent,    Intermediate,  &OutboundSession::sendLoginPassword},
    {AuthSent,        Positive,      &OutboundSession::sendMailFrom},
    {AuthLoginSent,   Transient,     &OutboundSession::authenticationFailed},
    {AuthLoginSent,   Permanent,     &OutboundSession::authenticationFailed},
    {AuthUserSent,    Transient,     &OutboundSession::authenticationFailed},
    {AuthUserSent,    Permanent,     &OutboundSession::authenticationFailed},
    {AuthSent,        Transient,     &OutboundSession::authenticationFailed},
    {AuthSent,        Permanent,     &OutboundSession::authenticationFailed},
    {MailSent,        Positive,      &OutboundSession::sendRecipients},
    {MailSent,        Transient,     &OutboundSession::temporaryFailure},
    {MailSent,        Permanent,     &OutboundSession::permanentFailure},
    {LastRcptSent,    Positive,      &OutboundSession::recipientAccepted},
    {LastRcptSent,    Transient,     &OutboundSession::recipientDeferred},
    {LastRcptSent,    Permanent,     &OutboundSession::recipientRefused},
    {DataSent,        Intermediate,  &OutboundSession::sendText},
    {DataSent,        Transient,     &OutboundSession::temporaryFailure},
    {DataSent,        Permanent,     &OutboundSession::permanentFailure},
    {Writing,         Positive,      &OutboundSession::accepted},
    {Writing,         Transient,     &OutboundSession::temporaryFailure},
    {Writing,         Permanent,     &OutboundSession::permanentFailure},
    {Written,         Positive,      &OutboundSession::accepted},
    {Written,         Transient,     &OutboundSession::temporaryFailure},
    {Written,         Permanent,     &OutboundSession::permanentFailure},
    {kAnyState,       kAnyClass,     &OutboundSession::nonsense},
};

OutboundSession::OutboundSession(Logs& logs, const Settings& settings, AddressResolver& addresses, uint8_t slot,
                                 CConnexion& cnx, QSslSocket& socket, SessionTarget target,
                                 OutboundTimeouts timeouts, std::function<void()> milestone, Done done)
    : QObject(&socket), logs_(logs), settings_(settings), addresses_(addresses), slot_(slot), cnx_(cnx),
      socket_(socket),
      target_(std::move(target)), timeouts_(timeouts), milestone_(std::move(milestone)), done_(std::move(done))
{
    watchdog_.setSingleShot(true);
    connect(&watchdog_, &QTimer::timeout, this, &OutboundSession::watchdogExpired);
    connect(&socket_, &QSslSocket::connected, this, &OutboundSession::connected);
    connect(&socket_, &QSslSocket::readyRead, this, &OutboundSession::dataArrived);
    connect(&socket_, &QSslSocket::bytesWritten, this, &OutboundSession::bytesWritten);
    connect(&socket_, &QSslSocket::encrypted, this, &OutboundSession::encrypted);
    // Queued: a socket may report a failure from inside a call made by another handler.
    connect(&socket_, &QSslSocket::errorOccurred, this, &OutboundSession::socketError, Qt::QueuedConnection);
}

QByteArray OutboundSession::GreetingName(const QString& localHostName, const QHostAddress& local)
{
    QByteArray name = localHostName.toUtf8();
    name.replace('\0', QByteArray());
    if (name.contains('.') && !name.startsWith('.') && !name.endsWith('.'))
        return name;
    bool isIPv4 = false;
    const quint32 v4 = local.toIPv4Address(&isIPv4);
    if (isIPv4)
        return '[' + QHostAddress(v4).toString().toLatin1() + ']';
    return "[IPv6:" + local.toString().toLatin1() + ']';
}

QByteArray OutboundSession::PathText(const QByteArray& address)
{
    const QByteArray trimmed = address.trimmed();
    if (trimmed.startsWith('<') && trimmed.endsWith('>'))
        return trimmed;
    return '<' + trimmed + '>';
}

const CMessage& OutboundSession::message() const { return cnx_.Message; }

QByteArray OutboundSession::head() const
{
    return " Postiq/smtpdistant[" + number(slot_) + "]: " + message().ID;
}

void OutboundSession::setState(int32_t state) { cnx_.setStatus(state); }

void OutboundSession::armWatchdog(std::chrono::milliseconds limit) { watchdog_.start(limit); }

void OutboundSession::start()
{
    cnx_.SrvClient = target_.shownHost;
    setState(Connecting);
    armWatchdog(timeouts_.connect);
    if (target_.route.submission() && !target_.route.user.isEmpty())
        lookUpPassword(); // then resolveHost()
    else
        resolveHost();
}

void OutboundSession::resolveHost()
{
    // The name is resolved here rather than by the socket, so that a failure can name the
    // address that refused, and a name that does not resolve is "host not found". Exchangers are
    // asked of the DNS server that named them; a fixed server is found as the computer finds it.
    const auto found = [this](const QList<QHostAddress>& addresses) {
        Trapped(logs_, "M:MAIN[SmtpDistant_Connect]", [&] { addressesFound(addresses); });
    };
    const QByteArray host = target_.route.host.toUtf8();
    if (target_.exchanger)
        addresses_.resolve(host, target_.knownAddresses, this, found);
    else
        addresses_.resolveThroughSystem(host, this, found);
}

void OutboundSession::addressesFound(const QList<QHostAddress>& addresses)
{
    if (finished_)
        return;
    if (addresses.isEmpty()) {
        fail(ErrHostNotFound, "Host not found");
        return;
    }
    ip_ = PlainAddressText(addresses.constFirst());
    connectTo(addresses.constFirst());
}

void OutboundSession::connectTo(const QHostAddress& address)
{
    const ServerRoute& route = target_.route;
    if (route.submission()) {
        socket_.setSslConfiguration(SubmissionTlsConfiguration());
        socket_.setPeerVerifyName(route.host);
    } else {
        // Mail exchangers are met with whatever certificate they hold, as every relay does: the
        // encryption keeps out those who listen, not those who sit in the middle.
        QSslConfiguration config = QSslConfiguration::defaultConfiguration();
        config.setPeerVerifyMode(QSslSocket::VerifyNone);
        socket_.setSslConfiguration(config);
    }
    if (route.security == Security::ImplicitTls)
        socket_.connectToHostEncrypted(address.toString(), route.port, route.host);
    else
        socket_.connectToHost(address, route.port);
}

// ---- socket events ----

void OutboundSession::connected()
{
    Trapped(logs_, "M:MAIN[SmtpDistant_Connect]", [&] {
        if (finished_)
            return;
        armWatchdog(timeouts_.silence);
        logs_.MailLog(GMTDate(logs_.clock()) + head() + " connect to " + target_.shownHost + " [" + ip_ + "]");
    });
}

void OutboundSession::dataArrived()
{
    Trapped(logs_, "M:MAIN[SmtpDistant_DataArrival]", [&] {
        if (finished_)
            return;
        const QByteArray text = socket_.readAll();
        if (text.isEmpty())
            return;
        armWatchdog(timeouts_.silence);
        if (settings_.ActiveSettings.DebugMode) {
            logs_.DbgAdd("<FONT COLOR='#008800'>Receive from SMTPDISTANT[" + number(slot_) + "]: " + message().ID
                         + " " + HtmlEscape(text) + "</FONT>");
        }
        reader_.feed(text);
        while (!finished_) {
            const std::optional<ServerReply> reply = reader_.next();
            if (!reply)
                break;
            handle(*reply);
        }
    });
}

void OutboundSession::handle(const ServerReply& reply)
{
    const int32_t state = cnx_.Status();
    for (const Row& row : kRows) {
        if ((row.state == kAnyState || row.state == state)
            && (row.replyClass == kAnyClass || row.replyClass == reply.replyClass())) {
            (this->*row.action)(reply);
            return;
        }
    }
}

void OutboundSession::bytesWritten()
{
    if (finished_)
        return;
    armWatchdog(timeouts_.silence); // a long message is still moving
    if (cnx_.Status() == Writing && socket_.bytesToWrite() == 0)
        setState(Written);
}

void OutboundSession::socketError()
{
    Trapped(logs_, "M:MAIN[SmtpDistant_Error]", [&] {
        if (finished_)
            return;
        const QAbstractSocket::SocketError error = socket_.error();
        const int errorNumber = cnx_.Status() == TlsHandshake ? ErrTlsFailed : SocketErrorNumber(error);
        fail(errorNumber, socket_.errorString().toUtf8());
    });
}

void OutboundSession::watchdogExpired()
{
    Trapped(logs_, "M:MAIN[SmtpDistant_Error]", [&] {
        // A handshake that never ends is a failed one: the host may still take the mail in clear.
        if (!finished_)
            fail(cnx_.Status() == TlsHandshake ? ErrTlsFailed : ErrTimedOut, "Socket operation timed out");
    });
}

void OutboundSession::encrypted()
{
    Trapped(logs_, "M:MAIN[SmtpDistant_Encrypted]", [&] {
        if (finished_)
            return;
        const QSslCipher cipher = socket_.sessionCipher();
        logs_.MailLog(GMTDate(logs_.clock()) + head() + " TLS " + cipher.protocolString().toUtf8() + " "
                      + cipher.name().toUtf8());
        if (cnx_.Status() != TlsHandshake)
            return; // smtps://: the greeting comes next
        reader_.clear();
        sendEhloCommand("EHLO");
        setState(SecureEhloSent);
    });
}

// ---- the reply table's actions ----

void OutboundSession::sendEhlo(const ServerReply&)
{
    // Over smtps:// the first EHLO is already a secure one.
    const bool secure = socket_.isEncrypted();
    sendEhloCommand("EHLO");
    setState(secure ? SecureEhloSent : EhloSent);
    if (milestone_)
        milestone_();
}

void OutboundSession::sendHelo(const ServerReply&)
{
    if (target_.route.submission()) {
        fail(ErrNoStartTls, "EHLO refused");
        return;
    }
    extended_ = false;
    sendEhloCommand("HELO");
    setState(HeloSent);
}

void OutboundSession::afterEhlo(const ServerReply& reply)
{
    offered_ = Extensions::fromEhloReply(reply);
    extended_ = true;
    const bool required = target_.route.security == Security::StartTls;
    const bool wanted = required || (target_.exchanger && !target_.clearOnly);
    if (wanted && offered_.startTls) {
        sendCommand("STARTTLS");
        setState(StartTlsSent);
        return;
    }
    if (required) {
        fail(ErrNoStartTls, "STARTTLS not offered: " + reply.lines.value(0));
        return;
    }
    sendMailFrom(reply);
}

void OutboundSession::startTls(const ServerReply& reply)
{
    // Anything after the go-ahead came in plain text and could pass for the server's word.
    if (reply.code != 220 || reader_.hasPartialReply() || socket_.bytesAvailable() > 0) {
        fail(ErrTlsFailed, "plain text after the STARTTLS go-ahead");
        return;
    }
    setState(TlsHandshake);
    socket_.startClientEncryption();
}

// An exchanger that takes STARTTLS back gets the message in clear; a provider does not.
void OutboundSession::noStartTls(const ServerReply& reply)
{
    if (target_.route.security == Security::StartTls) {
        fail(ErrNoStartTls, reply.lines.value(0));
        return;
    }
    sendMailFrom(reply);
}

void OutboundSession::afterSecureEhlo(const ServerReply& reply)
{
    offered_ = Extensions::fromEhloReply(reply);
    extended_ = true;
    if (target_.route.submission()) {
        authenticate(reply);
        return;
    }
    sendMailFrom(reply);
}

void OutboundSession::authenticationFailed(const ServerReply& reply)
{
    fail(ErrAuthFailed, reply.lines.value(0));
}

void OutboundSession::sendMailFrom(const ServerReply&)
{
    QByteArray command = "MAIL FROM:" + PathText(message().From == "<>" ? QByteArray() : message().From);
    if (extended_ && offered_.size)
        command += " SIZE=" + number(int(qMin<qsizetype>(message().Data.size(), std::numeric_limits<int>::max())));
    if (extended_ && offered_.eightBitMime && hasEightBitBytes(message().Data))
        command += " BODY=8BITMIME";
    sendCommand(command);
    setState(MailSent);
}

void OutboundSession::sendRecipients(const ServerReply&) { sendNextRcpt(); }

void OutboundSession::recordRecipient(RecipientResult::Verdict verdict, const ServerReply& reply)
{
    recipients_.append({message().RcptTo(int(recipients_.size()) + 1), verdict, reply});
    sendNextRcpt();
}

void OutboundSession::recipientAccepted(const ServerReply& reply) { recordRecipient(RecipientResult::Accepted, reply); }
void OutboundSession::recipientDeferred(const ServerReply& reply) { recordRecipient(RecipientResult::Deferred, reply); }
void OutboundSession::recipientRefused(const ServerReply& reply) { recordRecipient(RecipientResult::Refused, reply); }

// One RCPT after another; DATA once every recipient has had its reply and one was accepted.
void OutboundSession::sendNextRcpt()
{
    const int next = int(recipients_.size()) + 1;
    if (next <= message().MRcptToCount()) {
        sendCommand("RCPT TO:" + PathText(message().RcptTo(next)));
        setState(LastRcptSent);
        return;
    }
    for (const RecipientResult& result : recipients_) {
        if (result.verdict == RecipientResult::Accepted) {
            sendCommand("DATA");
            setState(DataSent);
            if (milestone_)
                milestone_();
            return;
        }
    }
    DeliveryOutcome outcome;
    outcome.kind = DeliveryOutcome::Transaction;
    outcome.recipients = recipients_;
    finish(outcome, true);
}

void OutboundSession::sendText(const ServerReply& reply)
{
    if (reply.code != 354) {
        nonsense(reply);
        return;
    }
    setState(Writing);
    logs_.DbgAdd("<FONT COLOR='#0000FF'>Send to SMTPDISTANT[" + number(slot_) + "]: " + message().ID
                 + " **** DATA ****</FONT><BR>");
    socket_.write(TransmissionText(message().Data));
    if (milestone_)
        milestone_();
}

// The final reply stands for every recipient that its RCPT had accepted.
void OutboundSession::accepted(const ServerReply& reply)
{
    DeliveryOutcome outcome;
    outcome.kind = DeliveryOutcome::Transaction;
    outcome.recipients = recipients_;
    for (RecipientResult& result : outcome.recipients) {
        if (result.verdict == RecipientResult::Accepted)
            result.reply = reply;
    }
    outcome.reply = reply;
    finish(outcome, true);
}

void OutboundSession::temporaryFailure(const ServerReply& reply)
{
    DeliveryOutcome outcome;
    outcome.kind = DeliveryOutcome::HostTemporary;
    outcome.reply = reply;
    finish(outcome, true);
}

void OutboundSession::permanentFailure(const ServerReply& reply)
{
    DeliveryOutcome outcome;
    outcome.kind = DeliveryOutcome::HostPermanent;
    outcome.reply = reply;
    finish(outcome, true);
}

// A reply that has no place in the dialogue: the server cannot be trusted with the message now.
void OutboundSession::nonsense(const ServerReply& reply)
{
    logs_.MailLog(GMTDate(logs_.clock()) + head() + " unexpected reply (" + reply.text().left(512) + ") from "
                  + target_.shownHost + " [" + ip_ + "] in state " + number(cnx_.Status()));
    DeliveryOutcome outcome;
    outcome.kind = DeliveryOutcome::HostTemporary;
    outcome.errorNumber = ErrBadReply;
    outcome.description = reply.text().left(512);
    finish(outcome, true);
}

// ---- shared steps ----

void OutboundSession::sendEhloCommand(const char* verb)
{
    sendCommand(verb + (' ' + GreetingName(settings_.LocalHostName, socket_.localAddress())));
}

void OutboundSession::sendCommand(const QByteArray& command)
{
    const QByteArray line = command + "\r\n";
    logs_.DbgAdd("<FONT COLOR='#0000FF'>Send to SMTPDISTANT[" + number(slot_) + "]: " + message().ID + " " + line
                 + "</FONT><BR>");
    socket_.write(line);
}

void OutboundSession::fail(int errorNumber, const QByteArray& description)
{
    logs_.DbgAdd("<FONT COLOR='#0000FF'>Error for SMTPDISTANT[" + number(slot_) + "]: " + message().ID + " "
                 + number(errorNumber) + ": " + description + "</FONT><BR>");
    DeliveryOutcome outcome;
    outcome.kind = DeliveryOutcome::HostTemporary;
    outcome.errorNumber = errorNumber;
    outcome.description = description;
    outcome.tlsFailed = errorNumber == ErrTlsFailed && target_.exchanger;
    finish(outcome, false);
}

void OutboundSession::finish(DeliveryOutcome outcome, bool sayQuit)
{
    if (finished_)
        return;
    finished_ = true;
    password_.clear();
    watchdog_.stop();
    outcome.host = target_.shownHost;
    outcome.ip = ip_;
    disconnect(&socket_, nullptr, this, nullptr);
    if (sayQuit && socket_.state() == QAbstractSocket::ConnectedState) {
        setState(Finished);
        sendCommand("QUIT");
        socket_.flush(); // through TLS too, before the slot lets the socket go
        socket_.disconnectFromHost(); // the reply to QUIT is not awaited
    } else {
        socket_.abort();
    }
    // The dispatcher decides after the events already pending, never inside a socket's signal.
    // The session goes afterwards; the slot may already have handed its socket to the next one.
    QMetaObject::invokeMethod(
        this,
        [this, outcome] {
            deleteLater();
            done_(outcome);
        },
        Qt::QueuedConnection);
}

} // namespace postiq
