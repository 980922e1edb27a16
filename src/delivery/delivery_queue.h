#pragma once

#include <QByteArray>
#include <QString>

namespace postiq {

class CMessage;
class Logs;

// Every move that delivery makes in the queue folders, in one place. Each is crash-safe: the new
// file is on disk before the old one goes, so that a crash leaves a message twice at worst,
// never nowhere.
class DeliveryQueue {
public:
    explicit DeliveryQueue(Logs& logs) : logs_(logs) {}

    QString path(const char* folder, const QString& file) const;
    // The OutBox file is done with (sent, or replaced by what the caller queued).
    void remove(const QString& file);
    // `record` is written to `folder`/`name`, then the OutBox file `file` goes (none when empty).
    void moveTo(const char* folder, const QString& name, const CMessage& record, const QString& file);
    // A new OutBox file under a fresh name (a notice); its ID is that name, which is returned.
    QString enqueue(CMessage& record);
    // A fresh name for a second part of a message that a folder already holds under its own.
    QString freshName();
    // An OutBox file that cannot be read goes to Error as it is.
    void setAside(const QString& file);
    // A deferred file goes back to OutBox, its attempt count with it.
    void backToOutBox(const QString& deferredPath);

private:
    Logs& logs_;
};

} // namespace postiq
