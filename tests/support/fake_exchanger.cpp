#include "support/fake_exchanger.h"

#include <QTcpSocket>
#include <QTimer>

namespace postiq::test {

// One session: its script, its record and what is left to say.
struct FakeExchanger::Connection {
    ExchangerScript script;
    ExchangerSession record;
    QPointer<QTcpSocket> socket;
    QByteArray partial; // received, not yet a whole line
    bool inData = false;
    int recipients = 0;
    int resets = 0;
    int rcpts = 0;    // RCPT commands of this transaction
    int accepted = 0; // those that got a 2xx
    QByteArray body; // the transaction's data so far
    bool mute = false;      // silent or closed: nothing more is said
    std::deque<Step> steps; // a delayed step holds back the ones behind it
    bool waiting = false;   // the first step's delay is running
    bool waited = false;    // the first step's delay is over
};

FakeExchanger::FakeExchanger(ExchangerScript script) : script_(std::move(script))
{
    connect(&server_, &QTcpServer::newConnection, this, &FakeExchanger::accept);
}

FakeExchanger::~FakeExchanger()
{
    // The sockets die with the server, after the sessions; they must not call back into either.
    for (const auto& connection : sessions_)
        if (connection->socket) {
            disconnect(connection->socket, nullptr, this, nullptr);
            connection->socket->abort();
        }
}

bool FakeExchanger::listen(const QHostAddress& address, quint16 port) { return server_.listen(address, port); }

const ExchangerSession& FakeExchanger::session(int index) const { return sessions_.at(size_t(index))->record; }

int FakeExchanger::openSessions() const
{
    int open = 0;
    for (const auto& connection : sessions_)
        open += connection->record.closed ? 0 : 1;
    return open;
}

void FakeExchanger::accept()
{
    while (QTcpSocket* socket = server_.nextPendingConnection()) {
        const int index = sessionCount();
        auto& connection = *sessions_.emplace_back(std::make_unique<Connection>());
        connection.script = scripts_.value(index, script_);
        connection.socket = socket;
        connect(socket, &QTcpSocket::readyRead, this, [this, &connection] { receive(connection); });
        connect(socket, &QTcpSocket::disconnected, this, [this, &connection] { ended(connection); });
        perform(connection, connection.script.greeting);
    }
}

void FakeExchanger::receive(Connection& connection)
{
    if (!connection.socket || !connection.socket->isReadable()) // closed by this side
        return;
    const QByteArray bytes = connection.socket->readAll();
    if (!bytes.isEmpty())
        connection.record.reads.append(bytes);
    connection.partial += bytes;
    qsizetype end;
    while ((end = connection.partial.indexOf('\n')) >= 0) {
        const QByteArray line = connection.partial.left(end + 1);
        connection.partial.remove(0, end + 1);
        handleLine(connection, line);
    }
}

void FakeExchanger::handleLine(Connection& connection, const QByteArray& line)
{
    ExchangerSession& record = connection.record;
    record.lines.append(line);
    QByteArray text = line.chopped(1); // without the LF, and without a CR before it
    if (text.endsWith('\r'))
        text.chop(1);

    if (connection.inData) {
        if (text == ".") {
            connection.inData = false;
            record.dataEnded = true;
            record.bodies.append(connection.body);
            connection.body.clear();
            perform(connection, connection.script.endOfData);
        } else {
            const QByteArray unstuffed = line.startsWith('.') ? line.mid(1) : line;
            record.body += unstuffed;
            connection.body += unstuffed;
        }
        return;
    }

    record.commands.append(text);
    const qsizetype space = text.indexOf(' ');
    const QByteArray verb = (space < 0 ? text : text.left(space)).toUpper();
    const ExchangerScript& script = connection.script;
    if (verb == "HELO" || verb == "EHLO") {
        perform(connection, script.helo);
    } else if (verb == "MAIL") {
        connection.rcpts = 0;
        connection.accepted = 0;
        perform(connection, script.mail);
    } else if (verb == "RCPT") {
        const Step& step = script.forRcpt(connection.recipients++);
        ++connection.rcpts;
        connection.accepted += step.text.startsWith('2') ? 1 : 0;
        perform(connection, step);
    } else if (verb == "DATA") {
        // What follows a go-ahead is content, even before the go-ahead has left.
        const bool allRefused = connection.rcpts > 0 && connection.accepted == 0;
        const Step& step = allRefused ? script.dataWithoutRecipients : script.data;
        connection.inData = !connection.mute && step.action != Step::CloseInstead && step.action != Step::Silent
            && step.text.startsWith('3');
        perform(connection, step);
    } else if (verb == "RSET") {
        perform(connection, script.forRset(connection.resets++));
    } else if (verb == "QUIT") {
        perform(connection, script.quit);
    } else {
        perform(connection, script.unknown);
    }
}

void FakeExchanger::perform(Connection& connection, const Step& step)
{
    if (connection.mute)
        return;
    connection.steps.push_back(step);
    runQueue(connection);
}

void FakeExchanger::runQueue(Connection& connection)
{
    while (!connection.waiting && !connection.steps.empty() && !connection.mute) {
        const Step step = connection.steps.front();
        if (step.delayMs > 0 && !connection.waited) {
            connection.waiting = true;
            QTimer::singleShot(step.delayMs, this, [this, &connection] {
                connection.waiting = false;
                connection.waited = true;
                runQueue(connection);
            });
            return;
        }
        connection.steps.pop_front();
        connection.waited = false;
        QTcpSocket* socket = connection.socket;
        if (!socket || connection.record.closed)
            return;
        switch (step.action) {
        case Step::Reply:
            socket->write(step.text + "\r\n");
            break;
        case Step::ReplyAndClose:
            connection.mute = true;
            socket->write(step.text + "\r\n");
            socket->disconnectFromHost(); // the reply still goes out first
            break;
        case Step::CloseInstead:
            connection.mute = true;
            socket->close();
            break;
        case Step::Silent:
            connection.mute = true;
            break;
        }
    }
}

void FakeExchanger::ended(Connection& connection)
{
    connection.record.closed = true;
    connection.mute = true;
    receive(connection); // what came with the close is recorded too, but not answered
    connection.record.unfinished = connection.partial;
}

} // namespace postiq::test
