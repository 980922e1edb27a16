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

// What the relay answers a command. The line sent back is "ok" (or "ok: " and what was done),
// "nothing: " and why there was nothing to do, "refused: " and why, or "error: unknown command".
struct ControlAnswer {
    enum class Kind { Done, NothingToDo, Refused, Unknown };
    Kind kind = Kind::Unknown;
    QByteArray text;

    static ControlAnswer done(const QByteArray& text = {}) { return {Kind::Done, text}; }
    static ControlAnswer nothingToDo(const QByteArray& text) { return {Kind::NothingToDo, text}; }
    static ControlAnswer refused(const QByteArray& text) { return {Kind::Refused, text}; }
    static ControlAnswer unknown() { return {}; }
    QByteArray line() const;
};

// Carries out one command: its word and what followed it after one space (empty when nothing did).
using ControlHandler = std::function<ControlAnswer(const QByteArray& verb, const QByteArray& argument)>;

// The local socket name of the relay that runs on `programFolder`. It is made from the folder's
// canonical path, so that every spelling of the folder meets the same relay, and hashed, because a
// folder path can be longer than a socket path may be.
QString controlServerName(const QString& programFolder);

// Lets a command line drive the running relay without a window. A client connects, sends one
// command (a word, perhaps a space and an argument) and a line end, gets one line back (see
// ControlAnswer) and is disconnected. Nothing a client sends or fails to send can stall the event loop or stop the
// channel from serving the next client.
class ControlChannel : public QObject {
    Q_OBJECT
public:
    static constexpr int kMaxLine = 64;

    ControlChannel(const QString& serverName, ControlHandler handler, QObject* parent = nullptr);
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
    ControlHandler handler_;
    QLocalServer* server_;
    std::chrono::milliseconds idleTimeout_{5000};
};

// One command sent to a running relay: the client side of the channel, for a short-lived process
// whose only work is to wait for the answer in its event loop.
class ControlRequest : public QObject {
    Q_OBJECT
public:
    enum class Outcome {
        Done,       // the relay answered "ok" or "nothing"
        NotRunning, // nothing listens on that name
        Failed,     // a refusal or error answer, a broken connection or no answer in time; see the text
    };

    ControlRequest(const QString& serverName, const QByteArray& command, std::chrono::milliseconds timeout,
                   QObject* parent = nullptr);

    // Connects and sends; finished() follows exactly once, never from within this call.
    void send();

signals:
    // `text` is the relay's answer line, or what went wrong.
    void finished(postiq::ControlRequest::Outcome outcome, const QString& text);

private:
    void sendCommand();
    void readAnswer();
    void connectionLost();
    void socketFailed();
    void answered(const QByteArray& line);
    void finish(Outcome outcome, const QString& text);

    QString serverName_;
    QByteArray command_;
    QLocalSocket* socket_;
    QTimer deadline_;
    bool finished_ = false;
};

} // namespace postiq
