#pragma once

#include <QProcess>
#include <QStandardPaths>
#include <QStringList>

#include "support/fakes.h"
#include "support/mail_client.h"

namespace postiq::test {

// A real DNS server, dnsmasq, on a free loopback port of its own, serving only the records it is
// given (no upstream server, no /etc/hosts), stopped with the test.
class Dnsmasq {
public:
    static QString program()
    {
        return QStandardPaths::findExecutable(QStringLiteral("dnsmasq"), {"/usr/sbin", "/usr/bin", "/sbin"});
    }
    static bool installed() { return !program().isEmpty(); }

    explicit Dnsmasq(const QStringList& records)
    {
        // Another program may take the port between the look and the start: try a few.
        for (int attempt = 0; attempt < 5 && !started_; ++attempt) {
            port_ = freeListenPort();
            process_.setProcessChannelMode(QProcess::MergedChannels);
            process_.start(program(), QStringList{"--no-daemon", "--conf-file=/dev/null", "--port=" + QString::number(port_),
                                                "--listen-address=127.0.0.1", "--bind-interfaces", "--no-resolv",
                                                "--no-hosts", "--pid-file="}
                                        + records);
            QByteArray output;
            spinUntil([&] {
                output += process_.readAll();
                return output.contains("started") || process_.state() == QProcess::NotRunning;
            });
            started_ = output.contains("started") && process_.state() == QProcess::Running;
            if (!started_) {
                log_ += output;
                stop();
            }
        }
    }
    ~Dnsmasq() { stop(); }

    bool started() const { return started_; }
    QByteArray log() const { return log_; }
    QString server() const { return "127.0.0.1:" + QString::number(port_); }

private:
    void stop()
    {
        if (process_.state() != QProcess::NotRunning) {
            process_.kill();
            process_.waitForFinished(5000);
        }
    }

    QProcess process_;
    quint16 port_ = 0;
    bool started_ = false;
    QByteArray log_;
};

} // namespace postiq::test
