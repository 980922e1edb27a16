#pragma once

#include <QObject>

#include "smtp_in/inbound_server.h"

namespace postiq {

class ConnectionTables;
class Logs;
class Queue;
class Settings;
struct DnsCache;

// Shows whether the service is started (tray icon, tool tip, start and stop entries).
class ServiceView {
public:
    virtual ~ServiceView() = default;
    virtual void showServiceState(bool started) = 0;
};

// Switches the SMTP service on and off: the listener on ListenPort, the MX cache that lives with
// it, and what the user sees. Stopping closes only the listener; connections in progress go on.
class SmtpService : public QObject {
    Q_OBJECT
public:
    SmtpService(Settings& settings, Logs& logs, DnsCache& cache, ConnectionTables& tables, Queue& queue,
                ServiceView* view = nullptr, QObject* parent = nullptr);

    void setView(ServiceView* view) { view_ = view; }

    // Start. A port that is taken or needs privileges is reported and leaves everything as it was.
    void Demarrer();
    // Stop.
    void Arreter();
    bool isListening() const;
    // The sessions it serves (their limits can be shortened in tests).
    InboundServer& sessions() { return sessions_; }

private:
    void reportPortUnavailable(quint16 port);

    Settings& settings_;
    Logs& logs_;
    DnsCache& cache_;
    ConnectionTables& tables_;
    ServiceView* view_;
    InboundServer sessions_;
};

} // namespace postiq
