#pragma once

#include <QDir>
#include <QTcpServer>
#include <functional>
#include <gtest/gtest.h>

#include "config/settings.h"
#include "delivery/dispatcher.h"
#include "dns/dns_cache.h"
#include "dns/fake_dns_server.h"
#include "smtp_in/connexion.h"
#include "smtp_in/smtp_service.h"
#include "store/message.h"
#include "support/fakes.h"
#include "support/mail_client.h"

namespace postiq::test {

// A clock that reads the real time plus an offset, so that file ages can be moved forward.
class OffsetClock : public Clock {
public:
    qint64 offsetSeconds = 0;
    QDateTime now() const override { return QDateTime::currentDateTime().addSecs(offsetSeconds); }
};

// A program folder with the delivery side (slot tables, dispatcher, outbound sessions) and a
// fake DNS server, served by the test's own event loop.
struct DeliveryBench {
    QTemporaryDir dir;
    RecordingDesktop desktop;
    OffsetClock clock;
    Settings settings;
    Logs logs{dir.path(), settings, desktop, clock};
    DnsCache cache;
    FakeDnsServer dns;
    ConnectionTables tables{logs, settings, cache};
    Queue queueFolders{dir.path()};
    Dispatcher dispatcher{logs, settings, tables, queueFolders};
    SmtpService service{settings, logs, cache, tables, queueFolders};
    quint16 port = 0;

    DeliveryBench()
    {
        settings.ConfigLoaded = true;
        settings.LocalHostName = QStringLiteral("relay.test");
        CConfiguration& active = settings.ActiveSettings;
        active.MaxNbrAttempt = 3;
        active.AttemptDelay = 60;
        active.DNSServer = dns.server();
        for (const char* folder : {"OutBox", "Deferred", "Error"})
            QDir(dir.path()).mkdir(QString::fromLatin1(folder));
        tables.enableOutboxTimer = [this] { dispatcher.enableOutboxTimer(); };
        for (int i = 1; i <= 99; ++i)
            tables.CnxOut(i).DNS.lookupTiming = LookupTiming{std::chrono::milliseconds(300), 1};
        dispatcher.timeouts = {std::chrono::milliseconds(2000), std::chrono::milliseconds(2000)};
        // One connection per exchanger unless a test says otherwise, so that what each session
        // carries is known; the window's growth has tests of its own.
        dispatcher.concurrency.fix(1);
    }

    // Starts the inbound service on a free port.
    bool listen()
    {
        port = freeListenPort();
        settings.ActiveSettings.ListenPort = static_cast<int16_t>(port);
        service.Demarrer();
        return service.isListening();
    }
    // Sends all mail through a fixed server.
    void useServer(const QString& server)
    {
        settings.UserSettings.SmtpServerDefined = true;
        settings.ActiveSettings.SmtpServer = server;
    }
    // MX records of a domain: hosts named by their loop-back addresses, in the order given.
    void mx(const QByteArray& domain, const QList<QPair<quint16, QByteArray>>& hosts)
    {
        FakeZone zone{FakeReply::Records, {}};
        for (const auto& [preference, address] : hosts)
            zone.records.append({preference, address.split('.'), 300});
        dns.zones[domain] = zone;
    }

    // Writes a queue file into `folder` and returns its name.
    QString queue(const QByteArray& id, const QList<QByteArray>& recipients, const QByteArray& data = "Subject: t\r\n\r\nhi\r\n",
                  uint8_t essai = 0, bool forSender = false, const char* folder = "OutBox",
                  const QByteArray& from = "<s@src.test>")
    {
        CMessage m(logs);
        m.ID = id;
        m.TxtEng = "\r\n==> DO NOT ALTER THIS FILE !\r\n";
        m.TxtFr = "\r\n==> NE PAS MODIFIER CE FICHIER !\r\n";
        m.Essai = essai;
        m.ForSender = forSender;
        m.From = from;
        for (const QByteArray& r : recipients)
            m.AddRcptTo(r);
        m.Data = data;
        m.MWrite(path(QString::fromLatin1(folder) + '/' + QString::fromLatin1(id)));
        return QString::fromLatin1(id);
    }
    CMessage read(const QString& relative)
    {
        CMessage m(logs);
        m.MOpen(path(relative));
        return m;
    }

    QString path(const QString& name) const { return dir.path() + '/' + name; }
    QStringList files(const char* folder) const
    {
        QStringList names = QDir(path(QString::fromLatin1(folder))).entryList(QDir::Files);
        names.sort();
        return names;
    }
    // The mail-log lines that contain `part`, without their date stamps and CR LF.
    QList<QByteArray> mailLog(const QByteArray& part = {}) const
    {
        QList<QByteArray> lines = logLines(path(QStringLiteral("maillog.txt")), part);
        for (QByteArray& line : lines)
            line.remove(0, 20); // the date stamp
        return lines;
    }
    QByteArray errorLog() const { return readFile(path(QStringLiteral("error.txt"))); }
    bool idle()
    {
        for (int i = 1; i <= 99; ++i)
            if (tables.CnxOut(i).Status() != 0)
                return false;
        return true;
    }
    // Runs the event loop until no slot is busy, or the time is up.
    bool settle(int milliseconds = 10000) { return spinUntil([this] { return idle(); }, milliseconds); }
};

// A loop-back address that nothing listens on at port 25.
inline const QByteArray kDeadHost = "127.0.0.66";

} // namespace postiq::test
