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

    RealExchanger(const QString& host, quint16 port, const QStringList& options = {})
    {
        process_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        process_.start(python(), QStringList{QStringLiteral(POSTIQ_DELIVERY_TESTS "/exchanger.py"), host,
                                             QString::number(port), dir_.path()}
                                     + options);
        QByteArray said;
        ready_ = spinUntil(
            [&] {
                said += process_.readAllStandardOutput();
                return said.contains("ready") || process_.state() == QProcess::NotRunning;
            },
            10000)
            && said.contains("ready");
    }
    ~RealExchanger()
    {
        process_.closeWriteChannel();
        if (!process_.waitForFinished(3000))
            process_.kill();
        process_.waitForFinished(1000);
    }
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
