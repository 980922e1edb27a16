#pragma once

#include <QByteArray>
#include <QHash>
#include <QSet>

namespace postiq {

// How many connections one exchanger (an MX domain, or the fixed server) gets at once. Each
// exchanger has a window that starts at `initial`, grows by one with every message it carries,
// up to `limit`, and shrinks by one whenever it answers and then fails (a 4xx greeting or reply,
// a reply out of place), never below one: a server that copes gets up to `limit`
// connections within a few messages, and one that throttles is met with fewer. An exchanger none
// of whose hosts answered at all is not shared: each message that waited for it goes over a
// connection of its own at once, so that a dead exchanger costs one time-out rather than one per
// message in turn; its first answer makes it shared again, with its window back at `initial`.
class ExchangerConcurrency {
public:
    // How a delivery to the exchanger ended, as far as its capacity goes.
    enum class Ending {
        Carried,  // a transaction reached its end (whatever the recipients' fates)
        Answered, // the server answered and refused the message for good
        Faltered, // the server answered, then failed for now
        Silent,   // no host of it answered
    };

    int initial = 5;
    int limit = 20;
    // A window that never moves (the tests' way of fixing the number of connections).
    void fix(int connections);

    void note(const QByteArray& exchanger, Ending ending);
    // The connections the exchanger may have at once.
    int window(const QByteArray& exchanger) const;
    bool shared(const QByteArray& exchanger) const { return !silent_.contains(exchanger); }
    // Whether `open` connections to the exchanger leave no room for another one.
    bool full(const QByteArray& exchanger, int open) const { return shared(exchanger) && open >= window(exchanger); }

private:
    QHash<QByteArray, int> windows_; // only the windows that moved away from `initial`
    QSet<QByteArray> silent_;
};

} // namespace postiq
