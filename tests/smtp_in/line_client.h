#pragma once

#include <QByteArray>
#include <QtGlobal>
#include <functional>

namespace postiq::test {

// A mail program's side of a conversation, on plain blocking sockets so that it can run in its
// own thread while the test's main thread serves it. Every wait is bounded.
class LineClient {
public:
    LineClient() = default;
    LineClient(const LineClient&) = delete;
    LineClient& operator=(const LineClient&) = delete;
    ~LineClient();

    // Connects from `fromIp` (any 127.x.y.z address) to 127.0.0.1:port.
    bool connectTo(quint16 port, const char* fromIp = "127.0.0.1");
    bool send(const QByteArray& bytes);
    // The next line without its CR LF; empty when nothing complete came in time or the peer closed.
    QByteArray readLine();
    QByteArray command(const QByteArray& text)
    {
        send(text);
        return readLine();
    }
    // True once the peer has closed the connection (within a few seconds), with nothing else sent.
    bool closedByPeer();
    void close();

private:
    bool receive();

    int fd_ = -1;
    bool eof_ = false;
    QByteArray buffer_;
};

// Runs a client script on its own thread while this thread runs the event loop, until the script
// ends (bounded).
void runClient(const std::function<void()>& script);
// Runs the event loop until `done` holds or the time is up; returns `done`.
bool spinUntil(const std::function<bool()>& done, int milliseconds = 5000);

} // namespace postiq::test
