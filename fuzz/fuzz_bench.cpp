#include "fuzz_bench.h"

#include <QDir>
#include <QFile>

namespace postiq::fuzz {

void FuzzBench::put(const QString& name, const QByteArray& bytes) const
{
    QFile file(path(name));
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(bytes);
}

void FuzzBench::trimLogs(int every)
{
    if (++runs_ % every != 0)
        return;
    for (const char* name : {"maillog.txt", "error.txt", "Debug.html", "update.txt"})
        QFile::remove(path(QString::fromLatin1(name)));
}

FuzzBench& Bench()
{
    static FuzzBench bench;
    return bench;
}

} // namespace postiq::fuzz
