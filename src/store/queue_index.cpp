#include "store/queue_index.h"

#include <QList>

namespace postiq {

void QueueIndex::addOutBox(const QByteArray& name)
{
    if (outBoxOrder_.contains(name))
        return;
    outBoxOrder_.insert(name, nextOrder_);
    outBox_.emplace(nextOrder_++, name);
}

void QueueIndex::removeOutBox(const QByteArray& name)
{
    const auto found = outBoxOrder_.constFind(name);
    if (found == outBoxOrder_.cend())
        return;
    outBox_.erase(*found);
    outBoxOrder_.erase(found);
}

std::optional<QByteArray> QueueIndex::nextOutBox(const std::function<bool(const QByteArray&)>& skip) const
{
    quint64 place = 0;
    return nextOutBoxFrom(place, skip);
}

std::optional<QByteArray> QueueIndex::nextOutBoxFrom(quint64& place,
                                                     const std::function<bool(const QByteArray&)>& skip) const
{
    for (auto it = outBox_.lower_bound(place); it != outBox_.end(); ++it) {
        if (!skip || !skip(it->second)) {
            place = it->first;
            return it->second;
        }
    }
    place = nextOrder_;
    return std::nullopt;
}

QList<QByteArray> QueueIndex::outBoxNames() const
{
    QList<QByteArray> names;
    names.reserve(qsizetype(outBox_.size()));
    for (const auto& [order, name] : outBox_)
        names.append(name);
    return names;
}

void QueueIndex::addDeferred(const QByteArray& name, const QDateTime& deferredAt)
{
    removeDeferred(name);
    const qint64 at = deferredAt.toMSecsSinceEpoch();
    deferredAt_.insert(name, at);
    byTime_.emplace(at, name);
}

void QueueIndex::removeDeferred(const QByteArray& name)
{
    const auto found = deferredAt_.constFind(name);
    if (found == deferredAt_.cend())
        return;
    for (auto [it, end] = byTime_.equal_range(*found); it != end; ++it) {
        if (it->second == name) {
            byTime_.erase(it);
            break;
        }
    }
    deferredAt_.erase(found);
}

QList<QByteArray> QueueIndex::deferredUntil(const std::optional<QDateTime>& latest) const
{
    QList<QByteArray> names;
    const auto end = latest ? byTime_.upper_bound(latest->toMSecsSinceEpoch()) : byTime_.end();
    for (auto it = byTime_.begin(); it != end; ++it)
        names.append(it->second);
    return names;
}

std::optional<QDateTime> QueueIndex::earliestDeferral() const
{
    if (byTime_.empty())
        return std::nullopt;
    return QDateTime::fromMSecsSinceEpoch(byTime_.begin()->first);
}

} // namespace postiq
