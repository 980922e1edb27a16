#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>
#include <cstring>

namespace postiq::test {

// Under AddressSanitizer every byte costs several times as much, and freed memory is held back on
// purpose: memory sizes say nothing there, and heavy loads are scaled down.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kSanitizerBuild = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr bool kSanitizerBuild = true;
#else
inline constexpr bool kSanitizerBuild = false;
#endif
#else
inline constexpr bool kSanitizerBuild = false;
#endif

// A memory figure of a process from /proc, in bytes: "VmRSS" now, "VmHWM" its peak so far; -1
// when it cannot be read.
inline qint64 MemoryOf(qint64 pid, const char* field)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith(QByteArray(field) + ':'))
            return line.mid(qsizetype(std::strlen(field)) + 1).trimmed().split(' ').value(0).toLongLong() * 1024;
    return -1;
}

} // namespace postiq::test
