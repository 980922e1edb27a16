#pragma once

#include <QString>

namespace postiq {

// Moving a queue file between folders is CopyQueueFileDurably, then RemoveQueueFile: a crash in
// between leaves the message in both folders, never in none. Both throw Fault on failure.

// Replaces `to` with the bytes of `from`, durably; `from` is left as it is.
void CopyQueueFileDurably(const QString& from, const QString& to);

// Removes the file when it is there and makes the removal durable. A missing file is no fault.
void RemoveQueueFile(const QString& path);

} // namespace postiq
