#pragma once

#include <QIODevice>

namespace postiq {

class CMessage;

// Serialises a record as a queue file's bytes; throws Fault (ErrFileAccess) when the device
// refuses a write.
void WriteQueueRecord(QIODevice& device, const CMessage& message);

// Reads a record from the device's current position into `message`, replacing all its members.
// Throws Fault (ErrPastEndOfFile or ErrBadFileFormat) when the bytes do not hold a whole,
// well-formed record. Never reads past the device's end nor allocates more than the bytes left.
void ReadQueueRecord(QIODevice& device, CMessage& message);

} // namespace postiq
