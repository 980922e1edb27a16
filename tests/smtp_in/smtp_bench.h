#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <ostream>

#include "config/settings.h"
#include "dns/dns_cache.h"
#include "log/logs.h"
#include "smtp_in/connexion.h"
#include "smtp_in/smtp_service.h"
#include "support/fakes.h"

namespace postiq::test {

class RecordingConnectionsView : public ConnectionsView {
public:
    QList<QPair<QByteArray, int>> updates;
    void updateConnection(const QByteArray& cnxType, int n) override { updates.append({cnxType, n}); }
};

class RecordingServiceView : public ServiceView {
public:
    QList<bool> states;
    void showServiceState(bool started) override { states.append(started); }
};

// A free port that fits the 16-bit setting, for the service to listen on.
quint16 freeListenPort();

// A program folder with everything the SMTP service needs, listening on a free loop-back port
// once start() is called.
struct SmtpBench {
    QTemporaryDir dir;
    RecordingDesktop desktop;
    FixedClock clock;
    Settings settings;
    Logs logs{dir.path(), settings, desktop, clock};
    DnsCache cache;
    RecordingConnectionsView connectionsView;
    ConnectionTables tables{logs, settings, cache, &connectionsView};
    RecordingServiceView serviceView;
    SmtpService service{settings, logs, cache, tables, &serviceView};
    quint16 port = 0;

    SmtpBench();
    // Starts the service; false if it did not come up.
    bool start();

    QString path(const QString& name) const { return dir.path() + '/' + name; }
    QList<QByteArray> mailLogLines() const;
    // The mail-log lines that contain `part`, in order.
    QList<QByteArray> mailLogLines(const QByteArray& part) const;
    // Queue files in OutBox, by name.
    QStringList outBoxFiles() const;
    // Reads a queue file back into a fresh record.
    CMessage queued(const QString& name);
};

// "Feb 05 2004 09:05:07", the stamp every log line of the bench starts with.
inline const QByteArray kStamp = "Feb 05 2004 09:05:07";

} // namespace postiq::test

// Byte arrays in failure messages as text rather than byte by byte.
inline void PrintTo(const QByteArray& bytes, std::ostream* out) { *out << '"' << bytes.toStdString() << '"'; }
