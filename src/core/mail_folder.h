#pragma once

#include <QString>

namespace postiq {

// The folder of the system relay (postiq.service), whose control socket is in /run/postiq.
inline constexpr char kSystemMailFolder[] = "/var/lib/postiq";

// The file through which the postiq-mta package points sendmail and mailq at the system relay's
// folder: a line "Folder /var/lib/postiq".
inline constexpr char kSendmailConfiguration[] = "/etc/postiq/sendmail.conf";

// The program folder that the sendmail interface queues into and the queue commands work on:
// `option` (--folder) when given, else $POSTIQ_FOLDER, else the Folder line of `configuration`
// (the postiq-mta package's), else the user's data folder (${XDG_DATA_HOME:-~/.local/share}/postiq),
// as the desktop program uses.
QString MailFolder(const QString& option, const QString& configuration = QString::fromLatin1(kSendmailConfiguration));

} // namespace postiq
