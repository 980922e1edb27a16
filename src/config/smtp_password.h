#pragma once

#include <QString>

namespace postiq {

// The outgoing server's password is no setting: it lives in the desktop keyring where one
// answers, else in this file of the program folder, readable by its owner only (mode 0600).
inline constexpr char kSmtpPasswordFile[] = "smtp-password";

// The keyring entry that holds the password of the program folder's outgoing server: one per
// folder, as the file is.
inline QString SmtpPasswordKey(const QString& programFolder)
{
    return QString::fromLatin1(kSmtpPasswordFile) + u' ' + programFolder;
}

// A route of Routes.ini has its own password: the file "smtp-password-NAME" beside the other,
// and its own keyring entry.
inline QString RoutePasswordFile(const QString& route)
{
    return QString::fromLatin1(kSmtpPasswordFile) + u'-' + route;
}

inline QString RoutePasswordKey(const QString& programFolder, const QString& route)
{
    return RoutePasswordFile(route) + u' ' + programFolder;
}

} // namespace postiq
