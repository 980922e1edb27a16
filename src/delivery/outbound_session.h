#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QObject>
#include <QTimer>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "delivery/delivery_outcome.h"
#include "delivery/reply_reader.h"
#include "delivery/server_route.h"
#include "delivery/transmission.h"

class QHostAddress;
class QSslSocket;

namespace postiq {

class AddressResolver;
class CConnexion;
class CMessage;
class Logs;
class Queue;
class QueueTextReader;
class Settings;

// Protocol states of an outbound slot (0 is a free slot); the connections view shows them.
enum OutboundState : int32_t {
    Taken = 2,        // slot taken by the dispatcher, message loaded
    Connecting = 3,   // connection requested or open, waiting for the greeting
    HeloSent = 4,     // HELO sent after a refused EHLO
    MailSent = 5,     // MAIL FROM sent
    LastRcptSent = 6, // a RCPT TO sent, waiting for its reply
    DataSent = 7,     // DATA sent, waiting for the go-ahead
    Writing = 9,      // message text being written to the socket
    Written = 11,     // message text handed over, waiting for the final reply
    Finished = 12,    // QUIT sent
    EhloSent = 20,       // EHLO sent in plain text
    StartTlsSent = 21,   // waiting for the go-ahead to start TLS
    TlsHandshake = 22,   // TLS being negotiated on the open connection
    SecureEhloSent = 23, // EHLO sent over TLS
    AuthSent = 24,       // AUTH PLAIN, or the password of AUTH LOGIN, sent: waiting for 235
    AuthLoginSent = 25,  // AUTH LOGIN sent: waiting for the user name prompt
    AuthUserSent = 26,   // AUTH LOGIN user name sent: waiting for the password prompt
    ResetSent = 27,      // RSET sent before another message on the same connection
    DataUnwanted = 28,   // DATA went with the other commands, yet no recipient was accepted
    Held = 29,           // a transaction is over and the connection stays open for the next one
};

// How long a delivery may wait for the server. Without limits a server that never answers
// would hold its slot, and the message, for the rest of the run.
struct OutboundTimeouts {
    std::chrono::milliseconds connect{30'000};  // to have the connection established
    std::chrono::milliseconds silence{300'000}; // without a byte from the server (or to it)
};

// Where one connection goes and how it may be secured.
struct SessionTarget {
    ServerRoute route;
    QByteArray shownHost;    // the host as the logs name it (a submission server without its login)
    bool exchanger = true;   // an MX host: STARTTLS when offered, certificates not checked
    bool clearOnly = false;  // TLS already failed with this host in this dispatch: no STARTTLS
    QByteArray knownAddresses; // the host's addresses as the MX answer brought them, if it did
    QString routeName;       // the route of Routes.ini this connection serves; empty: none (its password)
};

// One connection to one mail host, from the address lookup to QUIT: owns its reply reader, its
// state and its timer; it is a child of the slot's socket and goes with it. It decides nothing
// about the message: it ends each transaction by handing `done` one outcome, after the events
// already pending. The text is read from the queue file as the socket drains, never whole.
//
// A connection whose transaction ended cleanly is held open: the dispatcher then either hands it
// the slot's next message (takeNext: RSET, then that message's transaction) or lets it go (quit).
class OutboundSession : public QObject {
    Q_OBJECT
public:
    using Done = std::function<void(const DeliveryOutcome&)>;

    // A connection carries this many messages at most, for this long at most, then says QUIT.
    static constexpr int kMaxMessagesPerConnection = 100;
    static constexpr std::chrono::minutes kMaxConnectionAge{5};

    OutboundSession(Logs& logs, const Settings& settings, AddressResolver& addresses, const Queue& queue,
                    uint8_t slot, CConnexion& cnx, QSslSocket& socket, SessionTarget target,
                    OutboundTimeouts timeouts, std::function<void()> milestone, Done done);
    ~OutboundSession() override;

    // Looks the host up and connects; the dialogue starts with the greeting.
    void start();
    // Whether the connection is open between two transactions and may carry another message.
    bool canTakeAnother() const;
    // Sends the slot's message (loaded by the dispatcher) over the held connection, after RSET.
    // A connection that turns out unusable before the MAIL command ends with NotAttempted.
    void takeNext(Done done);
    // Lets a held connection go: QUIT, and the socket closes.
    void quit();

    // The EHLO/HELO name: the host name when it holds a dot, else the address literal of this
    // side of the connection ("[127.0.0.1]", "[IPv6:::1]").
    static QByteArray GreetingName(const QString& localHostName, const QHostAddress& local);
    // "<a@b>" as the MAIL and RCPT commands write a path; "<>" for the null sender.
    static QByteArray PathText(const QByteArray& address);

private:
    enum ReplyClass : int { Nonsense = 0, Positive = 2, Intermediate = 3, Transient = 4, Permanent = 5 };
    using Action = void (OutboundSession::*)(const ServerReply&);
    struct Row {
        int32_t state; // kAnyState: whatever the state
        int replyClass; // kAnyClass: whatever the reply
        Action action;
    };
    static constexpr int32_t kAnyState = -1;
    static constexpr int kAnyClass = -1;
    static const Row kRows[];

    // Socket and timer events.
    void addressesFound(const QList<QHostAddress>& addresses);
    void connected();
    void dataArrived();
    void bytesWritten();
    void socketError();
    void encrypted();
    void watchdogExpired();
    void handle(const ServerReply& reply);

    // The reply table's actions.
    void sendEhlo(const ServerReply& reply);
    void sendHelo(const ServerReply& reply);
    void afterEhlo(const ServerReply& reply);
    void startTls(const ServerReply& reply);
    void noStartTls(const ServerReply& reply);
    void afterSecureEhlo(const ServerReply& reply);
    void sendLoginUser(const ServerReply& reply);
    void sendLoginPassword(const ServerReply& reply);
    void authenticationFailed(const ServerReply& reply);
    void loginRefused(const ServerReply& reply);
    void sendMailFrom(const ServerReply& reply);
    void afterReset(const ServerReply& reply);
    void resetRefused(const ServerReply& reply);
    void sendRecipients(const ServerReply& reply);
    void recipientAccepted(const ServerReply& reply);
    void recipientDeferred(const ServerReply& reply);
    void recipientRefused(const ServerReply& reply);
    void sendText(const ServerReply& reply);
    void noRecipientAccepted(const ServerReply& reply);
    void unwantedGoAhead(const ServerReply& reply);
    void accepted(const ServerReply& reply);
    void temporaryFailure(const ServerReply& reply);
    void permanentFailure(const ServerReply& reply);
    void nonsense(const ServerReply& reply);

    void resolveHost();

    // The provider route's opening (submission.cpp).
    void lookUpPassword();
    void authenticate(const ServerReply& reply);
    void sendSecret(const QByteArray& command, const QByteArray& shown);

    // Shared steps.
    void connectTo(const QHostAddress& address);
    void sendEhloCommand(const char* verb);
    void sendNextRcpt();
    void afterLastRecipient();
    // Opens the queue file's text for this transaction; false (and the transaction over) when it
    // cannot be read.
    bool openText();
    // Writes the next chunks of the text while the socket holds little, then the final dot.
    void pumpText();
    void sendCommand(const QByteArray& command);
    // Several commands in one write (pipelining); each is logged as it would be alone.
    void sendCommands(const QList<QByteArray>& commands);
    void setState(int32_t state);
    void armWatchdog(std::chrono::milliseconds limit);
    void recordRecipient(RecipientResult::Verdict verdict, const ServerReply& reply);
    // A failure of this host (socket, time-out, TLS, login), with the reply that caused it if any.
    void fail(int errorNumber, const QByteArray& description, const ServerReply& reply = {},
              DeliveryOutcome::Kind kind = DeliveryOutcome::HostTemporary);
    // The text could not be read: the server must not take what it got of it.
    void unreadable(int errorNumber, const QString& description);
    // How a connection ends with its outcome: QUIT, cut at once, or held for another message.
    enum class Ending { Quit, Drop, Hold };
    // A transaction that reached its end: the connection is held when nothing is pending on it.
    void endTransaction(DeliveryOutcome outcome);
    // Hands the outcome over once; what the socket says afterwards is not heard.
    void finish(DeliveryOutcome outcome, Ending ending);
    void finish(DeliveryOutcome outcome, bool sayQuit) { finish(std::move(outcome), sayQuit ? Ending::Quit : Ending::Drop); }
    // Cuts the session off its socket: QUIT first when `sayQuit` and the connection is up.
    void close(bool sayQuit);
    QByteArray head() const;
    const CMessage& message() const;

    Logs& logs_;
    const Settings& settings_;
    AddressResolver& addresses_;
    const Queue& queue_;
    uint8_t slot_;
    CConnexion& cnx_;
    QSslSocket& socket_;
    SessionTarget target_;
    OutboundTimeouts timeouts_;
    std::function<void()> milestone_; // lets the dispatcher start the next message meanwhile
    Done done_;
    QTimer watchdog_;
    ReplyReader reader_;
    Extensions offered_;
    bool extended_ = false; // EHLO was answered: parameters may go with MAIL FROM
    QByteArray ip_;
    QByteArray password_; // read just before connecting, dropped once sent
    QList<RecipientResult> recipients_;
    bool finished_ = false;
    bool held_ = false;      // between two transactions, waiting for the dispatcher's word
    bool pipelined_ = false; // this transaction's commands went in one write
    int owed_ = 1;           // replies the server still owes (the greeting first)
    int transactions_ = 1;   // the messages this connection has carried, this one included
    QElapsedTimer connectedFor_;
    // This transaction's text, read as the socket drains.
    std::unique_ptr<QueueTextReader> text_;
    TextTransmitter transmitter_;
    bool textEnded_ = false; // the final dot is written
    bool textHasEightBitBytes_ = false;
};

} // namespace postiq
