#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <deque>
#include <optional>

namespace postiq {

// The OutBox messages met while every connection to their exchanger was busy: they wait for one
// of those connections to take them, oldest first, rather than open one more. An exchanger is
// named by its key (a domain, or the fixed server); what a message's head says of it is kept
// here, so that no file's head is read twice for it.
class ExchangerBacklog {
public:
    // The message waits for a connection to `exchanger`.
    void wait(const QByteArray& name, const QByteArray& exchanger);
    // The exchanger a message waits for, if it waits.
    std::optional<QByteArray> exchangerOf(const QByteArray& name) const;
    // The message no longer waits (it is being delivered, or gone).
    void forget(const QByteArray& name);
    // The oldest message that waits for `exchanger`, taken off the backlog.
    std::optional<QByteArray> take(const QByteArray& exchanger);
    int size() const { return int(exchangerOf_.size()); }
    // The exchangers that messages may wait for (some perhaps for none any more).
    QList<QByteArray> exchangers() const { return waiting_.keys(); }

private:
    QHash<QByteArray, QByteArray> exchangerOf_;
    QHash<QByteArray, std::deque<QByteArray>> waiting_; // may hold names forgotten since: skipped
};

} // namespace postiq
