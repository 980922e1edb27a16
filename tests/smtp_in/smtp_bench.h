#pragma once

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <functional>
#include <gtest/gtest.h>

#include "config/settings.h"
#include "dns/dns_cache.h"
#include "smtp_in/smtp_service.h"
#include "support/fakes.h"

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

// Records what the connection and service views are told.
struct RecordingViews : ConnectionsView, ServiceView {
    QList<QPair<QByteArray, int>> rows;
    QList<bool> states;
    void updateConnection(const QByteArray& cnxType, int n) override { rows.append({cnxType, n}); }
    void showServiceState(bool started) override { states.append(started); }
};

// A program folder with the SMTP service, listening on a free port once start() is called.
struct SmtpBench {
    QTemporaryDir dir;
    RecordingDesktop desktop;
    FixedClock clock;
    Settings settings;
    Logs logs{dir.path(), settings, desktop, clock};
    DnsCache cache;
    RecordingViews views;
    ConnectionTables tables{logs, settings, cache, &views};
    SmtpService service{settings, logs, cache, tables, &views};
    quint16 port = 0;

    SmtpBench()
    {
        settings.ConfigLoaded = true;
        QDir(dir.path()).mkdir(QStringLiteral("OutBox"));
    }
    bool start()
    {
        QTcpServer probe; // any free port; the 16-bit setting carries it as its unsigned value
        probe.listen(QHostAddress::AnyIPv4);
        port = probe.serverPort();
        probe.close();
        settings.ActiveSettings.ListenPort = static_cast<int16_t>(port);
        service.Demarrer();
        return service.isListening();
    }
    QString path(const QString& name) const { return dir.path() + '/' + name; }
    // The mail-log lines that contain `part`, without their CR LF.
    QList<QByteArray> mailLog(const QByteArray& part = {}) const
    {
        QList<QByteArray> lines;
        for (const QByteArray& line : readFile(path(QStringLiteral("maillog.txt"))).split('\n'))
            if (line.endsWith('\r') && line.contains(part))
                lines << line.chopped(1);
        return lines;
    }
    QStringList outBox() const { return QDir(path(QStringLiteral("OutBox"))).entryList(QDir::Files); }
    bool slotFreed(int n) { return spinUntil([this, n] { return tables.Smtp(n) == nullptr; }); }
};

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

inline const QByteArray kStamp = "Feb 05 2004 09:05:07";
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

inline void play(Client& client, const Dialogue& rows)
{
    for (const auto& [bytes, reply] : rows) // a row that expects no reply waits a moment for none
        EXPECT_EQ(client.answer(bytes, reply.isEmpty() ? 60 : 5000), reply) << bytes.constData();
}

} // namespace postiq::test
