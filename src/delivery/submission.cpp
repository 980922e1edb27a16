// The login of a provider route (smtp:// with STARTTLS required, smtps:// with TLS from the first
// byte), once its certificate has been checked and the secure EHLO answered. Every failure here
// fails the connection: there is no falling back to plain text or to no login.
#include <QSslSocket>

#include "config/settings.h"
#include "delivery/error_trap.h"
#include "delivery/outbound_session.h"
#include "delivery/route_password.h"
#include "delivery/socket_errors.h"
#include "log/dates.h"
#include "log/logs.h"
#include "store/message.h"

namespace postiq {

namespace {
QByteArray number(int n) { return QByteArray::number(n); }
} // namespace

// The password is looked up for each connection, so that a corrected one serves at the next try.
void OutboundSession::lookUpPassword()
{
    LookUpPassword(logs_, settings_, target_.routeName, this, [this](const PasswordLookup& lookup) {
        Trapped(logs_, "M:MAIN[SmtpDistant_Connect]", [&] {
            if (finished_)
                return; // the watchdog was quicker
            if (!lookup.found) {
                logs_.ErrorLog(GMTDate(logs_.clock()) + " " + lookup.problem);
                fail(ErrAuthFailed, lookup.problem);
                return;
            }
            password_ = lookup.password;
            resolveHost();
        });
    });
}

// Nothing of the login goes out before TLS is up.
void OutboundSession::authenticate(const ServerReply& reply)
{
    if (!socket_.isEncrypted()) {
        fail(ErrTlsFailed, "connection not encrypted");
        return;
    }
    const ServerRoute& route = target_.route;
    if (route.user.isEmpty()) {
        sendMailFrom(reply);
        return;
    }
    if (offered_.auth.contains("PLAIN")) {
        const QByteArray credentials = '\0' + route.user + '\0' + password_;
        sendSecret("AUTH PLAIN " + credentials.toBase64(), "AUTH PLAIN ****");
        password_.clear();
        setState(AuthSent);
    } else if (offered_.auth.contains("LOGIN")) {
        sendCommand("AUTH LOGIN");
        setState(AuthLoginSent);
    } else {
        fail(ErrAuthFailed, "neither AUTH PLAIN nor AUTH LOGIN offered");
    }
}

void OutboundSession::sendLoginUser(const ServerReply&)
{
    sendCommand(target_.route.user.toBase64());
    setState(AuthUserSent);
}

void OutboundSession::sendLoginPassword(const ServerReply&)
{
    sendSecret(password_.toBase64(), "****");
    password_.clear();
    setState(AuthSent);
}

void OutboundSession::sendSecret(const QByteArray& command, const QByteArray& shown)
{
    logs_.DbgAdd("<FONT COLOR='#0000FF'>Send to SMTPDISTANT[" + number(slot_) + "]: " + message().ID + " " + shown
                 + "\r\n</FONT><BR>");
    socket_.write(command + "\r\n");
    ++owed_;
}

} // namespace postiq
