#pragma once

#include <QByteArray>
#include <QObject>
#include <QPointer>
#include <QString>
#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "dns/resolver.h"
#include "store/message.h"

class QHostAddress;
class QTcpServer;
class QTcpSocket;

namespace postiq {

class Logs;
class Settings;
struct DnsCache;

// The active-connections view: one row per slot, refreshed whenever a slot changes state.
class ConnectionsView {
public:
    virtual ~ConnectionsView() = default;
    virtual void updateConnection(const QByteArray& cnxType, int n) = 0;
};

// One numbered connection slot, inbound ("IN") or outbound ("OUT"). It is free exactly when its
// Status is 0. An IN slot is the row the connections view reads: its inbound session owns the
// connection and keeps the row's state, peer and message ID up to date. A busy OUT slot owns the
// socket instance of the same number.
class CConnexion {
public:
    // `view` is the tables' view pointer, read at each change so that the window can come later.
    CConnexion(Logs& logs, const Settings& settings, DnsCache& cache, ConnectionsView* const& view);
    CConnexion(const CConnexion&) = delete;
    CConnexion& operator=(const CConnexion&) = delete;

    uint8_t Connexion = 0;     // the slot's own number
    QByteArray CnxType;        // "IN" or "OUT"
    QByteArray SrvClient;      // IN: the client's host name or address; OUT: the server talked to
    QByteArray SmtpCommand;    // OUT: text received since the last complete reply was handled
    CMessage Message;          // IN: the ID of the last message stored; OUT: the message delivered
    QString CurrentOutFile;    // OUT: the queue file being delivered
    uint8_t CurrentRcptTo = 0; // OUT: the recipient being worked on
    CDns DNS;                  // OUT: the resolver state of this delivery

    int32_t Status() const { return status_; }
    // A non-zero state refreshes the slot's row in the view; 0 does not (the releases do that).
    void setStatus(int32_t value);

private:
    ConnectionsView* const& view_;
    int32_t status_ = 0;
};

// The two slot tables. Usable IN slots are 1 to 99: the search wraps to 1 and never hands out 0 or
// 100. For IN slots the tables only hand out numbers; each OUT slot has its socket instance.
class ConnectionTables {
public:
    static constexpr int kUpperBound = 100;

    ConnectionTables(Logs& logs, const Settings& settings, DnsCache& cache,
                     ConnectionsView* view = nullptr);
    ~ConnectionTables();
    ConnectionTables(const ConnectionTables&) = delete;
    ConnectionTables& operator=(const ConnectionTables&) = delete;

    void setView(ConnectionsView* view) { view_ = view; }

    // Slot records, created on first access; an index outside 0..100 is a fault.
    CConnexion& CnxIn(int i);
    CConnexion& CnxOut(int i);

    uint8_t LastCnxIn = 1;  // the IN slot handed out last
    uint8_t LastCnxOut = 1; // the OUT slot handed out last (the dispatcher moves it)

    // The listener of the inbound side.
    QTcpServer& SmtpListener();
    // The session that holds IN slot n (it owns its connection), or nullptr when the slot is free.
    QObject* InSession(int n) const;

    // Socket array SmtpDistant: the socket of OUT slot n, or nullptr when not loaded.
    QTcpSocket* SmtpDistant(int n) const;
    // Creates instance n (unconnected) for an outbound delivery; loading a loaded one is a fault.
    QTcpSocket& LoadSmtpDistant(int n);

    // Finds a free IN slot from LastCnxIn on, wrapping from 99 to 1, and moves LastCnxIn to it.
    // Empty when slots 1 to 99 are all busy.
    std::optional<uint8_t> FindFreeCnxIn();
    // Whether any IN slot from 1 to 99 is free; moves nothing.
    bool HasFreeCnxIn();
    // Takes IN slot i for the session of an accepted connection: number, type and peer.
    CConnexion& LoadCnxIn(uint8_t i, const QByteArray& peer, QObject* session);

    // Free a slot: state, buffer and message reset, OUT socket instance destroyed, view refreshed.
    // An IN slot without its session or an OUT slot without its socket instance is a fault,
    // raised after the resets.
    void ReleaseSmtpLocal(uint8_t n);
    void ReleaseSmtpDistant(uint8_t n);

    // Cuts every socket, every inbound session's sockets and timers, and the listener off from
    // their handlers (the objects stay): nothing of a connection runs any more, as when the
    // program ends.
    void silenceAll();

    // Set by the delivery side: re-enables the outbox scan when an OUT slot frees up.
    std::function<void()> enableOutboxTimer;

private:
    using SlotTable = std::array<std::unique_ptr<CConnexion>, kUpperBound + 1>;
    using SocketArray = std::array<QPointer<QTcpSocket>, kUpperBound + 1>;

    CConnexion& slot(SlotTable& table, int i, const char* name);
    // Instance n of a socket array, which must exist and be free; a fault otherwise.
    static QPointer<QTcpSocket>& unloadedInstance(SocketArray& sockets, int n, const char* arrayName);
    static void destroyInstance(QPointer<QTcpSocket>& socket);
    // What both releases share; `unload` lets the connection go, and a missing one is a fault
    // raised after the resets. The caller looks the slot up first, which bounds n.
    void releaseSlot(CConnexion& cnx, const QByteArray& cnxType, uint8_t n,
                     const std::function<void()>& unload);
    QByteArray stamp() const;

    Logs& logs_;
    const Settings& settings_;
    DnsCache& cache_;
    ConnectionsView* view_;
    SlotTable cnxIn_;
    SlotTable cnxOut_;
    // Parent of every socket instance, so that instances still alive go with the tables.
    QObject socketOwner_;
    QTcpServer* listener_ = nullptr;
    std::array<QPointer<QObject>, kUpperBound + 1> inSessions_;
    SocketArray smtpDistant_;
};

// The command verb of a received line: its first space-separated word without a trailing CR LF,
// upper-cased.
QByteArray GetResponse(const QByteArray& text);
// The reply code of a server line: its first three characters (fewer if it is shorter).
QByteArray GetResponseCode(const QByteArray& text);

// Peer and local addresses as they are compared and logged: dotted IPv4 text, also for an IPv4
// peer seen through an IPv6 socket.
QByteArray PlainAddressText(const QHostAddress& address);

} // namespace postiq
