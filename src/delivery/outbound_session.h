#pragma once

#include <QByteArray>
#include <QObject>
#include <QPointer>
#include <array>
#include <chrono>
#include <cstdint>

#include "smtp_in/connexion.h"

class QTcpSocket;
class QTimer;

namespace postiq {

class Dispatcher;
class Logs;
class Settings;

// Protocol states of an outbound slot (0 is a free slot).
enum OutboundState : int32_t {
    Taken = 2,        // slot taken by the dispatcher, message loaded
    Connecting = 3,   // connection requested or open, waiting for the greeting
    HeloSent = 4,
    MailSent = 5,     // MAIL FROM sent, or a RCPT TO while more recipients remain
    LastRcptSent = 6,
    DataSent = 7,     // DATA sent, waiting for the go-ahead
    Writing = 9,      // message text being written to the socket
    Written = 11,     // message text handed over, waiting for the final reply
    Finished = 12     // QUIT sent
};

// How long a delivery may wait for the server. Without limits a server that never answers
// would hold its slot, and the message, for the rest of the run.
struct OutboundTimeouts {
    std::chrono::milliseconds connect{30'000};  // to have the connection established
    std::chrono::milliseconds silence{300'000}; // without a byte from the server (or to it)
};

// The SMTP client side: carries the dialogue with a mail exchanger or the fixed server on each
// busy OUT slot, from the greeting to QUIT, and decides what becomes of the message when the
// server refuses it or the connection fails. Every handler runs to completion; what follows a
// "yield" is posted to run after the events already pending.
class OutboundSession : public QObject {
    Q_OBJECT
public:
    OutboundSession(Logs& logs, const Settings& settings, ConnectionTables& tables,
                    Dispatcher& dispatcher, QObject* parent = nullptr);

    // Wires the socket of a freshly taken slot to the session's handlers.
    void attach(uint8_t n, QTcpSocket& socket);
    // Connects slot n to its current mail host (Host(CurrentMX)): port 25, or the ":port" that a
    // fixed server carries. The dialogue restarts from the greeting.
    void connectToCurrentHost(uint8_t n);

    OutboundTimeouts timeouts;

private:
    // One reply from the server on slot n.
    struct Reply {
        uint8_t n;
        CConnexion& cnx;
        QByteArray text;
    };
    using Action = void (OutboundSession::*)(Reply&);
    struct Row {
        bool (*state)(int32_t status);
        int code; // kAnyCode: whatever the reply says
        Action action;
    };
    static constexpr int kAnyCode = -1;
    static const Row kRows[];

    bool owns(uint8_t n, QTcpSocket* socket) const;
    void armWatchdog(uint8_t n, std::chrono::milliseconds limit);

    // Socket events.
    void connected(uint8_t n, QTcpSocket* socket);
    void SmtpDistant_DataArrival(uint8_t n, QTcpSocket* socket);
    void sendComplete(uint8_t n, QTcpSocket* socket);
    void socketError(uint8_t n, QTcpSocket* socket);
    void watchdogExpired(uint8_t n, QTcpSocket* socket);

    // The reply table's actions.
    void sendHelo(Reply& reply);
    void sendMailFrom(Reply& reply);
    void sendRcptTo(Reply& reply);
    void sendDataCommand(Reply& reply);
    void sendText(Reply& reply);
    void accepted(Reply& reply);
    void refused(Reply& reply);
    void notImplemented(Reply& reply);

    // The failure of a connection (delivery_failure.cpp).
    void SmtpDistant_Error(uint8_t n, int number, const QByteArray& description);
    void noRouteWithFixedServer(uint8_t n, const QByteArray& reason);
    void tryNextMx(uint8_t n, const QByteArray& reason);
    void denyLoop(uint8_t n, const QByteArray& reason);
    void giveUp(uint8_t n, int number, const QByteArray& reason, const QByteArray& description);
    void defer(uint8_t n, const QByteArray& reason);
    QByteArray failureHead(uint8_t n) const;
    QByteArray failedHost(uint8_t n) const;

    // Moves the slot's message to Error: the copy is on disk before the OutBox file goes.
    void moveToErrorFolder(uint8_t n);
    // Rewrites the OutBox file with the slot's record, so that a notice built from it carries the
    // attempt count and the error of this attempt.
    void rewriteOutboxFile(uint8_t n);

    void sendCommand(uint8_t n, const QByteArray& command);
    void sendQuitAndClose(uint8_t n);
    void mailLog(const QByteArray& text);
    // The message ID named by the connect, send, receive and "status=sent" lines: that of the
    // slot the dispatcher took last.
    QByteArray loggedId() const;

    Logs& logs_;
    const Settings& settings_;
    ConnectionTables& tables_;
    Dispatcher& dispatcher_;
    // The numeric address of each slot's server, as the socket last reported it.
    std::array<QByteArray, ConnectionTables::kUpperBound + 1> remoteIp_;
    // Each busy slot's time limit; a child of the slot's socket, so it goes with it.
    std::array<QPointer<QTimer>, ConnectionTables::kUpperBound + 1> watchdog_;
};

} // namespace postiq
