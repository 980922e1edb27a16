#pragma once

#include <QByteArray>
#include <QFile>

#include "store/queue.h"

namespace postiq {

class CMessage;

// Reads one queued message's text in chunks, so that sending it, quoting it in a notice or
// showing it costs a chunk of memory whatever its size. The record's other fields come with it.
// A file that is missing, torn or foreign is a QueueFault, from the constructor or from read().
class QueueTextReader {
public:
    QueueTextReader(const Queue& queue, QueueFolder folder, const QByteArray& name, CMessage& head);

    qint64 size() const { return size_; }
    qint64 left() const { return size_ - done_; }
    bool atEnd() const { return done_ >= size_; }
    // At most `max` bytes of the text, never empty before the end; empty at the end.
    QByteArray read(qint64 max);
    // Back to the text's first byte.
    void rewind();

private:
    QFile file_;
    qint64 start_ = 0;
    qint64 size_ = 0;
    qint64 done_ = 0;
};

} // namespace postiq
