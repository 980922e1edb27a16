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

ControlChannel::ControlChannel(const QString& serverName, RelayControls controls, QObject* parent)
    : QObject(parent), serverName_(serverName), controls_(std::move(controls)), server_(new QLocalServer(this))
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
    using Control = std::function<void()> RelayControls::*;
    static constexpr std::pair<const char*, Control> kCommands[] = {
        {"start", &RelayControls::startService},
        {"stop", &RelayControls::stopService},
        {"reload", &RelayControls::reloadConfiguration},
        {"flush", &RelayControls::flushDeferred},
        {"quit", &RelayControls::quit},
    };
    for (const auto& [name, control] : kCommands) {
        if (command != name)
            continue;
        if (const std::function<void()>& run = controls_.*control)
            run();
        return "ok";
    }
    return "error: unknown command";
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
        const QString text = QString::fromUtf8(socket_->readLine().trimmed());
        finish(text == QLatin1String("ok") ? Outcome::Done : Outcome::Failed, text);
    } else if (socket_->bytesAvailable() > 1024) {
        finish(Outcome::Failed, QStringLiteral("the relay's answer is not a line"));
    }
}

void ControlRequest::connectionLost()
{
    if (socket_->bytesAvailable() > 0) { // an answer without its line end
        const QString text = QString::fromUtf8(socket_->readAll().trimmed());
        finish(text == QLatin1String("ok") ? Outcome::Done : Outcome::Failed, text);
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
