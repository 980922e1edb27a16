#include "smtp_in/inbound_session.h"

#include <QPointer>
#include <QTcpSocket>
#include <algorithm>
#include <utility>

#include "config/settings.h"
#include "log/dates.h"
#include "log/html.h"
#include "log/logs.h"
#include "log/version.h"
#include "smtp_in/connexion.h"
#include "smtp_in/envelope_commands.h"
#include "smtp_in/inbound_server.h"
#include "store/address.h"
#include "store/domain_parts.h"

namespace postiq {

namespace {
const QByteArray kCrLf = "\r\n";
// Recipient indexes are 8-bit throughout the queue, so a message holds at most this many.
constexpr int kMostRecipients = 255;
// Held bytes from which a session counts as large for the memory handed back after it.
constexpr qsizetype kLargeBytes = 1024 * 1024;
// How long, and how much, a client that was cut off may still send (dropped) after its reply:
// closing on unread bytes resets the connection, and the client could lose the reply that says
// why; a client that floods on is closed all the same.
constexpr std::chrono::milliseconds kCutOffGrace{1000};
constexpr qsizetype kMostDroppedBytes = 16 * 1024 * 1024;

constexpr uint32_t bit(InboundState state) { return 1u << state; }
// Where commands are read: everywhere but in a message, while it is committed and after QUIT.
constexpr uint32_t kOutsideData = bit(Greeted) | bit(HeloDone) | bit(SenderOk) | bit(Queued);
constexpr const char* kAnyVerb = nullptr;

QByteArray number(int n) { return QByteArray::number(n); }

void logReply(Logs& logs, uint8_t n, const QByteArray& reply, bool bold)
{
    const QByteArray text = "Send to Smtp local[" + number(n) + "]: " + reply;
    logs.DbgAdd(bold ? "<FONT COLOR='#0000FF'><B>" + text + "</B></FONT><BR>"
                     : "<FONT COLOR='#0000FF'>" + text + "</FONT><BR>");
}

// Whatever made the write fail (no space, a quota, an I/O error), the client hears that the relay
// cannot store mail for now: a 4xx it retries, on this session or a later one.
QByteArray NotStoredAnswer(Logs& logs, uint8_t n, const QString& error)
{
    logs.ErrorLog(GMTDate(logs.clock()) + " Postiq/smtplocal[" + number(n) + "]: message not stored: "
                  + error.toUtf8());
    return "452 Insufficient system storage" + kCrLf;
}
} // namespace

// The command rules, tried in order; the first whose verb and state match is applied. In a message
// no command is read: text lines go to the message up to the lone dot (readText).
const InboundSession::Command InboundSession::kCommands[] = {
    // verb     states          handler
    {"HELO",   kOutsideData,   &InboundSession::helo},
    {"EHLO",   kOutsideData,   &InboundSession::ehlo},
    {"MAIL",   bit(HeloDone),  &InboundSession::firstMail},
    {"MAIL",   bit(Queued),    &InboundSession::nextMail},
    {"RCPT",   bit(SenderOk),  &InboundSession::recipient},
    {"DATA",   bit(SenderOk),  &InboundSession::startData},
    {"RSET",   kOutsideData,   &InboundSession::reset},
    {"NOOP",   kOutsideData,   &InboundSession::noop},
    {"QUIT",   kOutsideData,   &InboundSession::quit},
    {kAnyVerb, kOutsideData,   &InboundSession::unrecognized},
};

InboundSession::InboundSession(InboundServer& server, uint8_t n, QTcpSocket* socket)
    : QObject(&server), server_(server), logs_(server.logs()), n_(n),
      row_(server.tables().CnxIn(n)), socket_(socket), message_(server.logs())
{
    socket_->setParent(this);
    socket_->setReadBufferSize(kMostArrivalBytes);
    peer_.host = socket_->peerName().toUtf8();
    peer_.ip = PlainAddressText(socket_->peerAddress());
    localIp_ = PlainAddressText(socket_->localAddress());
    server.tables().LoadCnxIn(n, peer_.host.isEmpty() ? peer_.ip : peer_.host, this);
    idle_.setSingleShot(true);
    connect(&idle_, &QTimer::timeout, this, &InboundSession::idleExpired);
}

// This machine, through the loop-back or its own address, and the local network when relaying
// is switched on.
bool InboundSession::mayRelay() const
{
    const bool loopBack = peer_.ip == "127.0.0.1";
    const bool localNetwork = server_.settings().ActiveSettings.Relay && peer_.ip.left(8) == "192.168.";
    const bool sameMachine = peer_.ip == localIp_;
    return loopBack || localNetwork || sameMachine;
}

void InboundSession::start()
{
    if (!mayRelay()) {
        mailLog(slotTag() + " REJECT Host " + peer_.ip + " relay: deny");
        logs_.DbgAdd("<FONT COLOR='#FF0000'><B>" + peer_.ip + ": DENY RELAY</B></FONT><BR>");
        socket_->close();
        finish();
        return;
    }
    // Every handler runs to completion. The end of a connection is queued, because a socket may
    // report it from inside a call made by a handler; it then runs after that handler.
    connect(socket_, &QTcpSocket::readyRead, this,
            [this] { logs_.guarded("FRM:MAIN[Smtp_DataArrival]", [this] { dataArrived(); }); });
    connect(socket_, &QTcpSocket::bytesWritten, this,
            [this] { logs_.guarded("FRM:MAIN[Smtp_SendComplete]", [this] { sendComplete(); }); });
    connect(socket_, &QTcpSocket::disconnected, this, [this] { connectionLost("FRM:MAIN[Smtp_Close]"); },
            Qt::QueuedConnection);
    connect(socket_, &QTcpSocket::errorOccurred, this, [this] { connectionLost("FRM:MAIN[Smtp_Error]"); },
            Qt::QueuedConnection);
    idle_.start(server_.idleLimit());
    const QByteArray greeting = "220 Server Postiq " + AppVersion().toUtf8() + " on " + localIp_ + " Ready ("
        + kProductWeb.host + ")" + kCrLf;
    mailLog(slotTag() + ": connect from " + peer_.host + " [" + peer_.ip + "]");
    logs_.DbgAdd("<FONT COLOR='#FF0000'><B>Demande de connexion Smtp local ...</B></FONT><BR>");
    logs_.DbgAdd("<FONT COLOR='#0000FF'>Send to Smtp local: " + greeting + "</FONT><BR>");
    setState(Greeted);
    socket_->write(greeting);
}

void InboundSession::setState(InboundState state)
{
    state_ = state;
    row_.setStatus(state);
}

// ---- socket events ----

// Everything pending is read at once; a session waiting for its commit reads nothing, and what
// follows is answered after its 250.
void InboundSession::dataArrived()
{
    if (finished_ || state_ == Committing)
        return;
    const QByteArray bytes = socket_->readAll();
    if (cutOff_) {
        dropped_ += bytes.size();
        if (dropped_ > kMostDroppedBytes)
            closeAndFinish();
        return;
    }
    if (bytes.isEmpty())
        return;
    idle_.start(server_.idleLimit());
    if (logs_.debugWritten()) { // escaping a whole message body is not free
        const QByteArray tag = "Receive from Smtp local[" + number(n_) + "]: ";
        logs_.DbgAdd(tag + "<I> ********** Message Corps du mail **********</I><BR>", DbgInbound);
        logs_.DbgAdd(tag + HtmlEscape(bytes), DbgInbound);
    }
    reader_.append(bytes);
    large_ = large_ || textBytes_ + reader_.held() > kLargeBytes;
    serve();
}

void InboundSession::sendComplete()
{
    if (finished_ || socket_->bytesToWrite() > 0 || state_ != Quitting)
        return;
    if (cutOff_)
        idle_.start(std::min(kCutOffGrace, server_.idleLimit())); // closed when it expires
    else
        closeAndFinish();
}

// A client that closes or whose socket fails frees its slot at once; an unfinished message is
// dropped, a finished one is stored.
void InboundSession::connectionLost(const char* site)
{
    logs_.guarded(site, [&] {
        if (finished_)
            return;
        dataArrived(); // what the client sent before it went is still its request
        if (finished_)
            return;
        if (state_ == Committing) {
            lostWhileCommitting_ = true;
            return;
        }
        endLostConnection();
    });
}

void InboundSession::endLostConnection()
{
    if (state_ == Quitting) {
        closeAndFinish(); // the goodbye went out as far as it could
        return;
    }
    if (!cutOff_) // a client cut off was logged when it was
        mailLog(slotTag() + ": lost connection from " + peer_.host + " [" + peer_.ip + "]");
    finish();
}

void InboundSession::idleExpired()
{
    logs_.guarded("FRM:MAIN[Smtp_Timeout]", [&] {
        if (finished_)
            return;
        if (state_ == Committing) {
            idle_.start(server_.idleLimit()); // waiting for us, not idle: its 250 is on the way
            return;
        }
        if (cutOff_) {
            closeAndFinish();
            return;
        }
        const qint64 seconds = std::chrono::duration_cast<std::chrono::seconds>(server_.idleLimit()).count();
        cutOff("421 Postiq idle time-out, closing connection" + kCrLf,
               ": idle time-out after " + QByteArray::number(seconds) + " s");
    });
}

void InboundSession::closeAndFinish()
{
    disconnect(socket_, nullptr, this, nullptr); // our own close is not a lost connection
    socket_->close();
    logs_.DbgAdd("<FONT COLOR='#FF0000'><B>TCP local fermé</B></FONT><BR>");
    finish();
}

// The slot is free again and the session goes, its socket with it.
void InboundSession::finish()
{
    finished_ = true;
    idle_.stop();
    writer_.reset(); // an unfinished message leaves nothing
    disconnect(socket_, nullptr, this, nullptr);
    server_.tables().ReleaseSmtpLocal(n_);
    server_.sessionEnded(large_);
    deleteLater();
}

// ---- lines ----

void InboundSession::serve()
{
    while (!finished_ && !cutOff_) {
        if (state_ == InData) {
            if (!readText())
                break;
            continue;
        }
        if (!(bit(state_) & kOutsideData))
            break; // committing, or quitting
        const std::optional<QByteArray> line = reader_.nextCommand();
        if (!line)
            break;
        if (line->size() > kMostCommandBytes) {
            cutOff("500 Line too long" + kCrLf, ": 500 line too long, cut off");
            return;
        }
        command(*line);
    }
    if (!finished_ && !cutOff_)
        overLimit();
}

void InboundSession::command(const QByteArray& line)
{
    const QByteArray verb = GetResponse(line);
    for (const Command& row : kCommands) {
        if ((row.states & bit(state_)) && (row.verb == kAnyVerb || verb == row.verb)) {
            (this->*row.handler)(line);
            return;
        }
    }
}

// The message as the client wrote it: a leading dot that doubles another is dropped, and every
// line ends with CR LF, however it ended on the wire. Only CR LF "." CR LF ends the text. Each line
// goes to the message's file as it comes.
bool InboundSession::readText()
{
    while (std::optional<LineReader::TextLine> line = reader_.nextTextLine()) {
        const bool lineStart = !midLine_;
        if (lineStart && textLineStart_ && line->crLf && line->text == ".") {
            endOfData();
            return true;
        }
        QByteArray& text = line->text;
        if (lineStart && text.startsWith(".."))
            text.remove(0, 1);
        if (line->ended)
            text += kCrLf;
        textBytes_ += text.size();
        writeText(text);
        midLine_ = !line->ended;
        textLineStart_ = line->ended && line->crLf;
        if (textBytes_ > kMostMessageBytes)
            return !overLimit();
    }
    return false;
}

// The file is made as soon as the client may send its text. The Received header goes first when
// the message makes one file; a message for several domains gets one in each file at its end.
void InboundSession::openMessageFile()
{
    message_.Essai = 0;
    receivedDate_ = Rfc5322Date(logs_.clock());
    storeError_.clear();
    try {
        writer_ = server_.queue().open(message_);
        if (EnvelopesByDomain(message_).size() == 1)
            writer_->append(receivedHeader(writer_->name()));
    } catch (const Fault& fault) {
        cannotStore(fault);
    }
}

void InboundSession::writeText(const QByteArray& text)
{
    if (!writer_)
        return;
    try {
        writer_->append(text);
    } catch (const Fault& fault) {
        cannotStore(fault);
    }
}

// A full disk (or any failed write) refuses this message, not the relay: what was written goes at
// once, the rest of the text is read and dropped, and its end is answered 452.
void InboundSession::cannotStore(const Fault& fault)
{
    writer_.reset();
    storeError_ = fault.description();
}

QByteArray InboundSession::receivedHeader(const QByteArray& id) const
{
    return ReceivedHeader(peer_, server_.settings().LocalHostName.toUtf8(), id, receivedDate_);
}

// ---- limits ----

// Checked whenever lines have been taken, so that what one client makes the relay hold stays
// below the limit plus one arrival.
bool InboundSession::overLimit()
{
    if (state_ == InData) {
        if (textBytes_ + reader_.held() <= kMostMessageBytes)
            return false;
        cutOff("552 Message too big, the limit is " + number(int(kMostMessageBytes / (1024 * 1024))) + " MB"
                   + kCrLf,
               ": 552 message too big, cut off");
        return true;
    }
    if (reader_.held() <= kMostCommandBytes)
        return false;
    cutOff("500 Line too long" + kCrLf, ": 500 line too long, cut off");
    return true;
}

// The client is told why, then closed once the reply is out; the unfinished message and anything
// it still sends are dropped at once, so that its memory goes back before the connection ends.
void InboundSession::cutOff(const QByteArray& reply, const QByteArray& logText)
{
    mailLog(slotTag() + logText + " from " + peer_.host + " [" + peer_.ip + "]");
    cutOff_ = true;
    reader_.clear();
    writer_.reset();
    setState(Quitting);
    this->reply(reply);
    idle_.start(server_.idleLimit()); // a client that does not take the reply is closed on expiry
}

// ---- the command rules ----

void InboundSession::helo(const QByteArray& line) { greet(line, false); }
void InboundSession::ehlo(const QByteArray& line) { greet(line, true); }

// Either greeting, at any time outside a message, starts afresh as RSET does.
void InboundSession::greet(const QByteArray& line, bool esmtp)
{
    const QByteArray name = line.mid(5); // the line without "HELO " or "EHLO " in front
    message_.MClear();
    peer_.heloName = name;
    peer_.esmtp = esmtp;
    setState(HeloDone);
    if (!esmtp) {
        reply("250 Hello " + name + kCrLf);
        return;
    }
    reply("250-Hello " + name + kCrLf + "250-PIPELINING" + kCrLf + "250-8BITMIME" + kCrLf + "250 SIZE "
          + QByteArray::number(kMostMessageBytes) + kCrLf);
}

void InboundSession::firstMail(const QByteArray& line)
{
    mailLog(slotTag() + ": client=" + peer_.host + " [" + peer_.ip + "]");
    sender(line);
}

void InboundSession::nextMail(const QByteArray& line)
{
    message_.MClear();
    sender(line);
}

// The null sender "<>" is valid: bounces and automatic replies use it.
void InboundSession::sender(const QByteArray& line)
{
    const MailFrom mail = ParseMailFrom(line.toLower());
    message_.From = mail.address;
    if (mail.address != "<>" && !CheckEmail(mail.address)) {
        reply("504 sender is " + mail.echo + " sender is not a valid email" + kCrLf);
        return;
    }
    switch (CheckMailParameters(mail.parameters, kMostMessageBytes)) {
    case MailParameters::TooLarge:
        reply("552 Message size exceeds fixed maximum message size" + kCrLf);
        return;
    case MailParameters::Unsupported:
        reply("555 Unsupported parameter" + kCrLf);
        return;
    case MailParameters::Accepted:
        break;
    }
    setState(SenderOk);
    reply("250 sender is " + mail.echo + " sender ok" + kCrLf);
}

void InboundSession::recipient(const QByteArray& line)
{
    const QByteArray address = ParseRcptToAddress(line.toLower());
    if (!CheckEmail(address)) {
        reply("504 recipient is " + address + " recipient is not a valid email" + kCrLf);
        return;
    }
    if (message_.MRcptToCount() >= kMostRecipients) {
        reply("452 Too many recipients" + kCrLf);
        return;
    }
    message_.AddRcptTo(address);
    setState(SenderOk);
    reply("250 recipient is " + address + " recipient ok" + kCrLf);
}

// A pipelining client sends its text whatever the answers were: without a recipient the state
// stays, and the text then gets 500 line by line instead of being stored.
void InboundSession::startData(const QByteArray&)
{
    if (message_.MRcptToCount() == 0) {
        reply("554 No valid recipients" + kCrLf);
        return;
    }
    textLineStart_ = true;
    midLine_ = false;
    textBytes_ = 0;
    setState(InData);
    reply("354 OK End with <CRLF>.<CRLF>" + kCrLf);
    openMessageFile();
}

void InboundSession::reset(const QByteArray&)
{
    message_.MClear();
    setState(HeloDone);
    reply("250 Reset Ok." + kCrLf, true);
}

void InboundSession::noop(const QByteArray&) { reply("250 Noop Ok." + kCrLf, true); }

void InboundSession::quit(const QByteArray&)
{
    mailLog(slotTag() + ": disconnect from " + peer_.host + " [" + peer_.ip + "]");
    setState(Quitting);
    reply("221 Postiq Goodbye" + kCrLf);
}

void InboundSession::unrecognized(const QByteArray&)
{
    mailLog(slotTag() + ": 500 Unrecognized command");
    reply("500 Unrecognized command." + kCrLf);
}

// ---- the end of a message ----

// The 250 promises that the message is on disk: its files are completed at once, and the reply
// waits for the next flush round, which covers every session whose data ended meanwhile.
void InboundSession::endOfData()
{
    setState(Committing);
    const QByteArray firstRecipient = message_.MRcptToCount() >= 1 ? message_.RcptTo(1) : QByteArray();
    QByteArrayList names;
    auto parts = std::make_shared<std::vector<std::unique_ptr<QueueWriter>>>();
    QList<StagedFile> files;
    try {
        files = stageMessage(names, *parts);
    } catch (const Fault& fault) {
        // Nothing of the message stays, and the client may try again on the same session.
        writer_.reset();
        parts->clear();
        notStored(fault.description());
        return;
    }
    row_.Message.ID = names.value(0);

    // The session may be gone before the round is over: the message is stored all the same, and
    // only the reply has nobody to go to.
    Logs& logs = logs_;
    Queue& queue = server_.queue();
    const uint8_t n = n_;
    const QPointer<InboundSession> self(this);
    server_.commitQueue().commit(std::move(files), [&logs, &queue, n, self, firstRecipient, names,
                                                    parts](bool stored, const QString& error) {
        logs.guarded("FRM:MAIN[Smtp_DataArrival]", [&] {
            const QByteArray tag = " Postiq/smtplocal[" + number(n) + "]";
            QByteArray answer;
            if (stored) {
                for (const QByteArray& name : names)
                    queue.announce(QueueFolder::OutBox, name, QueueChange::Added);
                // Two spaces before "to=": the established layout of this mail-log line.
                logs.MailLog(GMTDate(logs.clock()) + tag + ":  to=" + firstRecipient + " status=outbox");
                answer = "250 Message accepted for delivery" + kCrLf;
            } else {
                answer = NotStoredAnswer(logs, n, error);
            }
            logReply(logs, n, answer, false);
            if (self)
                self->committed(answer);
        });
    });
}

// One file is the streamed one itself; a message for several domains is copied from it into one
// file per domain, each under a Received header that names it.
QList<StagedFile> InboundSession::stageMessage(QByteArrayList& names,
                                               std::vector<std::unique_ptr<QueueWriter>>& parts)
{
    if (!writer_)
        throw QueueFault(ErrAccessDenied, storeError_);
    const QList<CMessage> envelopes = EnvelopesByDomain(message_);
    if (envelopes.size() == 1) {
        names.append(writer_->name());
        return server_.queue().stageWritten(std::move(writer_), message_);
    }
    parts = WriteDomainParts(server_.queue(), *writer_, envelopes,
                             [this](const QByteArray& id) { return receivedHeader(id); });
    writer_.reset();
    QList<StagedFile> files;
    for (const std::unique_ptr<QueueWriter>& part : parts) {
        names.append(part->name());
        files.append(part->staged());
    }
    return files;
}

// The message could not be written at the end of its data: answered in the next turn of the loop,
// as a commit is, so that the reply order and the state rules stay those of a stored message.
void InboundSession::notStored(const QString& error)
{
    const QByteArray answer = NotStoredAnswer(logs_, n_, error);
    logReply(logs_, n_, answer, false);
    const QPointer<InboundSession> self(this);
    QMetaObject::invokeMethod(this, [self, answer] {
        if (self)
            self->committed(answer);
    }, Qt::QueuedConnection);
}

void InboundSession::committed(const QByteArray& answer)
{
    if (finished_ || state_ != Committing)
        return;
    setState(Queued);
    socket_->write(answer);
    if (std::exchange(lostWhileCommitting_, false)) {
        connectionLost("FRM:MAIN[Smtp_Close]");
        return;
    }
    // What the client sent behind the dot or while it waited (a QUIT, the next MAIL) comes now.
    serve();
    if (!finished_ && socket_->bytesAvailable() > 0)
        dataArrived();
}

// ---- replies and logs ----

void InboundSession::reply(const QByteArray& text, bool bold)
{
    logReply(logs_, n_, text, bold);
    socket_->write(text);
}

void InboundSession::mailLog(const QByteArray& text) { logs_.MailLog(GMTDate(logs_.clock()) + text); }

QByteArray InboundSession::slotTag() const { return " Postiq/smtplocal[" + number(n_) + "]"; }

} // namespace postiq
