#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QTimer>
#include <chrono>
#include <functional>

class QLocalServer;
class QLocalSocket;

namespace postiq {

// The tray menu's commands, as the running relay carries them out.
struct RelayControls {
    std::function<void()> startService;        // "start"
    std::function<void()> stopService;         // "stop"
    std::function<void()> reloadConfiguration; // "reload"
    std::function<void()> flushDeferred;       // "flush"
    std::function<void()> quit;                // "quit"
};

// The local socket name of the relay that runs on `programFolder`. It is made from the folder's
// canonical path, so that every spelling of the folder meets the same relay, and hashed, because a
// folder path can be longer than a socket path may be.
QString controlServerName(const QString& programFolder);

// Lets a command line drive the running relay without a window. A client connects, sends one
// command word and a line end, gets one line back ("ok", or "error: " and the reason) and is
// disconnected. Nothing a client sends or fails to send can stall the event loop or stop the
// channel from serving the next client.
class ControlChannel : public QObject {
    Q_OBJECT
public:
    static constexpr int kMaxLine = 64;

    ControlChannel(const QString& serverName, RelayControls controls, QObject* parent = nullptr);
    ~ControlChannel() override;

    // Starts listening, accessible to this user only. A name left behind by a relay that ended
    // without closing it is taken over, which is safe only while the instance lock is held.
    // On failure returns False with the reason in *error.
    bool listen(QString* error);

    // How long a client may stay connected without sending its command.
    void setIdleTimeout(std::chrono::milliseconds timeout) { idleTimeout_ = timeout; }

private:
    void acceptClients();
    void readCommand(QLocalSocket* client);
    QByteArray carryOut(const QByteArray& command);
    void answer(QLocalSocket* client, const QByteArray& line);

    QString serverName_;
    RelayControls controls_;
    QLocalServer* server_;
    std::chrono::milliseconds idleTimeout_{5000};
};

// One command sent to a running relay: the client side of the channel, for a short-lived process
// whose only work is to wait for the answer in its event loop.
class ControlRequest : public QObject {
    Q_OBJECT
public:
    enum class Outcome {
        Done,       // the relay answered "ok"
        NotRunning, // nothing listens on that name
        Failed,     // an error answer, a broken connection or no answer in time; see the text
    };

    ControlRequest(const QString& serverName, const QByteArray& command, std::chrono::milliseconds timeout,
                   QObject* parent = nullptr);

    // Connects and sends; finished() follows exactly once, never from within this call.
    void send();

signals:
    // `text` is the relay's answer, or what went wrong.
    void finished(postiq::ControlRequest::Outcome outcome, const QString& text);

private:
    void sendCommand();
    void readAnswer();
    void connectionLost();
    void socketFailed();
    void finish(Outcome outcome, const QString& text);

    QString serverName_;
    QByteArray command_;
    QLocalSocket* socket_;
    QTimer deadline_;
    bool finished_ = false;
};

} // namespace postiq
