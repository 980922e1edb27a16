#include "support/fake_submission_server.h"

#include <QSslConfiguration>
#include <QSslSocket>
#include <QTimer>

#include "support/fakes.h"

namespace postiq::test {

struct FakeSubmissionServer::Connection {
    SubmissionScript script;
    SubmissionSession record;
    QPointer<QSslSocket> socket;
    QByteArray partial;
    bool inData = false;
    enum { NoLogin, LoginUser, LoginPassword } login = NoLogin;
    QByteArray loginUser;
};

FakeSubmissionServer::FakeSubmissionServer(const TestAuthority::Identity& identity, SubmissionScript script)
    : certificate_(QSslCertificate::fromPath(identity.certificate).value(0)),
      key_(readFile(identity.key), QSsl::Ec), script_(std::move(script))
{
}

FakeSubmissionServer::~FakeSubmissionServer()
{
    for (const auto& connection : sessions_)
        if (connection->socket) {
            connection->socket->disconnect(this);
            connection->socket->abort();
        }
}

const SubmissionSession& FakeSubmissionServer::session(int index) const
{
    return sessions_.at(size_t(index))->record;
}

int FakeSubmissionServer::openSessions() const
{
    int open = 0;
    for (const auto& connection : sessions_)
        open += connection->record.closed ? 0 : 1;
    return open;
}

void FakeSubmissionServer::incomingConnection(qintptr descriptor)
{
    auto& connection = *sessions_.emplace_back(std::make_unique<Connection>());
    connection.script = script_;
    auto* socket = new QSslSocket(this);
    connection.socket = socket;
    QSslConfiguration config = QSslConfiguration::defaultConfiguration();
    config.setLocalCertificate(certificate_);
    config.setPrivateKey(key_);
    config.setPeerVerifyMode(QSslSocket::VerifyNone); // no client certificate is asked for
    socket->setSslConfiguration(config);
    socket->setSocketDescriptor(descriptor);
    connect(socket, &QSslSocket::readyRead, this, [this, &connection] { receive(connection); });
    connect(socket, &QSslSocket::disconnected, this, [&connection] { connection.record.closed = true; });
    // A client that refuses the certificate ends the session with a TLS alert.
    connect(socket, &QSslSocket::errorOccurred, this, [&connection] { connection.record.closed = true; });
    if (connection.script.mode == SubmissionScript::ImplicitTls) {
        connect(socket, &QSslSocket::encrypted, this,
                [socket] { socket->write("220 submission.test ESMTP ready\r\n"); });
        socket->startServerEncryption();
    } else {
        socket->write("220 submission.test ESMTP ready\r\n");
    }
}

void FakeSubmissionServer::receive(Connection& connection)
{
    connection.partial += connection.socket->readAll();
    qsizetype end;
    while ((end = connection.partial.indexOf('\n')) >= 0) {
        QByteArray line = connection.partial.left(end + 1);
        connection.partial.remove(0, end + 1);
        if (connection.inData) {
            if (line == ".\r\n") {
                connection.inData = false;
                connection.record.dataEnded = true;
                connection.socket->write("250 2.0.0 Queued as SUB\r\n");
            } else {
                connection.record.body += line.startsWith('.') ? line.mid(1) : line;
            }
            continue;
        }
        line.chop(line.endsWith("\r\n") ? 2 : 1);
        handleLine(connection, line);
    }
}

void FakeSubmissionServer::handleLine(Connection& connection, const QByteArray& text)
{
    SubmissionSession& record = connection.record;
    QSslSocket& socket = *connection.socket;
    record.commands.append(text);
    if (!socket.isEncrypted())
        record.commandsBeforeTls = int(record.commands.size());
    const SubmissionScript& script = connection.script;

    if (connection.login == Connection::LoginUser) {
        connection.loginUser = QByteArray::fromBase64(text);
        connection.login = Connection::LoginPassword;
        socket.write("334 UGFzc3dvcmQ6\r\n");
        return;
    }
    if (connection.login == Connection::LoginPassword) {
        connection.login = Connection::NoLogin;
        checkLogin(connection, connection.loginUser, QByteArray::fromBase64(text));
        return;
    }

    const QByteArray verb = text.split(' ').value(0).toUpper();
    if (verb == "EHLO") {
        sendEhloReply(connection);
    } else if (verb == "STARTTLS" && script.offerStartTls && !socket.isEncrypted()) {
        socket.write(script.startTlsReply + "\r\n");
        if (script.startTlsReply.startsWith("220"))
            socket.startServerEncryption();
    } else if (verb == "AUTH" && !socket.isEncrypted()) {
        socket.write("530 5.7.0 Must issue a STARTTLS command first\r\n");
    } else if (text.startsWith("AUTH PLAIN ")) {
        const QList<QByteArray> parts = QByteArray::fromBase64(text.mid(11)).split('\0');
        checkLogin(connection, parts.value(1), parts.size() == 3 ? parts.value(2) : QByteArray());
    } else if (text == "AUTH LOGIN") {
        connection.login = Connection::LoginUser;
        socket.write("334 VXNlcm5hbWU6\r\n");
    } else if (verb == "MAIL") {
        socket.write(record.loggedIn || script.user.isEmpty() ? "250 2.1.0 Sender OK\r\n" : "530 5.7.0 Authentication required\r\n");
    } else if (verb == "RCPT") {
        socket.write("250 2.1.5 Recipient OK\r\n");
    } else if (verb == "DATA") {
        connection.inData = true;
        socket.write("354 Go ahead\r\n");
    } else if (verb == "RSET") {
        socket.write("250 2.0.0 Reset\r\n");
    } else if (verb == "QUIT") {
        socket.write("221 2.0.0 Bye\r\n");
        socket.disconnectFromHost();
    } else {
        socket.write("500 5.5.2 Command not recognized\r\n");
    }
}

void FakeSubmissionServer::sendEhloReply(Connection& connection)
{
    QSslSocket& socket = *connection.socket;
    socket.write("250-submission.test greets you\r\n");
    QByteArray rest;
    if (connection.script.offerStartTls && connection.script.mode == SubmissionScript::StartTls
        && !socket.isEncrypted())
        rest += "250-STARTTLS\r\n";
    // Offered in plain text as well: a careless client would take the bait.
    rest += "250-AUTH " + connection.script.mechanisms + "\r\n250 8BITMIME\r\n";
    QTimer::singleShot(30, this, [socket = connection.socket, rest] {
        if (socket)
            socket->write(rest);
    });
}

void FakeSubmissionServer::checkLogin(Connection& connection, const QByteArray& user, const QByteArray& password)
{
    connection.record.loggedIn = user == connection.script.user && password == connection.script.password;
    connection.socket->write(connection.record.loggedIn ? QByteArray("235 2.7.0 Authentication successful\r\n")
                                                        : connection.script.loginRefusal + "\r\n");
}

} // namespace postiq::test
