#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>
#include <optional>

#include "delivery/server_route.h"

namespace postiq {

// The routes live in their own file of the program folder, so that Postiq.ini keeps its format.
inline constexpr char kRoutesFile[] = "Routes.ini";

// One outgoing server chosen by the envelope sender: a section of Routes.ini.
struct SenderRoute {
    QString name;
    QList<QByteArray> senders; // exact addresses and patterns, lower case
    QByteArray server;         // as written, for the logs and the dialog
    ServerRoute route;
    QString fallback;          // another route's name, or empty
};

// The routes of Routes.ini, read leniently: a section with a fault is left out with a line in
// errors(), and the others keep working. Fallbacks are checked once here, so that the chain of a
// route is always finite and names only routes that exist.
class RouteTable {
public:
    RouteTable() = default;
    // `text` is the file's contents; `file` names it in the error lines.
    static RouteTable parse(const QByteArray& text, const QString& file = QStringLiteral("Routes.ini"));
    // Reads Routes.ini of the program folder: no file is no route and no error; a file that
    // cannot be read is no route, with one error line.
    static RouteTable load(const QString& programFolder);
    // The text of a Routes.ini holding these routes, in their order, that parse() reads back.
    static QByteArray format(const QList<SenderRoute>& routes);

    const QList<SenderRoute>& routes() const { return routes_; }
    const QStringList& errors() const { return errors_; }
    bool isEmpty() const { return routes_.isEmpty(); }

    const SenderRoute* find(const QString& name) const;
    // The first route, in the file's order, with a pattern that matches the sender ("<a@b>" or
    // "a@b"); none for the null sender.
    const SenderRoute* match(const QByteArray& sender) const;
    // The route a message takes: its envelope sender's; for the null sender (a bounce, a delay
    // notice), the route of the address it goes to, if any. None: SmtpServer, else by MX.
    const SenderRoute* forMessage(const QByteArray& sender, const QByteArray& firstRecipient) const;
    // The route and then its fallbacks, each once.
    QList<const SenderRoute*> chain(const SenderRoute& first) const;

private:
    QList<SenderRoute> routes_;
    QStringList errors_;
};

// `*` matches any run of characters, case ignored; everything else matches itself. Linear in
// practice whatever the number of stars (no backtracking beyond the last star).
bool SenderPatternMatches(const QByteArray& pattern, const QByteArray& address);

// A route name can name a password file ("smtp-password-NAME"): letters, digits, '.', '_' and
// '-', not starting with a '.'.
bool IsValidRouteName(const QString& name);

} // namespace postiq
