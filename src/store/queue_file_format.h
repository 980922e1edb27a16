#pragma once

#include <QIODevice>

namespace postiq {

class CMessage;

// Serialises a record as a queue file's bytes; throws Fault (ErrFileAccess) when the device
// refuses a write.
void WriteQueueRecord(QIODevice& device, const CMessage& message);

// The members before Data only, for a writer that streams the text after them: the text follows
// as its count (LongTextCount, which serves any size) and its bytes.
void WriteQueueRecordHead(QIODevice& device, const CMessage& message);
// The 6 bytes that give a text's size in the long form.
QByteArray LongTextCount(quint32 size);

// Reads a record from the device's current position into `message`, replacing all its members.
// Throws Fault (ErrPastEndOfFile or ErrBadFileFormat) when the bytes do not hold a whole,
// well-formed record. Never reads past the device's end nor allocates more than the bytes left.
void ReadQueueRecord(QIODevice& device, CMessage& message);

// The members before Data only, leaving Data empty and the device at the first byte of the text;
// returns the text's size, which the device is checked to hold.
qint64 ReadQueueRecordHead(QIODevice& device, CMessage& message);

} // namespace postiq
