#include "delivery/route_check.h"

#include <QCoreApplication>
#include <QPointer>
#include <QSslCertificate>
#include <QSslCipher>
#include <QSslError>
#include <QSslSocket>
#include <QTimer>

#include "config/settings.h"
#include "delivery/error_trap.h"
#include "delivery/outbound_session.h"
#include "delivery/reply_reader.h"
#include "delivery/route_password.h"
#include "delivery/tls_trust.h"

namespace postiq {

namespace {

// Where the dialogue stands, and what a silence or a closed connection there means.
namespace Step {
enum : int {
    NotStarted,
    Connecting,     // the connection asked for
    Greeting,       // open, waiting for the greeting (over TLS already for smtps://)
    EhloSent,
    HeloSent,       // a plain route whose server refused EHLO
    StartTlsSent,
    TlsHandshake,
    SecureEhloSent,
    PasswordWanted, // the keyring or the password file asked
    AuthLoginSent,
    AuthUserSent,
    AuthSent,
    QuitSent,
    Over,
};
} // namespace Step

const char* waitingFor(int state)
{
    switch (state) {
    case Step::Greeting: return "the greeting";
    case Step::EhloSent: return "the reply to EHLO";
    case Step::HeloSent: return "the reply to HELO";
    case Step::StartTlsSent: return "the reply to STARTTLS";
    case Step::TlsHandshake: return "the TLS handshake";
    case Step::SecureEhloSent: return "the reply to EHLO over TLS";
    case Step::PasswordWanted: return "the password from the keyring";
    case Step::AuthLoginSent:
    case Step::AuthUserSent:
    case Step::AuthSent: return "the reply to AUTH";
    default: return "the connection";
    }
}

// The command whose reply is awaited in a state.
const char* commandOf(int state)
{
    switch (state) {
    case Step::EhloSent:
    case Step::SecureEhloSent: return "EHLO";
    case Step::HeloSent: return "HELO";
    case Step::StartTlsSent: return "STARTTLS";
    case Step::QuitSent: return "QUIT";
    default: return "AUTH";
    }
}

enum ReplyClass : int { Nonsense = 0, Positive = 2, Intermediate = 3, Transient = 4, Permanent = 5, AnyClass = -1 };
constexpr int kAnyState = -1;

// A person waits for the answer: a server silent for a minute is reported as not answering.
constexpr OutboundTimeouts kCheckTimeouts{std::chrono::seconds(30), std::chrono::seconds(60)};
// The reply to QUIT is a courtesy: the check is already over when it does not come.
constexpr std::chrono::seconds kQuitTime{5};

// A server's words as one printable line, never longer than a terminal line or two.
QString shown(const QByteArray& text)
{
    QByteArray line;
    for (const char c : text.left(200))
        line += (uchar(c) < 0x20 || uchar(c) == 0x7f) ? '?' : c;
    return QString::fromUtf8(line) + (text.size() > 200 ? QStringLiteral("...") : QString());
}

QString shown(const ServerReply& reply) { return shown(reply.lines.join(" / ")); }

QString seconds(std::chrono::milliseconds limit)
{
    return QString::number(double(limit.count()) / 1000.0, 'g', 3) + QStringLiteral(" s");
}

// What the certificate checks found, in the user's terms.
QString certificateProblems(const QList<QSslError>& errors, const QString& host)
{
    QStringList problems;
    const auto add = [&](const QString& problem) {
        if (!problems.contains(problem))
            problems << problem;
    };
    for (const QSslError& error : errors) {
        const QSslCertificate certificate = error.certificate();
        switch (error.error()) {
        case QSslError::HostNameMismatch: {
            QStringList names;
            const auto alternatives = certificate.subjectAlternativeNames();
            for (auto it = alternatives.cbegin(); it != alternatives.cend(); ++it)
                names << it.value();
            if (names.isEmpty())
                names = certificate.subjectInfo(QSslCertificate::CommonName);
            add(QStringLiteral("certificate is for %1, not %2")
                    .arg(names.isEmpty() ? QStringLiteral("another name") : names.join(QStringLiteral(", ")), host));
            break;
        }
        case QSslError::CertificateExpired:
            add(QStringLiteral("certificate expired on %1").arg(certificate.expiryDate().toUTC().toString(Qt::ISODate)));
            break;
        case QSslError::CertificateNotYetValid:
            add(QStringLiteral("certificate not valid before %1")
                    .arg(certificate.effectiveDate().toUTC().toString(Qt::ISODate)));
            break;
        case QSslError::SelfSignedCertificate:
            add(QStringLiteral("certificate not trusted (self-signed)"));
            break;
        case QSslError::SelfSignedCertificateInChain:
        case QSslError::UnableToGetIssuerCertificate:
        case QSslError::UnableToGetLocalIssuerCertificate:
        case QSslError::UnableToVerifyFirstCertificate:
        case QSslError::CertificateUntrusted:
        case QSslError::CertificateRejected:
        case QSslError::InvalidCaCertificate: {
            const QStringList issuer = certificate.issuerInfo(QSslCertificate::CommonName);
            add(QStringLiteral("certificate not trusted (issued by %1)")
                    .arg(issuer.isEmpty() ? QStringLiteral("an unknown authority") : issuer.join(QStringLiteral(", "))));
            break;
        }
        default:
            add(QStringLiteral("certificate refused: ") + error.errorString());
        }
    }
    return problems.join(QStringLiteral("; "));
}

} // namespace

struct RouteCheck::Row {
    int state;      // kAnyState: whatever the state
    int replyClass; // AnyClass: whatever the reply
    Action action;
};

// The server's replies, tried in order: the first row whose state and reply class match is
// applied. The check goes one way only: any reply no row expects ends it.
const RouteCheck::Row RouteCheck::kRows[] = {
    // State              Reply         Action
    {kAnyState,            Nonsense,     &RouteCheck::unexpected},
    {Step::QuitSent,       AnyClass,     &RouteCheck::quitAnswered},
    {Step::Greeting,       Positive,     &RouteCheck::greeted},
    {Step::EhloSent,       Positive,     &RouteCheck::afterEhlo},
    {Step::EhloSent,       Permanent,    &RouteCheck::sendHelo},
    {Step::HeloSent,       Positive,     &RouteCheck::loggedIn},
    {Step::StartTlsSent,   Positive,     &RouteCheck::startTls},
    {Step::SecureEhloSent, Positive,     &RouteCheck::afterSecureEhlo},
    {Step::AuthLoginSent,  Intermediate, &RouteCheck::sendLoginUser},
    {Step::AuthUserSent,   Intermediate, &RouteCheck::sendLoginPassword},
    {Step::AuthSent,       Positive,     &RouteCheck::loggedIn},
    {Step::AuthLoginSent,  AnyClass,     &RouteCheck::loginRefused},
    {Step::AuthUserSent,   AnyClass,     &RouteCheck::loginRefused},
    {Step::AuthSent,       AnyClass,     &RouteCheck::loginRefused},
    {kAnyState,            Transient,    &RouteCheck::refused},
    {kAnyState,            Permanent,    &RouteCheck::refused},
    {kAnyState,            AnyClass,     &RouteCheck::unexpected},
};

struct RouteCheck::Private {
    Private(Logs& l, const Settings& s, SenderRoute r) : logs(l), settings(s), route(std::move(r)) {}

    Logs& logs;
    const Settings& settings;
    SenderRoute route;
    OutboundTimeouts timeouts = kCheckTimeouts;
    QPointer<QSslSocket> socket; // no child of the check: it may outlive it to say QUIT
    QTimer watchdog;
    ReplyReader reader;
    Extensions offered;
    int state = Step::NotStarted;
    QStringList worked;          // what went well, in order
    QList<QSslError> sslErrors;  // what the certificate check found
    QByteArray password;         // held from its lookup to the AUTH command only
    QByteArray mechanism;        // "PLAIN" or "LOGIN"
};

RouteCheck::RouteCheck(Logs& logs, const Settings& settings, SenderRoute route, QObject* parent)
    : QObject(parent), d_(std::make_unique<Private>(logs, settings, std::move(route)))
{
    d_->watchdog.setSingleShot(true);
    connect(&d_->watchdog, &QTimer::timeout, this, &RouteCheck::watchdogExpired);
}

RouteCheck::~RouteCheck()
{
    if (d_->socket) {
        d_->socket->disconnect(this);
        d_->socket->abort();
        d_->socket->deleteLater();
    }
}

void RouteCheck::setTimeouts(const OutboundTimeouts& timeouts) { d_->timeouts = timeouts; }

void RouteCheck::start()
{
    if (d_->state != Step::NotStarted)
        return;
    d_->state = Step::Connecting;
    // Never from inside start(): whoever asked connects to finished() first.
    QTimer::singleShot(0, this, [this] { Trapped(d_->logs, "M:ROUTECHECK[Connect]", [&] { connectToServer(); }); });
}

void RouteCheck::connectToServer()
{
    const ServerRoute& route = d_->route.route;
    // The application owns it, so that one still saying QUIT when the program ends goes with it.
    auto* socket = new QSslSocket(QCoreApplication::instance());
    d_->socket = socket;
    connect(socket, &QSslSocket::connected, this, &RouteCheck::connected);
    connect(socket, &QSslSocket::readyRead, this, &RouteCheck::dataArrived);
    connect(socket, &QSslSocket::encrypted, this, &RouteCheck::encrypted);
    connect(socket, &QSslSocket::sslErrors, this, [this](const QList<QSslError>& errors) { d_->sslErrors += errors; });
    // Queued: a socket may report a failure from inside one of its own calls.
    connect(socket, &QSslSocket::errorOccurred, this, &RouteCheck::socketError, Qt::QueuedConnection);
    if (route.submission()) {
        socket->setSslConfiguration(SubmissionTlsConfiguration());
        socket->setPeerVerifyName(route.host);
    }
    armWatchdog(Step::Connecting);
    if (route.security == Security::ImplicitTls)
        socket->connectToHostEncrypted(route.host, route.port);
    else
        socket->connectToHost(route.host, route.port);
}

// ---- socket and timer events ----

void RouteCheck::connected()
{
    d_->worked << QStringLiteral("port %1 open").arg(d_->route.route.port);
    d_->state = d_->route.route.security == Security::ImplicitTls ? Step::TlsHandshake : Step::Greeting;
    armWatchdog(d_->state);
}

void RouteCheck::dataArrived()
{
    Trapped(d_->logs, "M:ROUTECHECK[DataArrival]", [&] {
        if (!d_->socket || d_->state == Step::Over)
            return;
        const QByteArray text = d_->socket->readAll();
        if (text.isEmpty())
            return;
        d_->reader.feed(text);
        while (d_->state != Step::Over) {
            const std::optional<ServerReply> reply = d_->reader.next();
            if (!reply)
                break;
            handle(*reply);
        }
    });
}

void RouteCheck::handle(const ServerReply& reply)
{
    for (const Row& row : kRows) {
        if ((row.state == kAnyState || row.state == d_->state)
            && (row.replyClass == AnyClass || row.replyClass == reply.replyClass())) {
            (this->*row.action)(reply);
            return;
        }
    }
}

void RouteCheck::encrypted()
{
    Trapped(d_->logs, "M:ROUTECHECK[Encrypted]", [&] {
        if (d_->state == Step::Over)
            return;
        d_->worked << d_->socket->sessionCipher().protocolString() + QStringLiteral(", certificate valid");
        if (d_->route.route.security == Security::ImplicitTls) {
            d_->state = Step::Greeting; // the greeting comes over TLS
            armWatchdog(Step::Greeting);
            return;
        }
        d_->reader.clear();
        sendCommand("EHLO " + OutboundSession::GreetingName(d_->settings.LocalHostName, d_->socket->localAddress()),
                    Step::SecureEhloSent);
    });
}

void RouteCheck::socketError()
{
    Trapped(d_->logs, "M:ROUTECHECK[Error]", [&] {
        if (!d_->socket || d_->state == Step::Over)
            return;
        const ServerRoute& route = d_->route.route;
        if (d_->state == Step::QuitSent) {
            succeed(); // gone before its goodbye: everything that matters was done
            return;
        }
        if (d_->state == Step::TlsHandshake) {
            const QString problems = certificateProblems(d_->sslErrors, route.host);
            fail(problems.isEmpty() ? QStringLiteral("TLS handshake failed: ") + d_->socket->errorString() : problems);
            return;
        }
        switch (d_->socket->error()) {
        case QAbstractSocket::ConnectionRefusedError:
            fail(QStringLiteral("port %1 refused the connection (nothing listens there)").arg(route.port));
            break;
        case QAbstractSocket::HostNotFoundError:
            fail(QStringLiteral("host %1 not found").arg(route.host));
            break;
        case QAbstractSocket::RemoteHostClosedError:
            fail(QStringLiteral("the server closed the connection while Postiq waited for %1").arg(QLatin1String(waitingFor(d_->state))));
            break;
        default:
            fail(QStringLiteral("connection failed while Postiq waited for %1: %2")
                     .arg(QLatin1String(waitingFor(d_->state)), d_->socket->errorString()));
        }
    });
}

void RouteCheck::watchdogExpired()
{
    Trapped(d_->logs, "M:ROUTECHECK[Timeout]", [&] {
        const ServerRoute& route = d_->route.route;
        if (d_->state == Step::QuitSent)
            succeed();
        else if (d_->state == Step::Connecting)
            fail(QStringLiteral("no connection to port %1 within %2 (a firewall, or the wrong port?)")
                     .arg(route.port)
                     .arg(seconds(d_->timeouts.connect)));
        else
            fail(QStringLiteral("no answer within %1 while Postiq waited for %2")
                     .arg(seconds(d_->timeouts.silence), QLatin1String(waitingFor(d_->state))));
    });
}

// ---- the reply table's actions ----

void RouteCheck::greeted(const ServerReply&)
{
    const bool secure = d_->socket->isEncrypted();
    sendCommand("EHLO " + OutboundSession::GreetingName(d_->settings.LocalHostName, d_->socket->localAddress()),
                secure ? Step::SecureEhloSent : Step::EhloSent);
}

void RouteCheck::afterEhlo(const ServerReply& reply)
{
    d_->offered = Extensions::fromEhloReply(reply);
    switch (d_->route.route.security) {
    case Security::StartTls:
        if (!d_->offered.startTls) {
            fail(QStringLiteral("no STARTTLS offered: the server does not encrypt on port %1 (smtps:// for TLS from the first byte?)")
                     .arg(d_->route.route.port));
            return;
        }
        sendCommand("STARTTLS", Step::StartTlsSent);
        return;
    default:
        // A plain route neither encrypts nor logs in: its server answering is all there is.
        d_->worked << QStringLiteral("EHLO answered (plain SMTP, no TLS, no login)");
        sendQuit();
    }
}

void RouteCheck::sendHelo(const ServerReply& reply)
{
    if (d_->route.route.submission()) {
        refused(reply);
        return;
    }
    sendCommand("HELO " + OutboundSession::GreetingName(d_->settings.LocalHostName, d_->socket->localAddress()),
                Step::HeloSent);
}

void RouteCheck::startTls(const ServerReply& reply)
{
    // Anything after the go-ahead came in plain text and could pass for the server's word.
    if (reply.code != 220 || d_->reader.hasPartialReply() || d_->socket->bytesAvailable() > 0) {
        fail(QStringLiteral("plain text after the STARTTLS go-ahead: ") + shown(reply));
        return;
    }
    d_->worked << QStringLiteral("STARTTLS");
    d_->state = Step::TlsHandshake;
    armWatchdog(Step::TlsHandshake);
    d_->socket->startClientEncryption();
}

void RouteCheck::afterSecureEhlo(const ServerReply& reply)
{
    d_->offered = Extensions::fromEhloReply(reply);
    if (d_->route.route.user.isEmpty()) {
        d_->worked << QStringLiteral("no login set");
        sendQuit();
        return;
    }
    if (d_->offered.auth.contains("PLAIN"))
        d_->mechanism = "PLAIN";
    else if (d_->offered.auth.contains("LOGIN"))
        d_->mechanism = "LOGIN";
    if (d_->mechanism.isEmpty()) {
        fail(d_->offered.auth.isEmpty()
                 ? QStringLiteral("no AUTH offered: the server takes no login here")
                 : QStringLiteral("no AUTH PLAIN or LOGIN offered (only %1)")
                       .arg(QString::fromLatin1(d_->offered.auth.join(' '))));
        return;
    }
    d_->state = Step::PasswordWanted;
    armWatchdog(Step::PasswordWanted);
    LookUpPassword(d_->logs, d_->settings, d_->route.name, this, [this](const PasswordLookup& lookup) {
        Trapped(d_->logs, "M:ROUTECHECK[Password]", [&] {
            if (d_->state != Step::PasswordWanted)
                return; // the watchdog was quicker
            if (!lookup.found) {
                fail(QStringLiteral("no password: ") + QString::fromUtf8(lookup.problem));
                return;
            }
            logIn(lookup.password);
        });
    });
}

// Nothing of the login goes out before TLS is up; the password is never logged.
void RouteCheck::logIn(const QByteArray& password)
{
    if (!d_->socket->isEncrypted()) {
        fail(QStringLiteral("connection not encrypted: no login sent"));
        return;
    }
    const QByteArray& user = d_->route.route.user;
    if (d_->mechanism == "PLAIN") {
        sendCommand("AUTH PLAIN " + ('\0' + user + '\0' + password).toBase64(), Step::AuthSent);
        return;
    }
    d_->password = password;
    sendCommand("AUTH LOGIN", Step::AuthLoginSent);
}

void RouteCheck::sendLoginUser(const ServerReply&) { sendCommand(d_->route.route.user.toBase64(), Step::AuthUserSent); }

void RouteCheck::sendLoginPassword(const ServerReply&)
{
    sendCommand(d_->password.toBase64(), Step::AuthSent);
    d_->password.clear();
}

void RouteCheck::loggedIn(const ServerReply&)
{
    if (d_->state == Step::HeloSent)
        d_->worked << QStringLiteral("HELO answered (plain SMTP, no TLS, no login)");
    else
        d_->worked << QStringLiteral("logged in as %1 (AUTH %2)")
                          .arg(QString::fromUtf8(d_->route.route.user), QString::fromLatin1(d_->mechanism));
    sendQuit();
}

void RouteCheck::quitAnswered(const ServerReply&) { succeed(); }

void RouteCheck::refused(const ServerReply& reply)
{
    const QString what = d_->state == Step::Greeting
        ? QStringLiteral("the server refused the connection")
        : QStringLiteral("%1 refused").arg(QLatin1String(commandOf(d_->state)));
    fail(what + QStringLiteral(": ") + shown(reply));
}

void RouteCheck::loginRefused(const ServerReply& reply)
{
    d_->password.clear();
    fail(QStringLiteral("login as %1 refused: %2").arg(QString::fromUtf8(d_->route.route.user), shown(reply)));
}

void RouteCheck::unexpected(const ServerReply& reply)
{
    fail(QStringLiteral("unexpected reply while Postiq waited for %1: %2")
             .arg(QLatin1String(waitingFor(d_->state)), shown(reply)));
}

// ---- shared steps ----

void RouteCheck::sendCommand(const QByteArray& command, int state)
{
    d_->socket->write(command + "\r\n");
    d_->state = state;
    armWatchdog(state);
}

void RouteCheck::sendQuit()
{
    d_->socket->write("QUIT\r\n");
    d_->state = Step::QuitSent;
    d_->watchdog.start(kQuitTime);
}

void RouteCheck::armWatchdog(int state)
{
    d_->watchdog.start(state == Step::Connecting ? d_->timeouts.connect : d_->timeouts.silence);
}

void RouteCheck::succeed() { finish(true, {}); }

void RouteCheck::fail(const QString& failure) { finish(false, failure); }

void RouteCheck::finish(bool ok, const QString& failure)
{
    if (d_->state == Step::Over)
        return;
    const bool sayQuit = !ok && d_->state != Step::TlsHandshake && d_->state != Step::Connecting;
    d_->state = Step::Over;
    d_->watchdog.stop();
    d_->password.clear();
    if (QSslSocket* socket = d_->socket) {
        // The socket goes later, never inside its own signal; a QUIT goes first where the
        // dialogue allows one.
        d_->socket = nullptr;
        socket->disconnect(this);
        if (sayQuit && socket->state() == QAbstractSocket::ConnectedState) {
            socket->write("QUIT\r\n");
            socket->flush();
        }
        if (socket->state() == QAbstractSocket::ConnectedState) {
            socket->disconnectFromHost();
            connect(socket, &QAbstractSocket::disconnected, socket, &QObject::deleteLater);
            QTimer::singleShot(kQuitTime, socket, [socket] {
                socket->abort();
                socket->deleteLater();
            });
        } else {
            socket->abort();
            socket->deleteLater();
        }
    }
    QString report = QStringLiteral("route %1 (%2): ")
                         .arg(d_->route.name, QString::fromUtf8(d_->route.route.hostAndPort()));
    report += d_->worked.join(QStringLiteral(", "));
    if (ok)
        report += QStringLiteral("; everything works");
    else
        report += (d_->worked.isEmpty() ? QString() : QStringLiteral("; ")) + QStringLiteral("failed: ") + failure;
    // Later, after the socket's events already pending: whoever listens may delete the check.
    QMetaObject::invokeMethod(this, [this, ok, report] { emit finished(ok, report); }, Qt::QueuedConnection);
}

} // namespace postiq
