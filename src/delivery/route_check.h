#pragma once

#include <QObject>
#include <QString>
#include <memory>

#include "delivery/route_table.h"

namespace postiq {

class Logs;
class Settings;

// Tries a route before the user trusts it with mail: connects to its server, secures the
// connection (STARTTLS or TLS from the first byte, certificate checked), logs in with the route's
// password and quits, sending no message. finished() comes once, later, never from inside start(),
// with one line that says what worked and what did not (port, certificate, login).
class RouteCheck : public QObject {
    Q_OBJECT
public:
    RouteCheck(Logs& logs, const Settings& settings, SenderRoute route, QObject* parent = nullptr);
    ~RouteCheck() override;

    void start();

signals:
    void finished(bool ok, const QString& report);

private:
    struct Private;
    std::unique_ptr<Private> d_;
};

} // namespace postiq
