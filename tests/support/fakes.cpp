#include "support/fakes.h"

#include <QFile>
#include <QRandomGenerator>
#include <QTcpServer>

namespace postiq::test {

QByteArray readFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

QList<QByteArray> logLines(const QString& path, const QByteArray& part)
{
    QList<QByteArray> lines;
    for (const QByteArray& line : readFile(path).split('\n'))
        if (line.endsWith('\r') && line.contains(part))
            lines << line.chopped(1);
    return lines;
}

quint16 freeListenPort()
{
    for (int tries = 0; tries < 1000; ++tries) {
        const auto port = quint16(QRandomGenerator::global()->bounded(20000, 32000));
        QTcpServer probe;
        if (probe.listen(QHostAddress::AnyIPv4, port))
            return port;
    }
    return 0;
}

void writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(bytes);
}

} // namespace postiq::test
