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
#include "smtp_in/inbound_session.h"
#include "smtp_in/smtp_service.h"
#include "store/queue.h"
#include "support/fakes.h"
#include "support/mail_client.h"

namespace postiq::test {

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
    Queue queue{dir.path()};
    SmtpService service{settings, logs, cache, tables, queue, &views};
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
        return logLines(path(QStringLiteral("maillog.txt")), part);
    }
    QStringList outBox() const { return QDir(path(QStringLiteral("OutBox"))).entryList(QDir::Files); }
    // The same with the hidden files of messages being written.
    QStringList outBoxWithStaging() const
    {
        return QDir(path(QStringLiteral("OutBox"))).entryList(QDir::Files | QDir::Hidden);
    }
    bool slotFreed(int n) { return spinUntil([this, n] { return tables.InSession(n) == nullptr; }); }
};

inline const QByteArray kStamp = "Feb 05 2004 09:05:07";

} // namespace postiq::test
