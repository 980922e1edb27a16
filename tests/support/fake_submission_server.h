#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QPointer>
#include <QSslCertificate>
#include <QSslKey>
#include <QTcpServer>
#include <deque>
#include <memory>

#include "support/test_authority.h"

class QSslSocket;

namespace postiq::test {

// How a submission server behaves.
struct SubmissionScript {
    enum Mode { StartTls, ImplicitTls };
    Mode mode = StartTls;
    bool offerStartTls = true;                // StartTls mode: STARTTLS among the EHLO extensions
    QByteArray startTlsReply = "220 2.0.0 Ready to start TLS";
    QByteArray mechanisms = "PLAIN LOGIN";    // the AUTH extension's words
    QByteArray user = "me@isp.test";          // the one login it accepts
    QByteArray password = "open sesame";
    QByteArray loginRefusal = "535 5.7.8 Authentication credentials invalid"; // the reply to a wrong login
};

// What one session brought.
struct SubmissionSession {
    QList<QByteArray> commands; // every line outside the data, without its line end
    int commandsBeforeTls = 0;  // how many of them came in plain text
    QByteArray body;            // the data up to the lone dot, leading dots removed
    bool dataEnded = false;
    bool loggedIn = false;
    bool closed = false;
};

// A mail provider's submission server on the test's event loop: STARTTLS on a plain connection,
// or TLS from the first byte, with a certificate the test chooses; it checks the login and refuses
// mail without one. Multi-line EHLO replies go out in two pieces, as a slow server sends them.
class FakeSubmissionServer : public QTcpServer {
public:
    FakeSubmissionServer(const TestAuthority::Identity& identity, SubmissionScript script = {});
    ~FakeSubmissionServer() override;

    bool listen(const QHostAddress& address = QHostAddress::LocalHost) { return QTcpServer::listen(address, 0); }
    void setScript(const SubmissionScript& script) { script_ = script; }

    int sessionCount() const { return int(sessions_.size()); }
    const SubmissionSession& session(int index) const;
    int openSessions() const;

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    struct Connection;
    void receive(Connection& connection);
    void handleLine(Connection& connection, const QByteArray& text);
    void sendEhloReply(Connection& connection);
    void checkLogin(Connection& connection, const QByteArray& user, const QByteArray& password);

    QSslCertificate certificate_;
    QSslKey key_;
    SubmissionScript script_;
    std::deque<std::unique_ptr<Connection>> sessions_;
};

} // namespace postiq::test
