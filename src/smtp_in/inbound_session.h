#pragma once

#include <QByteArray>
#include <QObject>
#include <QPointer>
#include <QTimer>
#include <array>
#include <chrono>
#include <cstdint>

#include "smtp_in/commit_queue.h"
#include "smtp_in/connexion.h"

class QTcpSocket;

namespace postiq {

class Logs;
class Settings;

// Protocol states of an inbound slot (0 is a free slot).
enum InboundState : int32_t {
    Greeted = 4,  // greeting sent, waiting for HELO
    HeloDone = 5, // HELO done (or reset), waiting for MAIL
    SenderOk = 6, // sender accepted; recipients may follow; DATA allowed
    InData = 8,   // everything received is message content
    Committing = 9, // message written, waiting for the disk before its 250; the client waits
    Queued = 10,  // message stored; another MAIL may follow
    Quitting = 12 // QUIT answered; close once the reply is out
};

// The SMTP server side for local mail programs: takes connection requests from the listener,
// decides who may relay, runs the dialogue on each IN slot and stores every accepted message in
// OutBox. Every handler runs to completion and returns to the event loop; what a handler needs
// from one event to the next lives in the slot, and each event first checks that its socket still
// owns the slot it names.
class InboundSession : public QObject {
    Q_OBJECT
public:
    InboundSession(Logs& logs, const Settings& settings, ConnectionTables& tables,
                   QObject* parent = nullptr);

    // Takes every pending connection request of the listener.
    void Smtp_ConnectionRequest();

    // The group commit that every accepted message goes through before its 250.
    CommitQueue& commitQueue() { return commits_; }
    // Limits that keep one client from stopping or starving the relay. A command unit (one or
    // more lines outside a message) may not grow past kMostCommandBytes, a message past
    // kMostMessageBytes: the client is told so and cut off before its bytes are held any longer.
    static constexpr qsizetype kMostCommandBytes = 1024 * 1024;
    static constexpr qsizetype kMostMessageBytes = 64 * 1024 * 1024;
    // A session that sends nothing for this long is closed, so that idle clients cannot hold
    // every slot.
    static constexpr std::chrono::milliseconds kIdleLimit = std::chrono::minutes(5);
    void setIdleLimit(std::chrono::milliseconds limit) { idleLimit_ = limit; }

private:
    // What the session knows of the connection in a slot, kept from the moment it was accepted
    // (a socket forgets its peer once it is closed).
    struct Peer {
        QPointer<QTcpSocket> socket;
        QByteArray host;
        QByteArray ip;
        QByteArray localIp;
        bool lostWhileCommitting = false; // handled once the message's commit is over
        bool cutOff = false; // told to go: whatever else it sends is dropped
        bool large = false;  // held a large message at some point
    };
    // One received unit (one or more complete lines) of slot n.
    struct Unit {
        uint8_t n;
        CConnexion& cnx;
        QByteArray line;
    };
    using Action = void (InboundSession::*)(Unit&);
    struct Rule {
        bool (*state)(int32_t status);
        const char* verb; // nullptr: any verb
        Action action;
    };
    static const Rule kRules[];

    void endFullTableGrace();
    void acceptRequest(QTcpSocket* socket);
    void refuseBusy(QTcpSocket* socket, const QByteArray& host, const QByteArray& ip);
    bool mayRelay(const Peer& peer) const;
    void watch(uint8_t n, QTcpSocket* socket);

    void Smtp_DataArrival(uint8_t n, QTcpSocket* socket);
    void Smtp_SendComplete(uint8_t n, QTcpSocket* socket);
    void connectionLost(const char* site, uint8_t n, QTcpSocket* socket);
    void endLostConnection(uint8_t n, QTcpSocket* socket);
    void readUnits(uint8_t n, QTcpSocket* socket);
    void handleUnit(uint8_t n, const QByteArray& line);
    bool owns(uint8_t n, QTcpSocket* socket) const;
    void closeAndRelease(uint8_t n, QTcpSocket* socket);
    // Whether the bytes held for slot n passed a limit; if so the client was cut off.
    bool overLimit(uint8_t n);
    void cutOff(uint8_t n, const QByteArray& reply, const QByteArray& logText);
    void idleExpired(uint8_t n);
    // Once a session that held a large message is gone, the memory it used goes back.
    void slotReleased(uint8_t n);

    void helo(Unit& unit);
    void firstMail(Unit& unit);
    void nextMail(Unit& unit);
    void sender(Unit& unit);
    void recipient(Unit& unit);
    void startData(Unit& unit);
    void reset(Unit& unit);
    void noop(Unit& unit);
    void quit(Unit& unit);
    void unrecognized(Unit& unit);
    void content(Unit& unit);
    void endOfData(Unit& unit);
    void committed(uint8_t n, QTcpSocket* socket, const QByteArray& firstRecipient, bool stored,
                   const QString& error);

    void logReply(uint8_t n, const QByteArray& reply, bool bold = false);
    void send(uint8_t n, const QByteArray& reply);
    void reply(uint8_t n, const QByteArray& reply, bool bold = false);
    void mailLog(const QByteArray& text);
    QByteArray slotTag(uint8_t n) const;

    Logs& logs_;
    const Settings& settings_;
    ConnectionTables& tables_;
    std::array<Peer, ConnectionTables::kUpperBound + 1> peers_;
    QTimer fullTableGrace_;
    bool graceOver_ = false;
    CommitQueue commits_;
    std::array<QTimer, ConnectionTables::kUpperBound + 1> idleTimers_;
    std::chrono::milliseconds idleLimit_ = kIdleLimit;
    // Hands memory back a moment after sessions that held large messages are gone, once their
    // sockets (deleted later) have gone with them.
    QTimer returnMemory_;
};

} // namespace postiq
