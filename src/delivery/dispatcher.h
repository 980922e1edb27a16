#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QObject>
#include <QSet>
#include <QString>
#include <QTimer>
#include <array>
#include <cstdint>
#include <optional>

#include "delivery/delivery_queue.h"
#include "delivery/disposition.h"
#include "delivery/outbound_session.h"
#include "dns/address_resolver.h"
#include "smtp_in/connexion.h"

namespace postiq {

class ConnectionTables;
class Logs;
class Settings;

// Moves due files from Deferred back to OutBox, and hands each OutBox file that no busy OUT slot
// holds to a free slot: message loaded, attempt counted, route resolved, one session per
// connection started. Each session's outcome goes through the disposition table, which may send
// the slot on to the next host. Mail leaves at once: a new queue file (queueChanged), a freed
// slot, a notice and a deferred file that falls due each start a dispatch within milliseconds;
// the sessions' milestones call VerifOutBox, which chains the dispatch of the whole queue. The
// two 10-second timers remain as a backstop.
class Dispatcher : public QObject {
    Q_OBJECT
public:
    static constexpr int kTimerInterval = 10'000; // ms, for both timers

    Dispatcher(Logs& logs, Settings& settings, ConnectionTables& tables, QObject* parent = nullptr);

    // Starts both timers; the program does so at start-up, whatever the service's state.
    void startTimers();
    // Stops the timers (the fatal report, the end of the program).
    void stopTimers();

    // Something new may wait in OutBox (a message just accepted): a dispatch starts after the
    // events already pending. Calls made meanwhile add nothing; it never dispatches from inside
    // its caller.
    void queueChanged();
    // Dispatches at most one OutBox file.
    void VerifOutBox();
    // Moves back to OutBox every deferred file older than AttemptDelay minutes.
    void VerifDeferred();
    // Takes a free OUT slot for the OutBox file and starts its delivery.
    void SendOutSmtp(const QString& file);
    // Moves every deferred file back to OutBox at once.
    void Flush();
    // The menu's "Forcer (deferred)": Flush, then a dispatch at once.
    void ForceDeferred();

    // Without a network nothing is dispatched, so that no attempt is spent and no delay notice
    // written in vain; when it comes back the queue goes at once.
    void setOnline(bool online);

    // Re-enables the outbox timer unless it already runs.
    void enableOutboxTimer();
    // VerifOutBox after the events already pending.
    void postVerifOutBox();
    // What follows a finished session, after the events already pending: a dispatch, the outbox
    // timer enabled, another dispatch.
    void postAfterSession();

    // How long each connection may wait (tests shorten them).
    OutboundTimeouts timeouts;
    // Finds the addresses of every session's host, through the configured DNS server.
    AddressResolver& addressResolver() { return addresses_; }

    QTimer tmrVerifOutBox;
    QTimer tmrVerifDeferred;
    // Runs the deferred scan when the earliest deferred file falls due.
    QTimer tmrDeferredDue;

private:
    void outboxTick();
    // The files that busy OUT slots are delivering.
    QSet<QByteArray> claimedFiles() const;
    std::optional<uint8_t> freeCnxOut() const;
    // Steps that follow the route lookup of a dispatch on slot i.
    void routeResolved(uint8_t i, const QString& file, const QByteArray& domain);
    void noRoute(uint8_t i, const QString& file, const QByteArray& domain);
    // Starts a session with the slot's current host.
    void startSession(uint8_t i, bool clearOnly);
    // Where the disposition table sends the slot once its session has ended.
    void sessionEnded(uint8_t i, quint64 generation, const DeliveryOutcome& outcome);
    void dispose(uint8_t i, const DeliveryOutcome& outcome);
    // Loads the OutBox file into `message` and gives its first recipient's domain; nothing when
    // the file could not be read, or names no recipient with a domain, and went to Error.
    std::optional<QByteArray> loadOrSetAside(CMessage& message, const QString& file);
    // Copies every (or every due) deferred file back to OutBox, dispatches them, and wakes the
    // scan again when the earliest file left falls due.
    void moveDeferredBack(bool onlyDue);
    // The deferred delay in seconds; a value beyond 16 bits is a fault, as the setting has always been.
    int deferredDelaySeconds() const;
    // Arms tmrDeferredDue for a file deferred at `deferredAt`, unless it already fires sooner.
    void wakeWhenDue(const QDateTime& deferredAt);

    // What a busy slot's delivery needs beyond the slot record.
    struct SlotDelivery {
        QDateTime arrival;       // when the message was queued
        quint64 generation = 0;  // tells a late outcome from the slot's current one
        bool triedInClear = false;
    };

    Logs& logs_;
    Settings& settings_;
    ConnectionTables& tables_;
    DeliveryQueue queue_;
    Disposition disposition_;
    AddressResolver addresses_;
    std::array<SlotDelivery, ConnectionTables::kUpperBound + 1> slots_;
    bool dispatchPosted_ = false;
    bool online_ = true;
};

} // namespace postiq
