#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <functional>

namespace postiq {

class Logs;
class Settings;

// What the lookup of a server's password found: the password, or the problem that a user must
// fix (a password file missing, too open, another user's), as the error log names it.
struct PasswordLookup {
    bool found = false;
    QByteArray password;
    QByteArray problem;
};

// The password of an outgoing server: `route` names a route of Routes.ini, or is empty for the
// SmtpServer setting. The keyring first; where none answers or it holds none, the 0600 file of
// the program folder ("smtp-password" or "smtp-password-NAME"). Looked up for each connection, so
// that a corrected password serves at the next try. `done` may be called inside the call (no
// keyring) or later (never once `context` is gone).
void LookUpPassword(Logs& logs, const Settings& settings, const QString& route, QObject* context,
                    std::function<void(const PasswordLookup&)> done);

} // namespace postiq
