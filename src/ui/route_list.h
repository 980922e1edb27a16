#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include "delivery/route_table.h"

namespace postiq {

// What the routes page's form holds for one route, as typed.
struct RouteDraft {
    QString name;
    QString senders;  // addresses and patterns, separated by commas
    QString server;   // smtp://[user@]host[:port], smtps://..., or host[:port]
    QString fallback; // another route's name; empty: none
};

// Why the page refuses a draft.
enum class DraftProblem { None, BadName, NameTaken, BadSenders, BadServer, NoSuchFallback, FallbackLoop };

RouteDraft DraftOf(const SenderRoute& route);

// A server as Routes.ini takes it: smtp:// or smtps:// (a login before the last '@'), or a plain
// host[:port]; always with a host name or address, and nothing that would break the file's line.
bool IsAcceptableServer(const QString& server);

// The routes as the page edits them, until "Ecrire" writes them. Each entry remembers the name
// its password is stored under, so that a rename carries the password along and a removal
// forgets it.
class RouteList {
public:
    struct Entry {
        SenderRoute route;
        QString storedAs;    // its name in Routes.ini when last read or written; empty: new
        QByteArray password; // typed and not yet stored; empty: keep what is stored
    };

    explicit RouteList(const QList<SenderRoute>& routes = {});

    const QList<Entry>& entries() const { return entries_; }
    QList<SenderRoute> routes() const;
    bool modified() const { return modified_; }

    // The draft as the entry `replacing` (or as a new route when negative).
    DraftProblem check(const RouteDraft& draft, int replacing = -1) const;
    // Adds a checked draft, or puts it in place of that entry; the fallbacks that named the entry
    // follow its new name.
    void put(const RouteDraft& draft, const QByteArray& password, int replacing = -1);
    // The routes that fell back to the removed one lose their fallback: their names are returned.
    QStringList remove(int index);

    // The stored names whose passwords go: those of removed routes, and the old names of renamed ones.
    QStringList forgotten() const;
    // Once written, what the page shows is what is stored.
    void markWritten();

private:
    int indexOf(const QString& name, int skipping = -1) const;

    QList<Entry> entries_;
    QStringList removed_;
    bool modified_ = false;
};

} // namespace postiq
