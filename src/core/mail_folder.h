#pragma once

#include <QString>

namespace postiq {

// The folder of the system relay that the postiq-mta package sets up; used by the sendmail
// interface and the queue commands when the caller may queue there.
inline constexpr char kSystemMailFolder[] = "/var/lib/postiq";

// The program folder that the sendmail interface queues into and the queue commands work on:
// `option` (--folder) when given, else $POSTIQ_FOLDER, else the system relay's folder when its
// OutBox is there and writable by this user, else the user's data folder
// (${XDG_DATA_HOME:-~/.local/share}/postiq), as the desktop program uses.
QString MailFolder(const QString& option);

} // namespace postiq
