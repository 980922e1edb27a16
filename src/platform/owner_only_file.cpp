#include "platform/owner_only_file.h"

#include <QFile>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace postiq {

namespace {
// Closes the descriptor whatever path the reading takes.
struct Descriptor {
    int fd;
    ~Descriptor()
    {
        if (fd >= 0)
            ::close(fd);
    }
};
} // namespace

OwnerOnlyFile ReadOwnerOnlyFile(const QString& path)
{
    OwnerOnlyFile file;
    const Descriptor d{::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK)};
    if (d.fd < 0) {
        file.problem = errno == ENOENT ? OwnerOnlyFile::Missing
                       : errno == ELOOP ? OwnerOnlyFile::NotAFile
                                        : OwnerOnlyFile::Unreadable;
        return file;
    }
    struct stat info {};
    if (::fstat(d.fd, &info) != 0) {
        file.problem = OwnerOnlyFile::Unreadable;
        return file;
    }
    file.mode = info.st_mode & 07777;
    if (!S_ISREG(info.st_mode))
        file.problem = OwnerOnlyFile::NotAFile;
    else if (info.st_uid != ::geteuid())
        file.problem = OwnerOnlyFile::OtherOwner;
    else if ((info.st_mode & (S_IRWXG | S_IRWXO)) != 0)
        file.problem = OwnerOnlyFile::TooOpen;
    else
        file.problem = OwnerOnlyFile::None;
    if (file.problem != OwnerOnlyFile::None)
        return file;

    char buffer[4096];
    for (;;) {
        const ssize_t got = ::read(d.fd, buffer, sizeof buffer);
        if (got == 0)
            break;
        if (got < 0) {
            if (errno == EINTR)
                continue;
            file.content.clear();
            file.problem = OwnerOnlyFile::Unreadable;
            return file;
        }
        file.content.append(buffer, got);
    }
    return file;
}

bool WriteOwnerOnlyFile(const QString& path, const QByteArray& content)
{
    const Descriptor d{::open(QFile::encodeName(path).constData(),
                              O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600)};
    if (d.fd < 0 || ::fchmod(d.fd, 0600) != 0)
        return false;
    for (qsizetype written = 0; written < content.size();) {
        const ssize_t put = ::write(d.fd, content.constData() + written, size_t(content.size() - written));
        if (put < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        written += put;
    }
    return ::fsync(d.fd) == 0;
}

} // namespace postiq
