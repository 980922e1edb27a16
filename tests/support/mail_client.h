#pragma once

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QTcpSocket>
#include <QTimer>
#include <functional>
#include <gtest/gtest.h>
#include <ostream>

// Byte arrays in failure messages as text rather than byte by byte.
inline void PrintTo(const QByteArray& bytes, std::ostream* out) { *out << '"' << bytes.toStdString() << '"'; }

namespace postiq::test {

// Runs the event loop until `done` holds or the time is up; returns `done`.
inline bool spinUntil(const std::function<bool()>& done, int milliseconds = 5000)
{
    const QDeadlineTimer deadline(milliseconds);
    QTimer tick; // wakes the wait below when nothing else happens
    tick.start(5);
    while (!done() && !deadline.hasExpired())
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    return done();
}

// A mail program on a loop-back socket, served by the test's own event loop.
struct Client {
    QTcpSocket socket;

    // Connects from `fromIp` (any 127.x.y.z address) to the service.
    explicit Client(quint16 port, const char* fromIp = "127.0.0.1")
    {
        socket.bind(QHostAddress(QString::fromLatin1(fromIp)));
        socket.connectToHost(QHostAddress::LocalHost, port);
    }
    // Sends `bytes`, then returns the next line without its CR LF; empty when none came in time.
    QByteArray answer(const QByteArray& bytes = {}, int milliseconds = 5000)
    {
        socket.write(bytes);
        socket.flush();
        if (!spinUntil([this] { return socket.canReadLine(); }, milliseconds))
            return {};
        return socket.readLine().chopped(2);
    }
    // True once the connection is closed or refused, with nothing left unread.
    bool closed()
    {
        return spinUntil([this] { return socket.state() == QAbstractSocket::UnconnectedState; })
            && socket.bytesAvailable() == 0;
    }
};

inline const QByteArray kGreeting = "220 Server Postiq 3.0 on 127.0.0.1 Ready (www.postiq.example)";
inline const QByteArray kGoAhead = "354 OK End with <CRLF>.<CRLF>";
inline const QByteArray kAccepted = "250 Message accepted for delivery";

// Rows of bytes sent and the reply expected; an empty reply means none may come.
using Dialogue = QList<QPair<QByteArray, QByteArray>>;

inline const Dialogue kEnvelope = {{"", kGreeting},
                                   {"HELO box\r\n", "250 Hello box"},
                                   {"MAIL FROM:<a@x.com>\r\n", "250 sender is <a@x.com> sender ok"},
                                   {"RCPT TO:<b@y.org>\r\n", "250 recipient is <b@y.org> recipient ok"},
                                   {"DATA\r\n", kGoAhead}};

// A stored text without the Received header that the relay puts on top.
inline QByteArray WithoutReceived(const QByteArray& text)
{
    if (!text.startsWith("Received: "))
        return text;
    qsizetype end = 0;
    do {
        end = text.indexOf("\r\n", end);
        if (end < 0)
            return {};
        end += 2;
    } while (end < text.size() && text[end] == '\t'); // folded lines belong to the header
    return text.mid(end);
}

// A text as it was written, from what went on the wire: the first of a line's leading dots goes.
inline QByteArray Unstuffed(QByteArray sent)
{
    if (sent.startsWith(".."))
        sent.remove(0, 1);
    return sent.replace("\r\n..", "\r\n.");
}

inline void play(Client& client, const Dialogue& rows)
{
    for (const auto& [bytes, reply] : rows) // a row that expects no reply waits a moment for none
        EXPECT_EQ(client.answer(bytes, reply.isEmpty() ? 60 : 5000), reply) << bytes.constData();
}

} // namespace postiq::test
