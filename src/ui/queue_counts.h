#pragma once

#include <QObject>
#include <QSet>

#include "store/queue.h"

namespace postiq {

// How many messages wait (OutBox and Deferred) and how many failed (Error), counted once from the
// folders and then kept by the queue's change reports.
class QueueCounts : public QObject {
    Q_OBJECT
public:
    explicit QueueCounts(Queue& queue, QObject* parent = nullptr);
    ~QueueCounts() override;

    // Lists the folders and starts following the changes; again, it counts afresh.
    void start();

    int waiting() const { return int(names_[0].size() + names_[1].size()); }
    int failed() const { return int(names_[2].size()); }

signals:
    void changed();

private:
    void apply(QueueFolder folder, const QByteArray& name, QueueChange change);

    Queue& queue_;
    int observer_ = 0;
    QSet<QByteArray> names_[3]; // by folder
};

} // namespace postiq
