#pragma once

#include <QString>

#include "notify/notice.h"

namespace postiq {

// A notice about a message read back from its queue file: every recipient of the record shares
// its LastError, and the file's creation time stands for the message's arrival.
NoticeRequest NoticeAboutQueueFile(NoticeKind kind, const CMessage& message, const QString& path);

} // namespace postiq
