// The login of a provider route (smtp:// with STARTTLS required, smtps:// with TLS from the first
// byte), once its certificate has been checked and the secure EHLO answered. Every failure here
// fails the connection: there is no falling back to plain text or to no login.
#include <QDir>
#include <QSslSocket>

#include "config/settings.h"
#include "config/smtp_password.h"
#include "delivery/error_trap.h"
#include "delivery/outbound_session.h"
#include "delivery/socket_errors.h"
#include "log/dates.h"
#include "log/logs.h"
#include "platform/keyring.h"
#include "platform/owner_only_file.h"
#include "store/message.h"

namespace postiq {

namespace {
QByteArray number(int n) { return QByteArray::number(n); }

QByteArray passwordFileProblem(const QString& path, const OwnerOnlyFile& file)
{
    const QByteArray name = "The password file " + path.toUtf8();
    const QByteArray mode = QByteArray::number(file.mode, 8).rightJustified(4, '0');
    switch (file.problem) {
    case OwnerOnlyFile::Missing:
        return name + " is missing: create it with mode 0600 (readable by its owner only)";
    case OwnerOnlyFile::TooOpen:
        return name + " has mode " + mode + ": it must have mode 0600 (readable by its owner only)";
    case OwnerOnlyFile::OtherOwner:
        return name + " belongs to another user: it must belong to the user running Postiq, with mode 0600";
    case OwnerOnlyFile::NotAFile:
        return name + " is not a plain file: it must be one, with mode 0600";
    default:
        return name + " cannot be read: it must be readable by its owner, with mode 0600";
    }
}
} // namespace

// The password is looked up for each connection, so that a corrected one serves at the next try:
// in the keyring first; where none answers, or it holds none, in the file.
void OutboundSession::lookUpPassword()
{
    if (!settings_.keyring) {
        if (readPassword())
            resolveHost();
        return;
    }
    settings_.keyring->read(SmtpPasswordKey(logs_.folder()), this, [this](const KeyringAnswer& answer) {
        Trapped(logs_, "M:MAIN[SmtpDistant_Connect]", [&] {
            if (finished_)
                return; // the watchdog was quicker
            if (answer.status == KeyringAnswer::Done) {
                password_ = answer.secret;
                resolveHost();
            } else if (readPassword()) {
                resolveHost();
            }
        });
    });
}

bool OutboundSession::readPassword()
{
    const QString path = QDir(logs_.folder()).filePath(QString::fromLatin1(kSmtpPasswordFile));
    const OwnerOnlyFile file = ReadOwnerOnlyFile(path);
    if (file.problem == OwnerOnlyFile::None) {
        const qsizetype end = file.content.indexOf('\n');
        QByteArray password = end < 0 ? file.content : file.content.left(end);
        if (password.endsWith('\r'))
            password.chop(1);
        password_ = password;
        return true;
    }
    const QByteArray problem = passwordFileProblem(path, file);
    logs_.ErrorLog(GMTDate(logs_.clock()) + " " + problem);
    fail(ErrAuthFailed, problem);
    return false;
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
