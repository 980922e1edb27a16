#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <cstdint>

#include "platform/durable_file.h"

namespace postiq {

class Logs;

// One queued message and its queue file. Texts are bytes, stored exactly as received.
class CMessage {
public:
    explicit CMessage(Logs& logs);

    QByteArray ID;
    QByteArray TxtEng;
    QByteArray TxtFr;
    uint8_t Essai = 0;
    QByteArray LastError;
    bool ForSender = false;
    QByteArray From;
    QByteArray Data;

    // Recipient at an index (0 is always present and empty); an index beyond the list is a fault.
    QByteArray RcptTo(int index) const;
    void setRcptTo(int index, const QByteArray& address);
    // Number of recipients (index 0 not counted); more than 255 is a fault.
    uint8_t MRcptToCount() const;
    void AddRcptTo(const QByteArray& address);
    void OneRcptTo();
    // Empties From, RcptTo, Data and LastError and zeroes Essai; ID, TxtEng, TxtFr and ForSender stay.
    void MClear();

    // Reads the record of `path` (a missing file leaves the record as it was); a file that cannot
    // be read or holds no whole record is the fatal program-error report.
    void MOpen(const QString& path);
    // Writes the record over `path` in one step: at any instant the old file or the new one is
    // there. A failure is the fatal program-error report.
    void MWrite(const QString& path);
    // Writes the record under the staging name of `path`, without waiting for the disk: the file
    // takes its name once CommitStagedFiles has made it durable together with others. A failure
    // (a full disk) throws Fault and leaves no staging file: the message is refused, not the relay.
    StagedFile MStage(const QString& path);

    // The same two for callers that can go on: a failure throws Fault and changes nothing (the
    // record stays as it was, the file on disk as it was).
    void MLoad(const QString& path);
    void MSave(const QString& path);

private:
    Logs* logs_;
    QList<QByteArray> rcptTo_{QByteArray()};
};

// A new queue file name: two upper-case hexadecimal numbers below 983039, run together. It may
// already be taken: new queue files are named with FreshQueueName (store/fresh_queue_name.h).
QByteArray RandomFileGet(Logs& logs);

} // namespace postiq
