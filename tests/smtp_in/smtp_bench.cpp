#include "smtp_bench.h"

#include <QCoreApplication>
#include <QDir>
#include <QTcpServer>
#include <limits>

namespace postiq::test {

quint16 freeListenPort()
{
    // Start somewhere that depends on the process, so that parallel test programs rarely meet.
    const int span = std::numeric_limits<int16_t>::max() - 20000;
    for (int i = 0; i < 200; ++i) {
        const quint16 port = quint16(20000 + (QCoreApplication::applicationPid() * 37 + i * 101) % span);
        QTcpServer probe;
        if (probe.listen(QHostAddress::AnyIPv4, port))
            return port;
    }
    return 0;
}

SmtpBench::SmtpBench()
{
    settings.ConfigLoaded = true;
    QDir(dir.path()).mkdir(QStringLiteral("OutBox"));
}

bool SmtpBench::start()
{
    port = freeListenPort();
    settings.ActiveSettings.ListenPort = static_cast<int16_t>(port);
    service.Demarrer();
    return service.isListening();
}

QList<QByteArray> SmtpBench::mailLogLines() const
{
    QList<QByteArray> lines = readFile(path(QStringLiteral("maillog.txt"))).split('\n');
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    for (QByteArray& line : lines) {
        if (line.endsWith('\r'))
            line.chop(1);
    }
    return lines;
}

QList<QByteArray> SmtpBench::mailLogLines(const QByteArray& part) const
{
    QList<QByteArray> lines = mailLogLines();
    lines.removeIf([&](const QByteArray& line) { return !line.contains(part); });
    return lines;
}

QStringList SmtpBench::outBoxFiles() const
{
    return QDir(path(QStringLiteral("OutBox"))).entryList(QDir::Files, QDir::Name);
}

CMessage SmtpBench::queued(const QString& name)
{
    CMessage message(logs);
    message.MOpen(path(QStringLiteral("OutBox/")) + name);
    return message;
}

} // namespace postiq::test
