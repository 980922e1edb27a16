#pragma once

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include "support/mail_client.h"

namespace postiq::test {

// One message as a real exchanger saved it.
struct SavedMessage {
    QByteArray from;
    QList<QByteArray> to;
    bool encrypted = false;
    QByteArray options; // the MAIL FROM parameters
    QByteArray content; // the text as the server read it, unstuffed
    QByteArray peer;    // the client's port: one per connection
    QByteArray login;   // the user the client logged in as (--auth), else empty
};

// aiosmtpd (or the byte-by-byte server of the same script) on a loop-back address, for as long
// as the object lives.
class RealExchanger {
public:
    static QString python() { return QStringLiteral("/usr/bin/python3"); }
    static bool available()
    {
        return QFile::exists(python())
            && QProcess::execute(python(), {QStringLiteral("-c"), QStringLiteral("import aiosmtpd")}) == 0;
    }

    // Starts one of the test scripts (their path, then their arguments) and waits for its
    // "ready"; false when it said nothing of the kind in time.
    static bool startScript(QProcess& process, const QStringList& arguments)
    {
        process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process.start(python(), arguments);
        QByteArray said;
        return spinUntil(
                   [&] {
                       said += process.readAllStandardOutput();
                       return said.contains("ready") || process.state() == QProcess::NotRunning;
                   },
                   10000)
            && said.contains("ready");
    }
    // Closing its input tells a script to stop.
    static void stopScript(QProcess& process)
    {
        process.closeWriteChannel();
        if (!process.waitForFinished(3000))
            process.kill();
        process.waitForFinished(1000);
    }

    RealExchanger(const QString& host, quint16 port, const QStringList& options = {})
    {
        ready_ = startScript(process_, QStringList{QStringLiteral(POSTIQ_DELIVERY_TESTS "/exchanger.py"), host,
                                                   QString::number(port), dir_.path()}
                                           + options);
    }
    ~RealExchanger() { stopScript(process_); }
    bool ready() const { return ready_; }

    QList<SavedMessage> messages() const
    {
        QList<SavedMessage> saved;
        for (int i = 0;; ++i) {
            QFile env(dir_.filePath(QString::number(i) + QStringLiteral(".env")));
            QFile eml(dir_.filePath(QString::number(i) + QStringLiteral(".eml")));
            if (!env.open(QIODevice::ReadOnly) || !eml.open(QIODevice::ReadOnly))
                return saved;
            SavedMessage message;
            for (const QByteArray& line : env.readAll().split('\n')) {
                if (line.startsWith("from="))
                    message.from = line.mid(5);
                else if (line.startsWith("to="))
                    message.to << line.mid(3);
                else if (line.startsWith("tls="))
                    message.encrypted = line.mid(4) == "yes";
                else if (line.startsWith("options="))
                    message.options = line.mid(8);
                else if (line.startsWith("peer="))
                    message.peer = line.mid(5);
                else if (line.startsWith("login="))
                    message.login = line.mid(6);
            }
            message.content = eml.readAll();
            saved << message;
        }
    }

    // The logins tried with --auth, one "ok USER" or "bad USER" each.
    QList<QByteArray> logins() const
    {
        QFile file(dir_.filePath(QStringLiteral("logins")));
        if (!file.open(QIODevice::ReadOnly))
            return {};
        QList<QByteArray> lines = file.readAll().split('\n');
        lines.removeAll(QByteArray());
        return lines;
    }

private:
    QTemporaryDir dir_;
    QProcess process_;
    bool ready_ = false;
};

} // namespace postiq::test
