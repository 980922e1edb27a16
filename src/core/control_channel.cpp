#include "core/control_channel.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>
#include <QLocalServer>
#include <QLocalSocket>
#include <utility>

namespace postiq {

QString controlServerName(const QString& programFolder)
{
    const QFileInfo info(programFolder);
    QString path = info.canonicalFilePath(); // empty when the folder does not exist
    if (path.isEmpty())
        path = QDir::cleanPath(info.absoluteFilePath());
    const QByteArray hash = QCryptographicHash::hash(path.toUtf8(), QCryptographicHash::Sha256).toHex();
    return QStringLiteral("postiq-") + QString::fromLatin1(hash.left(32));
}

QByteArray ControlAnswer::line() const
{
    switch (kind) {
    case Kind::Done:
        return text.isEmpty() ? QByteArray("ok") : "ok: " + text;
    case Kind::NothingToDo:
        return "nothing: " + text;
    case Kind::Refused:
        return "refused: " + text;
    case Kind::Unknown:
        break;
    }
    return "error: unknown command";
}

ControlChannel::ControlChannel(const QString& serverName, ControlHandler handler, QObject* parent)
    : QObject(parent), serverName_(serverName), handler_(std::move(handler)), server_(new QLocalServer(this))
{
    connect(server_, &QLocalServer::newConnection, this, &ControlChannel::acceptClients);
}

ControlChannel::~ControlChannel() = default;

bool ControlChannel::listen(QString* error)
{
    QLocalServer::removeServer(serverName_);
    server_->setSocketOptions(QLocalServer::UserAccessOption);
    if (server_->listen(serverName_))
        return true;
    *error = server_->errorString();
    return false;
}

void ControlChannel::acceptClients()
{
    while (QLocalSocket* client = server_->nextPendingConnection()) {
        connect(client, &QLocalSocket::disconnected, client, &QObject::deleteLater);
        connect(client, &QLocalSocket::readyRead, this, [this, client] { readCommand(client); });
        auto* idle = new QTimer(client);
        idle->setSingleShot(true);
        connect(idle, &QTimer::timeout, client, [client] {
            client->abort();
            client->deleteLater();
        });
        idle->start(idleTimeout_);
        if (client->bytesAvailable() > 0)
            readCommand(client);
    }
}

void ControlChannel::readCommand(QLocalSocket* client)
{
    if (!client->canReadLine()) {
        if (client->bytesAvailable() > kMaxLine)
            answer(client, "error: line too long");
        return;
    }
    QByteArray line = client->readLine();
    if (line.size() > kMaxLine) {
        answer(client, "error: line too long");
        return;
    }
    while (line.endsWith('\n') || line.endsWith('\r'))
        line.chop(1);
    answer(client, carryOut(line));
}

QByteArray ControlChannel::carryOut(const QByteArray& command)
{
    const qsizetype space = command.indexOf(' ');
    const QByteArray verb = space < 0 ? command : command.left(space);
    const QByteArray argument = space < 0 ? QByteArray() : command.mid(space + 1);
    // Lower-case letters only: anything else cannot be a command, whatever the handler knows.
    for (const char c : verb) {
        if (c < 'a' || c > 'z')
            return ControlAnswer::unknown().line();
    }
    if (verb.isEmpty() || !handler_)
        return ControlAnswer::unknown().line();
    return handler_(verb, argument).line();
}

void ControlChannel::answer(QLocalSocket* client, const QByteArray& line)
{
    // One command per connection: whatever else the client sends is not read.
    disconnect(client, &QLocalSocket::readyRead, this, nullptr);
    client->write(line + '\n');
    client->flush();                // the answer is tiny: it goes out now, even if the program then ends
    client->disconnectFromServer(); // disconnected() follows, and with it deleteLater()
}

ControlRequest::ControlRequest(const QString& serverName, const QByteArray& command,
                               std::chrono::milliseconds timeout, QObject* parent)
    : QObject(parent), serverName_(serverName), command_(command), socket_(new QLocalSocket(this))
{
    deadline_.setSingleShot(true);
    deadline_.setInterval(timeout);
    connect(&deadline_, &QTimer::timeout, this, [this, timeout] {
        finish(Outcome::Failed, QStringLiteral("no answer within %1 seconds").arg(timeout.count() / 1000.0));
        socket_->abort();
    });
    connect(socket_, &QLocalSocket::connected, this, &ControlRequest::sendCommand);
    connect(socket_, &QLocalSocket::readyRead, this, &ControlRequest::readAnswer);
    connect(socket_, &QLocalSocket::disconnected, this, &ControlRequest::connectionLost);
    connect(socket_, &QLocalSocket::errorOccurred, this, &ControlRequest::socketFailed);
}

void ControlRequest::send()
{
    deadline_.start();
    socket_->connectToServer(serverName_);
}

void ControlRequest::sendCommand()
{
    socket_->write(command_ + '\n');
}

void ControlRequest::readAnswer()
{
    if (socket_->canReadLine()) {
        answered(socket_->readLine().trimmed());
    } else if (socket_->bytesAvailable() > 1024) {
        finish(Outcome::Failed, QStringLiteral("the relay's answer is not a line"));
    }
}

void ControlRequest::connectionLost()
{
    if (socket_->bytesAvailable() > 0) { // an answer without its line end
        answered(socket_->readAll().trimmed());
        return;
    }
    finish(Outcome::Failed, QStringLiteral("the relay closed the connection without answering"));
}

void ControlRequest::socketFailed()
{
    switch (socket_->error()) {
    case QLocalSocket::PeerClosedError:
        return; // disconnected() tells whether an answer came first
    case QLocalSocket::ServerNotFoundError:
    case QLocalSocket::ConnectionRefusedError: // a name left behind by a relay that ended abruptly
        finish(Outcome::NotRunning, socket_->errorString());
        return;
    default:
        finish(Outcome::Failed, socket_->errorString());
        return;
    }
}

void ControlRequest::answered(const QByteArray& line)
{
    const bool done = line == "ok" || line.startsWith("ok: ") || line.startsWith("nothing: ");
    finish(done ? Outcome::Done : Outcome::Failed, QString::fromUtf8(line));
}

void ControlRequest::finish(Outcome outcome, const QString& text)
{
    if (finished_)
        return;
    finished_ = true;
    deadline_.stop();
    // Queued, so that a caller never sees the end from inside send() or a socket call.
    QMetaObject::invokeMethod(this, [this, outcome, text] { emit finished(outcome, text); }, Qt::QueuedConnection);
}

} // namespace postiq
