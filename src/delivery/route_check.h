#pragma once

#include <QObject>
#include <QString>
#include <memory>

#include "delivery/route_table.h"

namespace postiq {

class Logs;
class Settings;
struct OutboundTimeouts;
struct ServerReply;

// Tries a route before the user trusts it with mail: connects to its server, secures the
// connection (STARTTLS or TLS from the first byte, certificate checked), logs in with the route's
// password and quits, sending no message. finished() comes once, later, never from inside start(),
// with one line that says what worked and what did not (port, certificate, login).
class RouteCheck : public QObject {
    Q_OBJECT
public:
    RouteCheck(Logs& logs, const Settings& settings, SenderRoute route, QObject* parent = nullptr);
    ~RouteCheck() override;

    // Before start(): other limits than a check's own (tests shorten them).
    void setTimeouts(const OutboundTimeouts& timeouts);
    void start();

signals:
    void finished(bool ok, const QString& report);

private:
    using Action = void (RouteCheck::*)(const ServerReply&);
    struct Row;
    static const Row kRows[];

    // Socket and timer events.
    void connectToServer();
    void connected();
    void dataArrived();
    void encrypted();
    void socketError();
    void watchdogExpired();
    void handle(const ServerReply& reply);

    // The reply table's actions.
    void greeted(const ServerReply& reply);
    void afterEhlo(const ServerReply& reply);
    void sendHelo(const ServerReply& reply);
    void startTls(const ServerReply& reply);
    void afterSecureEhlo(const ServerReply& reply);
    void sendLoginUser(const ServerReply& reply);
    void sendLoginPassword(const ServerReply& reply);
    void loggedIn(const ServerReply& reply);
    void quitAnswered(const ServerReply& reply);
    void refused(const ServerReply& reply);
    void loginRefused(const ServerReply& reply);
    void unexpected(const ServerReply& reply);

    void logIn(const QByteArray& password);
    void sendCommand(const QByteArray& command, int state);
    void sendQuit();
    void armWatchdog(int state);
    // The check ends: what worked, and what did not when `failure` is set.
    void succeed();
    void fail(const QString& failure);
    void finish(bool ok, const QString& failure);

    struct Private;
    std::unique_ptr<Private> d_;
};

} // namespace postiq
