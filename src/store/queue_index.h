#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QHash>
#include <functional>
#include <map>
#include <optional>

namespace postiq {

// What waits in OutBox and Deferred, kept in memory so that finding the next message to send and
// the next deferred file to fall due costs the same with ten files queued or fifty thousand.
// OutBox keeps the order in which files came; Deferred keeps each file's deferral time, earliest
// first. The queue keeps it by its own changes; it knows nothing of the disk itself.
class QueueIndex {
public:
    // ---- OutBox ----
    void addOutBox(const QByteArray& name);
    void removeOutBox(const QByteArray& name);
    bool inOutBox(const QByteArray& name) const { return outBoxOrder_.contains(name); }
    qsizetype outBoxSize() const { return outBoxOrder_.size(); }
    QList<QByteArray> outBoxNames() const;
    // The oldest file for which `skip` says false; costs the files skipped, no more.
    std::optional<QByteArray> nextOutBox(const std::function<bool(const QByteArray&)>& skip) const;
    // The same from a place in OutBox's order that an earlier walk reached, so that files known to
    // be taken are not passed over again; `place` moves to the file returned (past all when none).
    // Files added later always come after every place handed out.
    std::optional<QByteArray> nextOutBoxFrom(quint64& place,
                                             const std::function<bool(const QByteArray&)>& skip) const;

    // ---- Deferred ----
    void addDeferred(const QByteArray& name, const QDateTime& deferredAt);
    void removeDeferred(const QByteArray& name);
    bool inDeferred(const QByteArray& name) const { return deferredAt_.contains(name); }
    qsizetype deferredSize() const { return deferredAt_.size(); }
    // The files deferred at or before `latest` (all when none is given), earliest first.
    QList<QByteArray> deferredUntil(const std::optional<QDateTime>& latest) const;
    std::optional<QDateTime> earliestDeferral() const;

private:
    // OutBox: arrival order by a counter that only grows.
    std::map<quint64, QByteArray> outBox_;
    QHash<QByteArray, quint64> outBoxOrder_;
    quint64 nextOrder_ = 0;
    // Deferred: by deferral time (ms since the epoch), then by name.
    std::multimap<qint64, QByteArray> byTime_;
    QHash<QByteArray, qint64> deferredAt_;
};

} // namespace postiq
