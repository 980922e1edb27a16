#include "smtp_in/inbound_session.h"

#include <QTcpServer>
#include <QTcpSocket>
#include <chrono>
#include <algorithm>
#include <utility>

#include "config/settings.h"
#include "log/html.h"
#include "log/logs.h"
#include "log/version.h"
#include "log/dates.h"
#include "store/address.h"
#include "store/fresh_queue_name.h"
#include "store/message.h"
#include "platform/free_memory.h"
#include "platform/program_folder.h"

namespace postiq {

namespace {
const QByteArray kCrLf = "\r\n";
// How long a full table waits for the ends of clients that have just hung up.
constexpr std::chrono::milliseconds kFullTableGrace{50};
// Recipient indexes are 8-bit throughout the queue, so a message holds at most this many.
constexpr int kMostRecipients = 255;
// Held bytes from which a session counts as large for the memory handed back after it.
constexpr qsizetype kLargeBytes = 1024 * 1024;

template <int32_t S>
bool is(int32_t status) { return status == S; }
template <int32_t S>
bool isNot(int32_t status) { return status != S; }
constexpr const char* kAnyVerb = nullptr;

QByteArray number(int n) { return QByteArray::number(n); }

// The text before the first CR LF.
QByteArray firstLine(const QByteArray& text)
{
    const qsizetype end = text.indexOf(kCrLf);
    return end < 0 ? text : text.left(end);
}

// The piece that follows the first `separator`, up to the next one, as a split would give it;
// empty when the separator is missing.
QByteArray pieceAfter(const QByteArray& text, const QByteArray& separator)
{
    const qsizetype start = text.indexOf(separator);
    if (start < 0)
        return {};
    const QByteArray rest = text.mid(start + separator.size());
    const qsizetype next = rest.indexOf(separator);
    return next < 0 ? rest : rest.left(next);
}

// Trims spaces only: other blanks belong to the text.
QByteArray trimSpaces(const QByteArray& text)
{
    qsizetype begin = 0;
    qsizetype end = text.size();
    while (begin < end && text[begin] == ' ')
        ++begin;
    while (end > begin && text[end - 1] == ' ')
        --end;
    return text.mid(begin, end - begin);
}

// The last complete line of a unit that ends with CR LF.
QByteArray lastCompleteLine(const QByteArray& unit)
{
    const QByteArray body = unit.chopped(2);
    const qsizetype start = body.lastIndexOf(kCrLf);
    return start < 0 ? body : body.mid(start + 2);
}
} // namespace

// The command rules, tried in order; the first whose state and verb match is applied.
const InboundSession::Rule InboundSession::kRules[] = {
    // Status          verb      action
    {is<Greeted>,      "HELO",   &InboundSession::helo},
    {is<HeloDone>,     "MAIL",   &InboundSession::firstMail},
    {is<Queued>,       "MAIL",   &InboundSession::nextMail},
    {is<SenderOk>,     "RCPT",   &InboundSession::recipient},
    {is<SenderOk>,     "DATA",   &InboundSession::startData},
    {isNot<InData>,    "RSET",   &InboundSession::reset},
    {isNot<InData>,    "NOOP",   &InboundSession::noop},
    {isNot<InData>,    "QUIT",   &InboundSession::quit},
    {isNot<InData>,    kAnyVerb, &InboundSession::unrecognized},
    {is<InData>,       kAnyVerb, &InboundSession::content},
};

InboundSession::InboundSession(Logs& logs, const Settings& settings, ConnectionTables& tables,
                               QObject* parent)
    : QObject(parent), logs_(logs), settings_(settings), tables_(tables)
{
    connect(&tables_.SmtpListener(), &QTcpServer::newConnection, this,
            &InboundSession::Smtp_ConnectionRequest);
    fullTableGrace_.setSingleShot(true);
    fullTableGrace_.setInterval(kFullTableGrace);
    connect(&fullTableGrace_, &QTimer::timeout, this, &InboundSession::endFullTableGrace);
    returnMemory_.setSingleShot(true);
    returnMemory_.setInterval(100);
    connect(&returnMemory_, &QTimer::timeout, this, [] { ReturnFreeMemory(); });
    for (std::size_t n = 0; n < idleTimers_.size(); ++n) {
        idleTimers_[n].setSingleShot(true);
        connect(&idleTimers_[n], &QTimer::timeout, this, [this, n] { idleExpired(uint8_t(n)); });
    }
}

// ---- connection requests ----

void InboundSession::Smtp_ConnectionRequest()
{
    logs_.guarded("FRM:MAIN[Smtp_ConnectionRequest]", [this] {
        QTcpServer& listener = tables_.SmtpListener();
        while (listener.hasPendingConnections()) {
            // A burst of clients that hang up at once can fill every slot with connections whose
            // end the loop has not read yet: they come free within a turn or two, so a newcomer
            // is told to retry only when the table is still full a moment later.
            if (!tables_.HasFreeCnxIn() && !fullTableGrace_.isActive() && !graceOver_) {
                fullTableGrace_.start();
                return;
            }
            if (fullTableGrace_.isActive() && !tables_.HasFreeCnxIn())
                return; // the grace timer comes back for it
            acceptRequest(listener.nextPendingConnection());
        }
    });
}

void InboundSession::endFullTableGrace()
{
    graceOver_ = true;
    Smtp_ConnectionRequest();
    graceOver_ = false;
}

void InboundSession::acceptRequest(QTcpSocket* socket)
{
    const QByteArray host = socket->peerName().toUtf8();
    const QByteArray ip = PlainAddressText(socket->peerAddress());
    const std::optional<uint8_t> free = tables_.FindFreeCnxIn();
    if (!free) {
        refuseBusy(socket, host, ip);
        return;
    }
    const uint8_t n = *free;
    CConnexion& cnx = tables_.LoadCnxIn(n, socket);
    Peer& peer = peers_[n];
    peer = Peer{};
    peer.socket = socket;
    peer.host = host;
    peer.ip = ip;
    peer.localIp = PlainAddressText(socket->localAddress());

    if (!mayRelay(peer)) {
        mailLog(slotTag(n) + " REJECT Host " + ip + " relay: deny");
        logs_.DbgAdd("<FONT COLOR='#FF0000'><B>" + ip + ": DENY RELAY</B></FONT><BR>");
        socket->close();
        tables_.ReleaseSmtpLocal(n);
        return;
    }

    watch(n, socket);
    idleTimers_[n].start(idleLimit_);
    const QByteArray greeting = "220 Server Postiq " + AppVersion().toUtf8() + " on " + peer.localIp
        + " Ready (" + kProductWeb.host + ")" + kCrLf;
    mailLog(slotTag(n) + ": connect from " + host + " [" + ip + "]");
    logs_.DbgAdd("<FONT COLOR='#FF0000'><B>Demande de connexion Smtp local ...</B></FONT><BR>");
    logs_.DbgAdd("<FONT COLOR='#0000FF'>Send to Smtp local: " + greeting + "</FONT><BR>");
    cnx.setStatus(Greeted);
    socket->write(greeting);
}

// A full table never stalls the program: the newcomer is told to come back and closed.
void InboundSession::refuseBusy(QTcpSocket* socket, const QByteArray& host, const QByteArray& ip)
{
    mailLog(" Postiq/smtplocal: 421 busy, reject from " + host + " [" + ip + "]");
    connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    connect(socket, &QTcpSocket::errorOccurred, socket, &QObject::deleteLater);
    socket->write("421 Postiq busy, try again later" + kCrLf);
    socket->disconnectFromHost();
    if (socket->state() == QAbstractSocket::UnconnectedState)
        socket->deleteLater();
}

// This machine, through the loop-back or its own address, and the local network when relaying
// is switched on.
bool InboundSession::mayRelay(const Peer& peer) const
{
    const bool loopBack = peer.ip == "127.0.0.1";
    const bool localNetwork = settings_.ActiveSettings.Relay && peer.ip.left(8) == "192.168.";
    const bool sameMachine = peer.ip == peer.localIp;
    return loopBack || localNetwork || sameMachine;
}

// Every handler runs to completion and returns to the event loop. The end of a connection is
// queued, because a socket may report it from inside a call made by another handler; it then runs
// after that handler, and finds the slot as the handler left it.
void InboundSession::watch(uint8_t n, QTcpSocket* socket)
{
    const QPointer<QTcpSocket> guard(socket);
    connect(socket, &QTcpSocket::readyRead, this, [this, n, guard] { Smtp_DataArrival(n, guard); });
    connect(socket, &QTcpSocket::bytesWritten, this,
            [this, n, guard] { Smtp_SendComplete(n, guard); });
    connect(socket, &QTcpSocket::disconnected, this,
            [this, n, guard] { connectionLost("FRM:MAIN[Smtp_Close]", n, guard); }, Qt::QueuedConnection);
    connect(socket, &QTcpSocket::errorOccurred, this,
            [this, n, guard] { connectionLost("FRM:MAIN[Smtp_Error]", n, guard); }, Qt::QueuedConnection);
}

bool InboundSession::owns(uint8_t n, QTcpSocket* socket) const
{
    return socket && tables_.Smtp(n) == socket;
}

// ---- socket events of a slot ----

void InboundSession::Smtp_DataArrival(uint8_t n, QTcpSocket* socket)
{
    logs_.guarded("FRM:MAIN[Smtp_DataArrival]", [&] {
        // A session waiting for its commit reads nothing: what follows is answered after the 250.
        if (owns(n, socket) && tables_.CnxIn(n).Status() != Committing)
            readUnits(n, socket);
    });
}

// Everything pending is one arrival: a unit is what has come in up to a CR LF at its end.
void InboundSession::readUnits(uint8_t n, QTcpSocket* socket)
{
    const QByteArray bytes = socket->readAll();
    if (bytes.isEmpty() || peers_[n].cutOff)
        return;
    idleTimers_[n].start(idleLimit_);
    CConnexion& cnx = tables_.CnxIn(n);
    cnx.SmtpCommand += bytes;
    if (overLimit(n))
        return;
    peers_[n].large = peers_[n].large || cnx.Message.Data.size() + cnx.SmtpCommand.size() > kLargeBytes;
    if (cnx.SmtpCommand.size() < 2 || !cnx.SmtpCommand.endsWith(kCrLf))
        return;
    const QByteArray line = cnx.SmtpCommand;
    cnx.SmtpCommand.clear();
    handleUnit(n, line);
}

void InboundSession::handleUnit(uint8_t n, const QByteArray& line)
{
    const QByteArray tag = "Receive from Smtp local[" + number(n) + "]: ";
    if (logs_.debugWritten()) { // escaping a whole message body is not free
        logs_.DbgAdd(tag + "<I> ********** Message Corps du mail **********</I><BR>", DbgInbound);
        logs_.DbgAdd(tag + HtmlEscape(line), DbgInbound);
    }

    CConnexion& cnx = tables_.CnxIn(n);
    const QByteArray verb = GetResponse(line);
    Unit unit{n, cnx, line};
    for (const Rule& rule : kRules) {
        if (rule.state(cnx.Status()) && (rule.verb == kAnyVerb || verb == rule.verb)) {
            (this->*rule.action)(unit);
            return;
        }
    }
}

void InboundSession::Smtp_SendComplete(uint8_t n, QTcpSocket* socket)
{
    logs_.guarded("FRM:MAIN[Smtp_SendComplete]", [&] {
        if (!owns(n, socket) || socket->bytesToWrite() > 0)
            return;
        if (tables_.CnxIn(n).Status() == Quitting)
            closeAndRelease(n, socket);
    });
}

void InboundSession::closeAndRelease(uint8_t n, QTcpSocket* socket)
{
    // Our own close is not a lost connection.
    disconnect(socket, nullptr, this, nullptr);
    socket->close();
    logs_.DbgAdd("<FONT COLOR='#FF0000'><B>TCP local fermé</B></FONT><BR>");
    tables_.ReleaseSmtpLocal(n);
    slotReleased(n);
}

void InboundSession::slotReleased(uint8_t n)
{
    idleTimers_[n].stop();
    if (peers_[n].large)
        returnMemory_.start();
}

// A client that closes or whose socket fails frees its slot at once; an unfinished message is
// dropped.
void InboundSession::connectionLost(const char* site, uint8_t n, QTcpSocket* socket)
{
    logs_.guarded(site, [&] {
        if (!owns(n, socket))
            return;
        if (tables_.CnxIn(n).Status() == Committing) {
            peers_[n].lostWhileCommitting = true;
            return;
        }
        // What the client sent before it went away is still its request (a QUIT, the end of data).
        readUnits(n, socket);
        endLostConnection(n, socket);
    });
}

void InboundSession::endLostConnection(uint8_t n, QTcpSocket* socket)
{
    if (tables_.CnxIn(n).Status() == Quitting) {
        closeAndRelease(n, socket); // the goodbye went out as far as it could
        return;
    }
    const Peer& peer = peers_[n];
    if (!peer.cutOff) // a client cut off was logged when it was
        mailLog(slotTag(n) + ": lost connection from " + peer.host + " [" + peer.ip + "]");
    disconnect(socket, nullptr, this, nullptr);
    tables_.ReleaseSmtpLocal(n);
    slotReleased(n);
}

// ---- limits ----

// Checked on every arrival, before the bytes are handled, so that what one client makes the relay
// hold stays below the limit plus one arrival.
bool InboundSession::overLimit(uint8_t n)
{
    CConnexion& cnx = tables_.CnxIn(n);
    if (cnx.Status() == InData) {
        if (cnx.Message.Data.size() + cnx.SmtpCommand.size() <= kMostMessageBytes)
            return false;
        cutOff(n, "552 Message too big, the limit is " + number(int(kMostMessageBytes / (1024 * 1024)))
                   + " MB" + kCrLf,
               ": 552 message too big, cut off");
        return true;
    }
    if (cnx.SmtpCommand.size() <= kMostCommandBytes)
        return false;
    cutOff(n, "500 Line too long" + kCrLf, ": 500 line too long, cut off");
    return true;
}

// The client is told why, then closed once the reply is out; the unfinished message and anything
// it still sends are dropped at once, so that its memory goes back before the connection ends.
void InboundSession::cutOff(uint8_t n, const QByteArray& reply, const QByteArray& logText)
{
    CConnexion& cnx = tables_.CnxIn(n);
    Peer& peer = peers_[n];
    mailLog(slotTag(n) + logText + " from " + peer.host + " [" + peer.ip + "]");
    peer.cutOff = true;
    cnx.SmtpCommand = QByteArray();
    cnx.Message.Data = QByteArray();
    cnx.setStatus(Quitting);
    this->reply(n, reply);
    // A client that does not take the reply is closed on the next expiry.
    idleTimers_[n].start(idleLimit_);
}

void InboundSession::idleExpired(uint8_t n)
{
    logs_.guarded("FRM:MAIN[Smtp_Timeout]", [&] {
        QTcpSocket* socket = peers_[n].socket;
        if (!owns(n, socket))
            return;
        if (tables_.CnxIn(n).Status() == Committing) {
            idleTimers_[n].start(idleLimit_); // waiting for us, not idle: its 250 is on the way
            return;
        }
        if (peers_[n].cutOff) {
            closeAndRelease(n, socket);
            return;
        }
        const qint64 seconds = std::chrono::duration_cast<std::chrono::seconds>(idleLimit_).count();
        cutOff(n, "421 Postiq idle time-out, closing connection" + kCrLf,
               ": idle time-out after " + QByteArray::number(seconds) + " s");
    });
}

// ---- the command rules ----

void InboundSession::helo(Unit& unit)
{
    // The line without "HELO " in front and CR LF behind.
    const QByteArray name = unit.line.mid(5, std::max<qsizetype>(0, unit.line.size() - 7));
    unit.cnx.setStatus(HeloDone);
    reply(unit.n, "250 Hello " + name + kCrLf);
}

void InboundSession::firstMail(Unit& unit)
{
    const Peer& peer = peers_[unit.n];
    mailLog(slotTag(unit.n) + ": client=" + peer.host + " [" + peer.ip + "]");
    sender(unit);
}

void InboundSession::nextMail(Unit& unit)
{
    unit.cnx.Message.MClear();
    sender(unit);
}

void InboundSession::sender(Unit& unit)
{
    const QByteArray raw = pieceAfter(firstLine(unit.line.toLower()), "mail from:");
    unit.cnx.Message.From = trimSpaces(raw);
    if (CheckEmail(unit.cnx.Message.From)) {
        unit.cnx.setStatus(SenderOk);
        reply(unit.n, "250 sender is " + raw + " sender ok" + kCrLf);
    } else {
        reply(unit.n, "504 sender is " + raw + " sender is not a valid email" + kCrLf);
    }
}

void InboundSession::recipient(Unit& unit)
{
    const QByteArray address = trimSpaces(pieceAfter(firstLine(unit.line.toLower()), "rcpt to:"));
    if (!CheckEmail(address)) {
        reply(unit.n, "504 recipient is " + address + " recipient is not a valid email" + kCrLf);
        return;
    }
    CMessage& message = unit.cnx.Message;
    if (message.MRcptToCount() >= kMostRecipients) {
        reply(unit.n, "452 Too many recipients" + kCrLf);
        return;
    }
    message.AddRcptTo(address);
    unit.cnx.setStatus(SenderOk);
    reply(unit.n, "250 recipient is " + address + " recipient ok" + kCrLf);
}

void InboundSession::startData(Unit& unit)
{
    unit.cnx.Message.Data.clear();
    unit.cnx.setStatus(InData);
    reply(unit.n, "354 OK End with <CRLF>.<CRLF>" + kCrLf);
}

void InboundSession::reset(Unit& unit)
{
    unit.cnx.Message.MClear();
    unit.cnx.setStatus(HeloDone);
    reply(unit.n, "250 Reset Ok." + kCrLf, true);
}

void InboundSession::noop(Unit& unit) { reply(unit.n, "250 Noop Ok." + kCrLf, true); }

void InboundSession::quit(Unit& unit)
{
    const Peer& peer = peers_[unit.n];
    mailLog(slotTag(unit.n) + ": disconnect from " + peer.host + " [" + peer.ip + "]");
    unit.cnx.setStatus(Quitting);
    reply(unit.n, "221 Postiq Goodbye" + kCrLf);
}

void InboundSession::unrecognized(Unit& unit)
{
    mailLog(slotTag(unit.n) + ": 500 Unrecognized command");
    reply(unit.n, "500 Unrecognized command." + kCrLf);
}

// Contents are kept byte for byte; only a unit whose last line is a lone dot ends the message.
void InboundSession::content(Unit& unit)
{
    if (lastCompleteLine(unit.line) != ".") {
        unit.cnx.Message.Data += unit.line;
        return;
    }
    endOfData(unit);
}

// The 250 promises that the message is on disk: the files are written at once, and the reply
// waits for the next flush round, which covers every session whose data ended meanwhile.
void InboundSession::endOfData(Unit& unit)
{
    CMessage& message = unit.cnx.Message;
    unit.cnx.setStatus(Committing);
    message.Data += unit.line.chopped(3); // without the dot line
    const QByteArray firstRecipient = message.MRcptToCount() >= 1 ? message.RcptTo(1) : QByteArray();

    message.TxtEng = kCrLf + "==> DO NOT ALTER THIS FILE !" + kCrLf;
    message.TxtFr = kCrLf + "==> NE PAS MODIFIER CE FICHIER !" + kCrLf;
    message.Essai = 0;
    const QString outBox = SubfolderPath(logs_.folder(), QStringLiteral("OutBox"));
    QList<StagedFile> files;
    if (message.MRcptToCount() > 1) {
        ParseRcptTo(logs_, message, outBox, &files);
    } else {
        message.ID = FreshQueueName(logs_);
        files.append(message.MStage(outBox + '/' + QString::fromLatin1(message.ID)));
    }
    // The slot may be released and even reused before the round is over: the socket tells.
    const QPointer<QTcpSocket> socket = peers_[unit.n].socket;
    const uint8_t n = unit.n;
    commits_.commit(std::move(files), [this, n, socket, firstRecipient](bool stored, const QString& error) {
        logs_.guarded("FRM:MAIN[Smtp_DataArrival]",
                      [&] { committed(n, socket, firstRecipient, stored, error); });
    });
}

// A client gone meanwhile changes nothing for the message: stored is stored, and only the reply
// has nobody to go to.
void InboundSession::committed(uint8_t n, QTcpSocket* socket, const QByteArray& firstRecipient,
                               bool stored, const QString& error)
{
    const bool waiting = owns(n, socket) && tables_.CnxIn(n).Status() == Committing;
    QByteArray answer;
    if (stored) {
        // Two spaces before "to=": the established layout of this mail-log line.
        mailLog(slotTag(n) + ":  to=" + firstRecipient + " status=outbox");
        answer = "250 Message accepted for delivery" + kCrLf;
    } else {
        logs_.ErrorLog(GMTDate(logs_.clock()) + slotTag(n) + ": message not stored: " + error.toUtf8());
        answer = "451 Requested action aborted: local error in processing" + kCrLf;
    }
    logReply(n, answer);
    if (!waiting)
        return;
    tables_.CnxIn(n).setStatus(Queued);
    send(n, answer);
    if (std::exchange(peers_[n].lostWhileCommitting, false)) {
        connectionLost("FRM:MAIN[Smtp_Close]", n, socket);
        return;
    }
    // What the client sent while it waited (a QUIT, the next MAIL) is answered now.
    if (socket->bytesAvailable() > 0)
        readUnits(n, socket);
}

// ---- replies and logs ----

void InboundSession::logReply(uint8_t n, const QByteArray& reply, bool bold)
{
    const QByteArray text = "Send to Smtp local[" + number(n) + "]: " + reply;
    logs_.DbgAdd(bold ? "<FONT COLOR='#0000FF'><B>" + text + "</B></FONT><BR>"
                      : "<FONT COLOR='#0000FF'>" + text + "</FONT><BR>");
}

void InboundSession::send(uint8_t n, const QByteArray& reply)
{
    if (QTcpSocket* socket = peers_[n].socket; owns(n, socket))
        socket->write(reply);
}

void InboundSession::reply(uint8_t n, const QByteArray& reply, bool bold)
{
    logReply(n, reply, bold);
    send(n, reply);
}

void InboundSession::mailLog(const QByteArray& text) { logs_.MailLog(GMTDate(logs_.clock()) + text); }

QByteArray InboundSession::slotTag(uint8_t n) const
{
    return " Postiq/smtplocal[" + number(n) + "]";
}

} // namespace postiq
