// The secure opening of a submission route (smtp:// with STARTTLS, smtps:// with TLS from the
// first byte) and the login, before the session joins the plain dialogue at MAIL FROM. Nothing of
// the login or the mail is sent before TLS is up, and every failure here fails the connection:
// there is no falling back to plain text.
#include <QDir>
#include <QHostAddress>
#include <QSslCipher>
#include <QSslSocket>

#include "config/settings.h"
#include "delivery/dispatcher.h"
#include "delivery/error_trap.h"
#include "delivery/outbound_session.h"
#include "delivery/socket_errors.h"
#include "delivery/tls_trust.h"
#include "log/logs.h"
#include "log/dates.h"
#include "platform/owner_only_file.h"

namespace postiq {

namespace {
const QByteArray kPasswordFile = "smtp-password";

QByteArray number(int n) { return QByteArray::number(n); }

QList<QByteArray> replyLines(const QByteArray& reply)
{
    QList<QByteArray> lines;
    for (QByteArray line : reply.split('\n')) {
        if (line.endsWith('\r'))
            line.chop(1);
        if (!line.isEmpty())
            lines << line;
    }
    return lines;
}

// The words of the EHLO reply's extension line for `keyword` (after "250-" or "250 "), without
// the keyword; nullopt when the server does not offer it. "AUTH=PLAIN" reads as "AUTH PLAIN".
std::optional<QList<QByteArray>> extension(const QByteArray& reply, const QByteArray& keyword)
{
    for (const QByteArray& line : replyLines(reply)) {
        QList<QByteArray> words = line.mid(4).toUpper().replace('=', ' ').simplified().split(' ');
        if (words.value(0) == keyword) {
            words.removeFirst();
            return words;
        }
    }
    return std::nullopt;
}

QByteArray firstLine(const QByteArray& reply) { return replyLines(reply).value(0); }

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

bool OutboundSession::inOpening(uint8_t n) const
{
    if (!opening_[n].route.submission())
        return false;
    switch (tables_.CnxOut(n).Status()) {
    case Connecting:
    case EhloSent:
    case StartTlsSent:
    case TlsHandshake:
    case SecureEhloSent:
    case AuthSent:
    case AuthLoginSent:
    case AuthUserSent:
        return true;
    default:
        return false;
    }
}

void OutboundSession::startConnection(uint8_t n, const QHostAddress& address)
{
    QTcpSocket* socket = tables_.SmtpDistant(n);
    const ServerRoute& route = opening_[n].route;
    if (!route.submission()) {
        socket->connectToHost(address, route.port);
        return;
    }
    auto* tls = qobject_cast<QSslSocket*>(socket);
    if (!tls)
        throw Fault(ErrInvalidCall, QStringLiteral("SmtpDistant(%1): not a TLS socket").arg(n));
    if (!route.user.isEmpty() && !readPassword(n))
        return;
    tls->setSslConfiguration(SubmissionTlsConfiguration());
    tls->setPeerVerifyName(route.host);
    if (route.security == Security::ImplicitTls)
        tls->connectToHostEncrypted(address.toString(), route.port, route.host);
    else
        tls->connectToHost(address, route.port);
}

// The password is read for each connection, so that a corrected file serves at the next try.
bool OutboundSession::readPassword(uint8_t n)
{
    const QString path = QDir(logs_.folder()).filePath(QString::fromLatin1(kPasswordFile));
    const OwnerOnlyFile file = ReadOwnerOnlyFile(path);
    if (file.problem == OwnerOnlyFile::None) {
        const qsizetype end = file.content.indexOf('\n');
        QByteArray password = end < 0 ? file.content : file.content.left(end);
        if (password.endsWith('\r'))
            password.chop(1);
        opening_[n].password = password;
        return true;
    }
    const QByteArray problem = passwordFileProblem(path, file);
    logs_.ErrorLog(GMTDate(logs_.clock()) + " " + problem);
    SmtpDistant_Error(n, ErrAuthFailed, problem);
    return false;
}

void OutboundSession::encrypted(uint8_t n, QTcpSocket* socket)
{
    Trapped(logs_, "M:MAIN[SmtpDistant_Encrypted]", [&] {
        if (!owns(n, socket))
            return;
        auto* tls = static_cast<QSslSocket*>(socket);
        logs_.DbgAdd("<FONT COLOR='#0000FF'>TLS for SMTPDISTANT[" + number(n) + "]: " + loggedId() + " "
                     + tls->sessionCipher().protocolString().toUtf8() + " " + tls->sessionCipher().name().toUtf8()
                     + "</FONT><BR>");
        CConnexion& cnx = tables_.CnxOut(n);
        if (cnx.Status() != TlsHandshake)
            return; // smtps://: the greeting comes next
        cnx.setStatus(SecureEhloSent);
        sendEhloCommand(n);
    });
}

// ---- the opening table's actions ----

void OutboundSession::sendEhlo(Reply& reply)
{
    const bool startTls = opening_[reply.n].route.security == Security::StartTls;
    reply.cnx.setStatus(startTls ? EhloSent : SecureEhloSent);
    sendEhloCommand(reply.n);
    dispatcher_.VerifOutBox();
}

void OutboundSession::sendStartTls(Reply& reply)
{
    if (!extension(reply.text, "STARTTLS")) {
        SmtpDistant_Error(reply.n, ErrNoStartTls, "STARTTLS not offered: " + firstLine(reply.text));
        return;
    }
    reply.cnx.setStatus(StartTlsSent);
    sendCommand(reply.n, "STARTTLS");
}

void OutboundSession::startTls(Reply& reply)
{
    auto* tls = static_cast<QSslSocket*>(tables_.SmtpDistant(reply.n));
    // Anything after the go-ahead came in plain text and could pass for the server's word.
    if (replyLines(reply.text).size() != 1 || tls->bytesAvailable() > 0) {
        SmtpDistant_Error(reply.n, ErrTlsFailed, "plain text after the STARTTLS go-ahead");
        return;
    }
    reply.cnx.setStatus(TlsHandshake);
    tls->startClientEncryption();
}

void OutboundSession::authenticate(Reply& reply)
{
    const uint8_t n = reply.n;
    auto* tls = static_cast<QSslSocket*>(tables_.SmtpDistant(n));
    if (!tls->isEncrypted()) {
        SmtpDistant_Error(n, ErrTlsFailed, "connection not encrypted");
        return;
    }
    const Opening& opening = opening_[n];
    if (opening.route.user.isEmpty()) {
        authenticated(reply);
        return;
    }
    const QList<QByteArray> mechanisms = extension(reply.text, "AUTH").value_or(QList<QByteArray>{});
    if (mechanisms.contains("PLAIN")) {
        reply.cnx.setStatus(AuthSent);
        const QByteArray credentials = '\0' + opening.route.user + '\0' + opening.password;
        sendSecret(n, "AUTH PLAIN " + credentials.toBase64(), "AUTH PLAIN ****");
        opening_[n].password.clear();
    } else if (mechanisms.contains("LOGIN")) {
        reply.cnx.setStatus(AuthLoginSent);
        sendCommand(n, "AUTH LOGIN");
    } else {
        SmtpDistant_Error(n, ErrAuthFailed, "neither AUTH PLAIN nor AUTH LOGIN offered");
    }
}

void OutboundSession::sendLoginUser(Reply& reply)
{
    reply.cnx.setStatus(AuthUserSent);
    sendCommand(reply.n, opening_[reply.n].route.user.toBase64());
}

void OutboundSession::sendLoginPassword(Reply& reply)
{
    reply.cnx.setStatus(AuthSent);
    sendSecret(reply.n, opening_[reply.n].password.toBase64(), "****");
    opening_[reply.n].password.clear();
}

// From here the dialogue is the plain one, as if HELO had just been answered.
void OutboundSession::authenticated(Reply& reply)
{
    reply.cnx.setStatus(HeloSent);
    sendMailFrom(reply);
}

void OutboundSession::noStartTls(Reply& reply)
{
    SmtpDistant_Error(reply.n, ErrNoStartTls, firstLine(reply.text));
}

void OutboundSession::authenticationFailed(Reply& reply)
{
    SmtpDistant_Error(reply.n, ErrAuthFailed, firstLine(reply.text));
}

// ---- shared steps ----

void OutboundSession::sendEhloCommand(uint8_t n)
{
    QByteArray name = settings_.LocalHostName.toUtf8();
    name.replace('\0', QByteArray());
    sendCommand(n, "EHLO " + name);
}

void OutboundSession::sendSecret(uint8_t n, const QByteArray& command, const QByteArray& shown)
{
    logs_.DbgAdd("<FONT COLOR='#0000FF'>Send to SMTPDISTANT[" + number(n) + "]: " + loggedId() + " " + shown
                 + "\r\n</FONT><BR>");
    tables_.SmtpDistant(n)->write(command + "\r\n");
}

} // namespace postiq
