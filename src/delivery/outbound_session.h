#pragma once

#include <QByteArray>
#include <QObject>
#include <QPointer>
#include <array>
#include <chrono>
#include <cstdint>
#include <span>

#include "delivery/server_route.h"
#include "smtp_in/connexion.h"

class QHostAddress;
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
    Finished = 12,    // QUIT sent
    // The secure opening of a submission route, before it joins the states above at HeloSent.
    EhloSent = 20,       // smtp://: EHLO sent in plain text, STARTTLS must be offered
    StartTlsSent = 21,   // waiting for the go-ahead to start TLS
    TlsHandshake = 22,   // TLS being negotiated on the open connection
    SecureEhloSent = 23, // EHLO sent over TLS
    AuthSent = 24,       // AUTH PLAIN, or the password of AUTH LOGIN, sent: waiting for 235
    AuthLoginSent = 25,  // AUTH LOGIN sent: waiting for the user name prompt
    AuthUserSent = 26,   // AUTH LOGIN user name sent: waiting for the password prompt
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
    // fixed server carries, or a submission route (smtp://, smtps://) with its TLS and login. The
    // dialogue restarts from the greeting.
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
    // The secure opening of a submission route, tried before kRows; what it has no row for
    // falls through to kRows.
    static const Row kOpeningRows[];

    // What a submission route needs on a slot beyond the plain dialogue.
    struct Opening {
        ServerRoute route;
        QByteArray password; // read just before connecting, dropped once sent
    };

    bool owns(uint8_t n, QTcpSocket* socket) const;
    bool applyFirstRow(std::span<const Row> rows, Reply& reply);
    // Whether the slot reads whole (multi-line) replies: a submission route before it joins
    // the plain dialogue.
    bool inOpening(uint8_t n) const;
    void armWatchdog(uint8_t n, std::chrono::milliseconds limit);

    // Socket events.
    void connected(uint8_t n, QTcpSocket* socket);
    void SmtpDistant_DataArrival(uint8_t n, QTcpSocket* socket);
    void sendComplete(uint8_t n, QTcpSocket* socket);
    void socketError(uint8_t n, QTcpSocket* socket);
    void watchdogExpired(uint8_t n, QTcpSocket* socket);
    void encrypted(uint8_t n, QTcpSocket* socket);

    // The secure opening (submission.cpp).
    void startConnection(uint8_t n, const QHostAddress& address);
    bool readPassword(uint8_t n);
    void sendEhlo(Reply& reply);
    void sendStartTls(Reply& reply);
    void startTls(Reply& reply);
    void authenticate(Reply& reply);
    void sendLoginUser(Reply& reply);
    void sendLoginPassword(Reply& reply);
    void authenticated(Reply& reply);
    void noStartTls(Reply& reply);
    void authenticationFailed(Reply& reply);
    void sendEhloCommand(uint8_t n);
    // Sends a command that carries the password: the debug log shows `shown` instead.
    void sendSecret(uint8_t n, const QByteArray& command, const QByteArray& shown);

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
    std::array<Opening, ConnectionTables::kUpperBound + 1> opening_;
};

} // namespace postiq
