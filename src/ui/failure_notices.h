#pragma once

#include <QByteArrayList>
#include <QObject>
#include <QTimer>
#include <chrono>
#include <functional>

#include "store/queue.h"

namespace postiq {

class Logs;

// What the user must hear of without looking: a bounce sent back to a sender, a message moved to
// Error. Heard from the queue's change reports; what happens close together (within the grouping
// time of the first) makes one notice, so that a failing batch gives one message, not a hundred.
class FailureNotices : public QObject {
    Q_OBJECT
public:
    // The notice's words in the loaded language, looked up when it is told.
    using Text = std::function<QString(const char* name, const QString& french)>;

    FailureNotices(Queue& queue, Logs& logs, Text text, std::chrono::milliseconds grouping = std::chrono::seconds(2),
                   QObject* parent = nullptr);
    ~FailureNotices() override;

    // True for a queued notice that tells of a failure for good, judged from its record and the
    // start of its text.
    static bool isBounce(bool forSender, const QByteArray& textStart);

signals:
    // One notice: its lines, joined by line ends.
    void notice(const QString& text);

private:
    void heard(QueueFolder folder, const QByteArray& name, QueueChange change);
    void tell();

    Queue& queue_;
    Logs& logs_;
    Text text_;
    int observer_ = 0;
    QByteArrayList errors_;
    QByteArrayList bounced_; // to whom each bounce goes
    QTimer grouping_;
};

} // namespace postiq
