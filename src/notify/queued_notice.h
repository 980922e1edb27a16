#pragma once

#include <QString>

#include "notify/notice.h"

namespace postiq {

// The notice about the message of a queue file: every recipient of the record shares its
// LastError, and the file's creation time stands for the message's arrival. The notice keeps the
// record's LastError. A missing or unreadable file is a Fault.
CMessage NoticeAboutQueueFile(Logs& logs, const Settings& settings, NoticeKind kind, const QString& path);

} // namespace postiq
