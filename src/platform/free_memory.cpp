#include "platform/free_memory.h"

#include <QByteArray>
#include <QFile>

#include <cctype>
#include <cstring>
#include <malloc.h>
#include <sys/mman.h>

namespace postiq {

void ReturnFreeMemory() { ::malloc_trim(0); }

namespace {
// A mapping as /proc/self/smaps shows it: "start-end perms offset device inode path", then its
// figures, one a line.
struct Mapping {
    quintptr start = 0;
    quintptr end = 0;
    QByteArray perms;
    quint64 offset = 0;
    QByteArray path;
    qint64 anonymousKb = -1; // pages the process wrote (copies of its own): never let go
};

bool parseHeader(const QByteArray& line, Mapping* mapping)
{
    const QList<QByteArray> fields = line.simplified().split(' ');
    if (fields.size() < 5)
        return false;
    const QList<QByteArray> range = fields[0].split('-');
    bool ok = range.size() == 2;
    mapping->start = ok ? range[0].toULongLong(&ok, 16) : 0;
    mapping->end = ok ? range[1].toULongLong(&ok, 16) : 0;
    mapping->perms = fields[1];
    mapping->offset = ok ? fields[2].toULongLong(&ok, 16) : 0;
    mapping->path = fields.value(5);
    return ok;
}

// A file's first read-only, private segment holds its ELF headers and the tables the loader reads
// (hash, symbols, strings, versions, relocations); the code comes after it, the constants after
// the code. Only such a head is let go, and only where the process never wrote to it.
bool loaderOnly(const Mapping& mapping)
{
    return mapping.perms == "r--p" && mapping.offset == 0 && mapping.path.startsWith('/')
        && mapping.anonymousKb == 0 && mapping.end > mapping.start
        && std::memcmp(reinterpret_cast<const void*>(mapping.start), "\x7f" "ELF", 4) == 0;
}

void release(const Mapping& mapping)
{
    if (loaderOnly(mapping))
        ::madvise(reinterpret_cast<void*>(mapping.start), mapping.end - mapping.start, MADV_DONTNEED);
}
} // namespace

void ReleaseStartUpPages()
{
    QFile smaps(QStringLiteral("/proc/self/smaps"));
    if (smaps.open(QIODevice::ReadOnly)) {
        // A line at a time into a buffer of its own: the walk itself leaves nothing on the heap.
        char buffer[512];
        Mapping mapping;
        for (qint64 size; (size = smaps.readLine(buffer, sizeof buffer)) > 0;) {
            const QByteArray line = QByteArray::fromRawData(buffer, size);
            if (line.startsWith("Anonymous:")) {
                mapping.anonymousKb = line.mid(10).trimmed().split(' ').value(0).toLongLong();
                continue;
            }
            Mapping next;
            if (std::isxdigit(static_cast<unsigned char>(line[0])) && parseHeader(line, &next)) {
                release(mapping);
                mapping = next;
            }
        }
        release(mapping);
    }
    ::malloc_trim(0);
}

} // namespace postiq
