#include "ui/queue_counts.h"

namespace postiq {

QueueCounts::QueueCounts(Queue& queue, QObject* parent) : QObject(parent), queue_(queue) {}

QueueCounts::~QueueCounts()
{
    if (observer_)
        queue_.removeObserver(observer_);
}

void QueueCounts::start()
{
    if (!observer_)
        observer_ = queue_.addObserver(
            [this](QueueFolder folder, const QByteArray& name, QueueChange change) { apply(folder, name, change); });
    for (QSet<QByteArray>& names : names_)
        names.clear();
    for (const QueueEntry& entry : queue_.listAll())
        names_[int(entry.folder)].insert(entry.name);
    emit changed();
}

void QueueCounts::apply(QueueFolder folder, const QByteArray& name, QueueChange change)
{
    QSet<QByteArray>& names = names_[int(folder)];
    const qsizetype before = names.size();
    if (change == QueueChange::Added)
        names.insert(name);
    else if (change == QueueChange::Removed)
        names.remove(name);
    if (names.size() != before)
        emit changed();
}

} // namespace postiq
