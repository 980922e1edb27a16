#include "platform/standard_error.h"

#include <QFile>
#include <QList>
#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace postiq {

namespace {
constexpr int kCapNetBindService = 10; // its bit in the capability sets of /proc/self/status

// The effective capability set of this process, 0 when it cannot be read.
quint64 effectiveCapabilities()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("CapEff:"))
            return line.mid(7).trimmed().toULongLong(nullptr, 16);
    }
    return 0;
}

// The first port that anyone may bind; 1024 when the setting cannot be read.
int firstUnprivilegedPort()
{
    QFile setting(QStringLiteral("/proc/sys/net/ipv4/ip_unprivileged_port_start"));
    bool ok = false;
    int port = 0;
    if (setting.open(QIODevice::ReadOnly))
        port = setting.readAll().trimmed().toInt(&ok);
    return ok ? port : 1024;
}
} // namespace

bool standard_error::isTerminal() { return ::isatty(STDERR_FILENO) == 1; }

bool standard_error::isJournal()
{
    // "device:inode" of the stream systemd connected; a descriptor inherited from elsewhere (a
    // program started by the service and redirected) does not match and gets no prefixes.
    const QList<QByteArray> parts = qgetenv("JOURNAL_STREAM").split(':');
    struct stat info {};
    if (parts.size() != 2 || ::fstat(STDERR_FILENO, &info) != 0)
        return false;
    bool deviceOk = false, inodeOk = false;
    const quint64 device = parts[0].toULongLong(&deviceOk);
    const quint64 inode = parts[1].toULongLong(&inodeOk);
    return deviceOk && inodeOk && device == quint64(info.st_dev) && inode == quint64(info.st_ino);
}

void standard_error::writeLine(const QByteArray& line)
{
    const QByteArray bytes = line + '\n';
    qsizetype written = 0;
    while (written < bytes.size()) {
        const ssize_t n = ::write(STDERR_FILENO, bytes.constData() + written, size_t(bytes.size() - written));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return; // nobody reads any more: the report is lost, never the relay
        written += n;
    }
}

bool portNeedsMissingPrivilege(quint16 port)
{
    return port != 0 && port < firstUnprivilegedPort()
        && !(effectiveCapabilities() & (quint64(1) << kCapNetBindService));
}

} // namespace postiq
