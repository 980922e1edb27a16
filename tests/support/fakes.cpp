#include "support/fakes.h"

#include <QFile>

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

void writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(bytes);
}

} // namespace postiq::test
