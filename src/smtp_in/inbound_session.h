#pragma once

#include <QByteArray>
#include <QObject>
#include <QTimer>
#include <chrono>
#include <cstdint>
#include <memory>

#include "smtp_in/line_reader.h"
#include "smtp_in/received_header.h"
#include "store/message.h"
#include "store/queue.h"

class QTcpSocket;

namespace postiq {

class CConnexion;
class InboundServer;

// Protocol states of an inbound session; its slot shows them (0 is a free slot).
enum InboundState : int32_t {
    Greeted = 4,    // greeting sent, waiting for HELO or EHLO
    HeloDone = 5,   // greeted (or reset), waiting for MAIL
    SenderOk = 6,   // sender accepted; recipients may follow; DATA once there is one
    InData = 8,     // everything received is message text
    Committing = 9, // message written, waiting for the disk before its 250; the client waits
    Queued = 10,    // message stored; another MAIL may follow
    Quitting = 12   // QUIT answered; close once the reply is out
};

// One inbound SMTP connection from a mail program, from its connection request to its close. It
// owns its socket, its line reader, the message being received (its text on its way to disk, see
// QueueWriter), its state and its idle timer;
// when the connection ends it frees its slot and goes, and nothing else refers to it. Commands
// are read one line at a time and answered in order, so several in one packet (pipelining) are
// served like commands sent one by one.
class InboundSession : public QObject {
    Q_OBJECT
public:
    // Limits that keep one client from stopping or starving the relay. A command line, or what
    // has come of one, may not grow past kMostCommandBytes, a message past kMostMessageBytes: the
    // client is told so and cut off before its bytes are held or written any longer.
    static constexpr qsizetype kMostCommandBytes = 1024 * 1024;
    static constexpr qsizetype kMostMessageBytes = 64 * 1024 * 1024;
    // What the socket takes from the system at a time: a message's text goes to disk as it comes,
    // so a session holds little more than this whatever the message's size.
    static constexpr qint64 kMostArrivalBytes = 64 * 1024;
    // A session that sends nothing for this long is closed, so that idle clients cannot hold
    // every slot.
    static constexpr std::chrono::milliseconds kIdleLimit = std::chrono::minutes(5);

    // Takes IN slot n for an accepted connection; the session owns the socket from here on.
    InboundSession(InboundServer& server, uint8_t n, QTcpSocket* socket);

    // The relay decision, then the greeting or the refusal.
    void start();

private:
    using Handler = void (InboundSession::*)(const QByteArray& line);
    struct Command {
        const char* verb; // nullptr: any other verb
        uint32_t states;  // the states in which the row applies, one bit each
        Handler handler;
    };
    static const Command kCommands[];

    bool mayRelay() const;
    void setState(InboundState state);

    // Socket events.
    void dataArrived();
    void sendComplete();
    void connectionLost(const char* site);
    void endLostConnection();
    void idleExpired();

    // Hands every complete line to the command table or to the message, as far as the state lets.
    void serve();
    void command(const QByteArray& line);
    // Takes the text lines that have come; false once none is complete.
    bool readText();
    // The message's file from the DATA command on; its text is written as it arrives.
    void openMessageFile();
    void writeText(const QByteArray& text);
    void cannotStore(const Fault& fault);
    QByteArray receivedHeader(const QByteArray& id) const;
    bool overLimit();
    void cutOff(const QByteArray& reply, const QByteArray& logText);
    void closeAndFinish();
    void finish();

    // The command table's handlers.
    void helo(const QByteArray& line);
    void ehlo(const QByteArray& line);
    void greet(const QByteArray& line, bool esmtp);
    void firstMail(const QByteArray& line);
    void nextMail(const QByteArray& line);
    void sender(const QByteArray& line);
    void recipient(const QByteArray& line);
    void startData(const QByteArray& line);
    void reset(const QByteArray& line);
    void noop(const QByteArray& line);
    void quit(const QByteArray& line);
    void unrecognized(const QByteArray& line);

    void endOfData();
    // The message's files, staged for the group commit, and their names; `parts` keeps the writers
    // that must live until then. Throws QueueFault.
    QList<StagedFile> stageMessage(QByteArrayList& names, std::vector<std::unique_ptr<QueueWriter>>& parts);
    void notStored(const QString& error);
    void committed(const QByteArray& answer);

    void reply(const QByteArray& text, bool bold = false);
    void mailLog(const QByteArray& text);
    QByteArray slotTag() const;

    InboundServer& server_;
    Logs& logs_;
    const uint8_t n_;
    CConnexion& row_;
    QTcpSocket* socket_;
    QByteArray localIp_;
    ReceivedFrom peer_; // who the client is, kept from the start (a closed socket forgets)
    InboundState state_ = Greeted;
    LineReader reader_;
    CMessage message_;
    // The text being received, on its way to disk; none once a write failed (storeError_ says
    // why): the text is then read on and dropped, and its end answered 452.
    std::unique_ptr<QueueWriter> writer_;
    QString storeError_;
    qsizetype textBytes_ = 0;   // of the text received so far
    QByteArray receivedDate_;   // when DATA came, for the Received header
    bool textLineStart_ = true; // the text so far ends with CR LF, so a lone dot would end it
    bool midLine_ = false;      // the text so far ends inside a long line that comes in pieces
    QTimer idle_;
    bool lostWhileCommitting_ = false; // handled once the message's commit is over
    bool cutOff_ = false;              // told to go: whatever else it sends is dropped
    qsizetype dropped_ = 0;            // what it sent after that
    bool large_ = false;               // received a large message, so its buffers were large
    bool finished_ = false;
};

} // namespace postiq
