#include "delivery/outbound_session.h"

#include <QFile>
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
#include "store/queue_text_reader.h"

namespace postiq {

namespace {
QByteArray number(int n) { return QByteArray::number(n); }

// The text goes out a chunk at a time, and only while the socket holds less than the high
// water mark: a message of any size costs a few hundred KB.
constexpr qint64 kTextChunk = 64 * 1024;
constexpr qint64 kSocketHighWater = 256 * 1024;

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
    {AuthLoginSent,   Permanent,     &OutboundSession::loginRefused},
    {AuthUserSent,    Transient,     &OutboundSession::authenticationFailed},
    {AuthUserSent,    Permanent,     &OutboundSession::loginRefused},
    {AuthSent,        Transient,     &OutboundSession::authenticationFailed},
    {AuthSent,        Permanent,     &OutboundSession::loginRefused},
    {ResetSent,       Positive,      &OutboundSession::afterReset},
    {ResetSent,       kAnyClass,     &OutboundSession::resetRefused},
    {MailSent,        Positive,      &OutboundSession::sendRecipients},
    {MailSent,        Transient,     &OutboundSession::temporaryFailure},
    {MailSent,        Permanent,     &OutboundSession::permanentFailure},
    {LastRcptSent,    Positive,      &OutboundSession::recipientAccepted},
    {LastRcptSent,    Transient,     &OutboundSession::recipientDeferred},
    {LastRcptSent,    Permanent,     &OutboundSession::recipientRefused},
    {DataSent,        Intermediate,  &OutboundSession::sendText},
    {DataSent,        Transient,     &OutboundSession::temporaryFailure},
    {DataSent,        Permanent,     &OutboundSession::permanentFailure},
    {DataUnwanted,    Intermediate,  &OutboundSession::unwantedGoAhead},
    {DataUnwanted,    Transient,     &OutboundSession::noRecipientAccepted},
    {DataUnwanted,    Permanent,     &OutboundSession::noRecipientAccepted},
    {Writing,         Positive,      &OutboundSession::accepted},
    {Writing,         Transient,     &OutboundSession::temporaryFailure},
    {Writing,         Permanent,     &OutboundSession::permanentFailure},
    {Written,         Positive,      &OutboundSession::accepted},
    {Written,         Transient,     &OutboundSession::temporaryFailure},
    {Written,         Permanent,     &OutboundSession::permanentFailure},
    {kAnyState,       kAnyClass,     &OutboundSession::nonsense},
};

OutboundSession::OutboundSession(Logs& logs, const Settings& settings, AddressResolver& addresses,
                                 const Queue& queue, uint8_t slot, CConnexion& cnx, QSslSocket& socket,
                                 SessionTarget target, OutboundTimeouts timeouts, std::function<void()> milestone,
                                 Done done)
    : QObject(&socket), logs_(logs), settings_(settings), addresses_(addresses), queue_(queue), slot_(slot),
      cnx_(cnx), socket_(socket),
      target_(std::move(target)), timeouts_(timeouts), milestone_(std::move(milestone)), done_(std::move(done))
{
    watchdog_.setSingleShot(true);
    connect(&watchdog_, &QTimer::timeout, this, &OutboundSession::watchdogExpired);
    connect(&socket_, &QSslSocket::connected, this, &OutboundSession::connected);
    connect(&socket_, &QSslSocket::readyRead, this, &OutboundSession::dataArrived);
    connect(&socket_, &QSslSocket::bytesWritten, this, &OutboundSession::bytesWritten);
    // Over TLS the text is encrypted at once; the network drains the encrypted bytes later.
    connect(&socket_, &QSslSocket::encryptedBytesWritten, this, &OutboundSession::bytesWritten);
    connect(&socket_, &QSslSocket::encrypted, this, &OutboundSession::encrypted);
    // Queued: a socket may report a failure from inside a call made by another handler.
    connect(&socket_, &QSslSocket::errorOccurred, this, &OutboundSession::socketError, Qt::QueuedConnection);
}

OutboundSession::~OutboundSession() = default;

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
    const QByteArray head = " Postiq/smtpdistant[" + number(slot_) + "]: " + message().ID;
    return target_.routeName.isEmpty() ? head : head + " route=" + target_.routeName.toUtf8();
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
        connectedFor_.start();
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
            --owed_; // below zero: the server spoke unasked, and the connection is not reused
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
    if (cnx_.Status() != Writing)
        return;
    if (!textEnded_)
        pumpText();
    else if (socket_.bytesToWrite() + socket_.encryptedBytesToWrite() == 0)
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

// A login refused for now (4xx). The server answered: its reply goes with the failure, so that
// the route is not taken for one out of reach (no fallback, no connection of its own for every
// waiting message).
void OutboundSession::authenticationFailed(const ServerReply& reply)
{
    fail(ErrAuthFailed, reply.lines.value(0), reply);
}

// A login refused for good (5xx): a wrong password stays wrong however long the message waits.
void OutboundSession::loginRefused(const ServerReply& reply)
{
    fail(ErrAuthFailed, reply.lines.value(0), reply, DeliveryOutcome::LoginRefused);
}

// With PIPELINING, MAIL, every RCPT and DATA go in one write; their replies come back in the same
// order and are taken one by one by the same rows as without it.
void OutboundSession::sendMailFrom(const ServerReply&)
{
    if (!openText())
        return;
    QByteArray command = "MAIL FROM:" + PathText(message().From == "<>" ? QByteArray() : message().From);
    if (extended_ && offered_.size)
        command += " SIZE=" + number(int(qMin<qint64>(text_->size(), std::numeric_limits<int>::max())));
    if (extended_ && offered_.eightBitMime && textHasEightBitBytes_)
        command += " BODY=8BITMIME";
    pipelined_ = extended_ && offered_.pipelining;
    if (pipelined_) {
        QList<QByteArray> commands{command};
        for (int i = 1; i <= message().MRcptToCount(); ++i)
            commands << "RCPT TO:" + PathText(message().RcptTo(i));
        commands << "DATA";
        sendCommands(commands);
    } else {
        sendCommand(command);
    }
    setState(MailSent);
}

// The text is opened for each transaction; with 8BITMIME offered it is read through once to see
// whether it needs BODY=8BITMIME, a chunk at a time.
bool OutboundSession::openText()
{
    textEnded_ = false;
    transmitter_ = TextTransmitter();
    textHasEightBitBytes_ = false;
    try {
        CMessage head(logs_);
        text_ = std::make_unique<QueueTextReader>(queue_, QueueFolder::OutBox,
                                                  QFile::encodeName(cnx_.CurrentOutFile), head);
        if (extended_ && offered_.eightBitMime) {
            while (!textHasEightBitBytes_ && !text_->atEnd())
                textHasEightBitBytes_ = hasEightBitBytes(text_->read(kTextChunk));
            text_->rewind();
        }
    } catch (const Fault& fault) {
        unreadable(fault.number(), fault.description());
        return false;
    }
    return true;
}

void OutboundSession::afterReset(const ServerReply& reply)
{
    if (reply.code != 250) {
        resetRefused(reply);
        return;
    }
    sendMailFrom(reply);
}

// The connection is no good for another message; this one has not been tried on it.
void OutboundSession::resetRefused(const ServerReply& reply)
{
    DeliveryOutcome outcome;
    outcome.kind = DeliveryOutcome::NotAttempted;
    outcome.reply = reply;
    outcome.description = reply.text().left(512);
    finish(outcome, reply.wellFormed());
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

// One RCPT after another (already on their way when pipelined); DATA once every recipient has had
// its reply and one was accepted.
void OutboundSession::sendNextRcpt()
{
    const int next = int(recipients_.size()) + 1;
    if (next <= message().MRcptToCount()) {
        if (!pipelined_)
            sendCommand("RCPT TO:" + PathText(message().RcptTo(next)));
        setState(LastRcptSent);
        return;
    }
    afterLastRecipient();
}

void OutboundSession::afterLastRecipient()
{
    for (const RecipientResult& result : recipients_) {
        if (result.verdict == RecipientResult::Accepted) {
            if (!pipelined_)
                sendCommand("DATA");
            setState(DataSent);
            if (milestone_)
                milestone_();
            return;
        }
    }
    if (pipelined_) {
        setState(DataUnwanted); // the server owes DATA its refusal
        return;
    }
    noRecipientAccepted({});
}

// Every recipient refused or deferred: the transaction is over, each with its own fate.
void OutboundSession::noRecipientAccepted(const ServerReply&)
{
    DeliveryOutcome outcome;
    outcome.kind = DeliveryOutcome::Transaction;
    outcome.recipients = recipients_;
    endTransaction(outcome);
}

// A server must refuse a pipelined DATA when it accepted no recipient. One that says 354 anyway
// now reads whatever comes as text, for nobody: the connection is dropped rather than ended with
// a dot, so that nothing can be taken as a message, nor any later command as text. The
// recipients keep the fates their RCPT replies gave them.
void OutboundSession::unwantedGoAhead(const ServerReply&)
{
    DeliveryOutcome outcome;
    outcome.kind = DeliveryOutcome::Transaction;
    outcome.recipients = recipients_;
    finish(outcome, Ending::Drop);
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
    pumpText();
    if (milestone_ && !finished_)
        milestone_();
}

void OutboundSession::pumpText()
{
    try {
        while (!textEnded_ && socket_.bytesToWrite() + socket_.encryptedBytesToWrite() < kSocketHighWater) {
            const QByteArray chunk = text_->read(kTextChunk);
            if (chunk.isEmpty()) {
                socket_.write(transmitter_.finish());
                textEnded_ = true;
                ++owed_;
                text_.reset();
            } else {
                socket_.write(transmitter_.encode(chunk));
            }
        }
    } catch (const Fault& fault) {
        unreadable(fault.number(), fault.description());
    }
}

// A file cut short or spoilt under the delivery: once part of the text is out, the connection is
// cut, so that the server never sees its end and keeps nothing.
void OutboundSession::unreadable(int errorNumber, const QString& description)
{
    DeliveryOutcome outcome;
    outcome.kind = DeliveryOutcome::Unreadable;
    outcome.errorNumber = errorNumber;
    outcome.description = description.toUtf8();
    text_.reset();
    if (cnx_.Status() == Writing)
        finish(outcome, Ending::Drop);
    else
        finish(outcome, Ending::Quit);
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
    endTransaction(outcome);
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
    endTransaction(outcome);
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

void OutboundSession::sendCommand(const QByteArray& command) { sendCommands({command}); }

void OutboundSession::sendCommands(const QList<QByteArray>& commands)
{
    QByteArray lines;
    for (const QByteArray& command : commands) {
        const QByteArray line = command + "\r\n";
        logs_.DbgAdd("<FONT COLOR='#0000FF'>Send to SMTPDISTANT[" + number(slot_) + "]: " + message().ID + " "
                     + line + "</FONT><BR>");
        lines += line;
        ++owed_;
    }
    socket_.write(lines);
}

void OutboundSession::fail(int errorNumber, const QByteArray& description, const ServerReply& reply,
                           DeliveryOutcome::Kind kind)
{
    logs_.DbgAdd("<FONT COLOR='#0000FF'>Error for SMTPDISTANT[" + number(slot_) + "]: " + message().ID + " "
                 + number(errorNumber) + ": " + description + "</FONT><BR>");
    DeliveryOutcome outcome;
    // Between two messages a failure is the reused connection's, not the message's.
    outcome.kind = cnx_.Status() == ResetSent ? DeliveryOutcome::NotAttempted : kind;
    outcome.errorNumber = errorNumber;
    outcome.description = description;
    outcome.reply = reply;
    outcome.tlsFailed = errorNumber == ErrTlsFailed && target_.exchanger;
    finish(outcome, false);
}

// Held only when the server owes nothing, has said nothing unasked and has the whole text: then
// the next message's RSET cannot be mistaken for anything of this one.
void OutboundSession::endTransaction(DeliveryOutcome outcome)
{
    const int32_t state = cnx_.Status();
    const bool inTransaction = state == MailSent || state == LastRcptSent || state == DataSent
        || state == DataUnwanted || state == Writing || state == Written;
    const bool textCutShort = state == Writing && !textEnded_;
    const bool clean = inTransaction && owed_ == 0 && !reader_.hasPartialReply() && !textCutShort
        && socket_.state() == QAbstractSocket::ConnectedState;
    // In the middle of the text a QUIT would be text too: the connection is cut instead.
    finish(std::move(outcome), clean ? Ending::Hold : textCutShort ? Ending::Drop : Ending::Quit);
}

bool OutboundSession::canTakeAnother() const
{
    // A connection that fell back to plain text after a failed handshake serves its own message
    // only: the next one tries TLS afresh.
    return held_ && !target_.clearOnly && socket_.state() == QAbstractSocket::ConnectedState
        && transactions_ < kMaxMessagesPerConnection && connectedFor_.isValid()
        && connectedFor_.elapsed() < std::chrono::milliseconds(kMaxConnectionAge).count();
}

void OutboundSession::takeNext(Done done)
{
    done_ = std::move(done);
    const bool usable = canTakeAnother() && !reader_.hasPartialReply() && socket_.bytesAvailable() == 0;
    held_ = false;
    finished_ = false;
    ++transactions_;
    recipients_.clear();
    cnx_.CurrentRcptTo = 0;
    pipelined_ = false;
    owed_ = 0;
    setState(ResetSent);
    if (!usable) {
        fail(ErrConnectionReset, "connection closed between messages");
        return;
    }
    logs_.MailLog(GMTDate(logs_.clock()) + head() + " reusing connection to " + target_.shownHost + " [" + ip_
                  + "]");
    armWatchdog(timeouts_.silence);
    sendCommand("RSET");
}

void OutboundSession::quit()
{
    if (!held_)
        return;
    held_ = false;
    close(true);
    deleteLater();
}

void OutboundSession::close(bool sayQuit)
{
    disconnect(&socket_, nullptr, this, nullptr);
    if (sayQuit && socket_.state() == QAbstractSocket::ConnectedState) {
        setState(Finished);
        sendCommand("QUIT");
        socket_.flush(); // through TLS too, before the slot lets the socket go
        socket_.disconnectFromHost(); // the reply to QUIT is not awaited
    } else {
        socket_.abort();
    }
}

void OutboundSession::finish(DeliveryOutcome outcome, Ending ending)
{
    if (finished_)
        return;
    finished_ = true;
    password_.clear();
    watchdog_.stop();
    text_.reset();
    outcome.host = target_.shownHost;
    outcome.ip = ip_;
    if (outcome.kind == DeliveryOutcome::NotAttempted) {
        logs_.MailLog(GMTDate(logs_.clock()) + head() + " reused connection to " + target_.shownHost + " [" + ip_
                      + "] ended (" + outcome.description + "), status=trying a new connection");
    }
    if (ending == Ending::Hold) {
        // The socket stays heard while held: what it does meanwhile shows in takeNext.
        held_ = true;
        setState(Held);
    } else {
        close(ending == Ending::Quit);
    }
    // The dispatcher decides after the events already pending, never inside a socket's signal.
    // A session that ends goes afterwards; the slot may already have handed its socket to the
    // next one. A held one may be given its next message from inside `done`.
    const bool held = ending == Ending::Hold;
    QMetaObject::invokeMethod(
        this,
        [this, outcome, held] {
            if (!held)
                deleteLater();
            const Done done = done_;
            done(outcome);
        },
        Qt::QueuedConnection);
}

} // namespace postiq
