#pragma once

#include <QObject>
#include <QTimer>
#include <chrono>

#include "smtp_in/commit_queue.h"
#include "smtp_in/connexion.h"

class QTcpSocket;

namespace postiq {

class Logs;
class Queue;
class Settings;

// The listening side of inbound SMTP: takes every connection request of the listener, gives it a
// free IN slot and an InboundSession of its own, or tells it that the relay is busy. It also holds
// what all sessions share: the queue their messages go to, the group commit of those messages and
// their idle limit.
class InboundServer : public QObject {
    Q_OBJECT
public:
    InboundServer(Logs& logs, const Settings& settings, ConnectionTables& tables, Queue& queue,
                  QObject* parent = nullptr);

    // Takes every pending connection request of the listener.
    void Smtp_ConnectionRequest();

    // The group commit that every accepted message goes through before its 250.
    CommitQueue& commitQueue() { return commits_; }
    Queue& queue() { return queue_; }
    void setIdleLimit(std::chrono::milliseconds limit) { idleLimit_ = limit; }
    std::chrono::milliseconds idleLimit() const { return idleLimit_; }

    Logs& logs() { return logs_; }
    const Settings& settings() const { return settings_; }
    ConnectionTables& tables() { return tables_; }
    // A session's slot is free again; after one that held a large message, memory goes back.
    void sessionEnded(bool heldLargeMessage);

private:
    void endFullTableGrace();
    void acceptRequest(QTcpSocket* socket);
    void refuseBusy(QTcpSocket* socket);

    Logs& logs_;
    const Settings& settings_;
    ConnectionTables& tables_;
    Queue& queue_;
    CommitQueue commits_;
    std::chrono::milliseconds idleLimit_;
    QTimer fullTableGrace_;
    bool graceOver_ = false;
    // Hands memory back a moment after sessions that held large messages are gone, once their
    // sockets (deleted later) have gone with them.
    QTimer returnMemory_;
};

} // namespace postiq
