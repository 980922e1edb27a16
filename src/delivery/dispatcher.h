#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QString>
#include <QTimer>
#include <array>
#include <cstdint>
#include <optional>

#include "delivery/disposition.h"
#include "delivery/exchanger_backlog.h"
#include "delivery/exchanger_concurrency.h"
#include "delivery/outbound_session.h"
#include "delivery/route_table.h"
#include "dns/address_resolver.h"
#include "smtp_in/connexion.h"
#include "store/queue.h"

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
// two 10-second timers remain as a backstop. Files are found through the queue's index, never by
// listing Deferred, so a dispatch costs the same however many files wait; OutBox alone is listed
// again, for what was written past the queue (at the tick, after a message is stored, and when
// the index holds nothing left to send). Messages for one exchanger share its connections, each
// carrying one message after another; how many it gets at once is a window that starts at a few,
// grows by one per message it takes, up to twenty, narrows when it answers and fails, and is
// lifted while none of its hosts answers (ExchangerConcurrency). The messages beyond the window
// wait in the backlog, which hands them to the first connection or slot free for them.
class Dispatcher : public QObject {
    Q_OBJECT
public:
    static constexpr int kTimerInterval = 10'000; // ms, for both timers

    Dispatcher(Logs& logs, Settings& settings, ConnectionTables& tables, Queue& queue, QObject* parent = nullptr);
    ~Dispatcher() override;

    // Starts both timers; the program does so at start-up, whatever the service's state.
    void startTimers();
    // Stops the timers (the fatal report, the end of the program).
    void stopTimers();

    // Something new may wait in OutBox that was written past the queue's own calls (by another
    // process, through the sendmail interface): OutBox is looked at again and a dispatch starts after the events already pending.
    // Calls made meanwhile add nothing; it never dispatches from inside its caller.
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
    // The routes by sender that new dispatches read; the owner keeps the table and may replace its
    // contents at a reload: a delivery under way keeps the routes it was given.
    void setRoutes(const RouteTable* routes) { routes_ = routes; }
    // Connections open at once to one exchanger (MX domain, or the fixed server): a window that
    // grows while the exchanger answers (see ExchangerConcurrency); the messages beyond wait for
    // one of them, which takes them one after another.
    ExchangerConcurrency concurrency;
    // Finds the addresses of every session's host, through the configured DNS server.
    AddressResolver& addressResolver() { return addresses_; }

    QTimer tmrVerifOutBox;
    QTimer tmrVerifDeferred;
    // Runs the deferred scan when the earliest deferred file falls due.
    QTimer tmrDeferredDue;

private:
    void outboxTick();
    // A dispatch after the events already pending, once however often it is asked for meanwhile.
    void dispatchSoon(bool rescan);
    // The files that busy OUT slots are delivering.
    QSet<QByteArray> claimedFiles() const;
    std::optional<QByteArray> backlogNext(const QSet<QByteArray>& busy);
    void rewindIfReleased(const QSet<QByteArray>& claimed);
    std::optional<uint8_t> freeCnxOut() const;
    // Steps that follow the route lookup of a dispatch on slot i.
    void routeResolved(uint8_t i, const QString& file, const QByteArray& domain);
    void noRoute(uint8_t i, const QString& file, const QByteArray& domain);
    // The route of Routes.ini a message takes, from the table in force; none: SmtpServer or MX.
    const SenderRoute* routeFor(const CMessage& head) const;
    // Puts the servers of slot i's routes (the route, then its fallbacks) in its host list.
    void useRoutes(uint8_t i);
    // The route whose server slot i's current host is; none outside a route.
    const SenderRoute* currentRoute(uint8_t i) const;
    // Starts a session with the slot's current host.
    void startSession(uint8_t i, bool clearOnly);

    // ---- one connection, several messages ----
    // The key of the exchanger a message goes to: its route, else the domain, or the fixed server
    // for all. Messages of different routes never share a connection.
    QByteArray exchangerFor(const CMessage& head, const QByteArray& domain) const;
    // The exchangers whose connections are all taken.
    QSet<QByteArray> busyExchangers() const;
    // Tells the exchanger's window how the session that just ended went.
    void noteReachability(const QByteArray& exchanger, const DeliveryOutcome& outcome);
    // Connections open (or being opened) to the exchanger.
    int connectionsTo(const QByteArray& exchanger) const;
    // Whether the file waits for a connection that is busy.
    bool waitsForConnection(const QByteArray& name, const QSet<QByteArray>& busy) const;
    // The next OutBox message, claimed by no slot, for the exchanger that slot i's connection
    // serves: first those waiting for it, then a short look into the queue.
    std::optional<QByteArray> nextForConnection(uint8_t i);
    // After a message's disposition: the slot's held connection takes the next message for its
    // exchanger (true), or it is let go.
    bool takeNextOnConnection(uint8_t i);
    // A reused connection failed before the message's transaction: a new one, as a dispatch
    // would open it, with the attempt already counted.
    void restartOnNewConnection(uint8_t i);
    // Reads the record without its text; nothing when it cannot be read and went to Error.
    std::optional<QByteArray> loadHeadOrSetAside(CMessage& message, const QString& file);
    void setAside(const QString& file, const Fault& fault);
    // Where the disposition table sends the slot once its session has ended.
    void sessionEnded(uint8_t i, quint64 generation, const DeliveryOutcome& outcome);
    void dispose(uint8_t i, const DeliveryOutcome& outcome);
    // Arms tmrDeferredDue for the earliest deferred file, unless it is due already (one that could
    // not go back waits for the next scan instead of being tried again at once).
    void wakeForEarliestDeferred();
    // Copies every (or every due) deferred file back to OutBox, dispatches them, and wakes the
    // scan again when the earliest file left falls due.
    void moveDeferredBack(bool onlyDue, const char* site);
    // The deferred delay in seconds; a value beyond 16 bits is a fault, as the setting has always been.
    int deferredDelaySeconds() const;
    // Arms tmrDeferredDue for a file deferred at `deferredAt`, unless it already fires sooner.
    void wakeWhenDue(const QDateTime& deferredAt);

    // What a busy slot's delivery needs beyond the slot record.
    struct SlotDelivery {
        QDateTime arrival;       // when the message was queued
        quint64 generation = 0;  // tells a late outcome from the slot's current one
        bool triedInClear = false;
        QByteArray exchanger;            // whom the slot's connection serves
        QList<SenderRoute> routes;       // the message's route and its fallbacks, as chosen; or none
        QPointer<OutboundSession> session;
    };

    Logs& logs_;
    Settings& settings_;
    ConnectionTables& tables_;
    Queue& queue_;
    int queueObserver_ = 0;
    ExchangerBacklog backlog_;
    Disposition disposition_;
    AddressResolver addresses_;
    std::array<SlotDelivery, ConnectionTables::kUpperBound + 1> slots_;
    bool dispatchPosted_ = false;
    bool rescanPosted_ = false;
    // OutBox files that could neither be read nor set aside: passed over until the next tick, so
    // that one broken file does not keep the dispatcher busy.
    QSet<QByteArray> unreadable_;
    bool online_ = true;
    const RouteTable* routes_ = nullptr;
    // Where the walk through OutBox goes on: every file before it was being delivered, waiting in
    // the backlog or unreadable when the walk passed it. With thousands of messages waiting for
    // one busy exchanger, a dispatch would otherwise pass over all of them each time.
    quint64 walkedTo_ = 0;
    // The files claimed at the last walk or since: one let go while still in OutBox rewinds it.
    QSet<QByteArray> claimedBefore_;
};

} // namespace postiq
