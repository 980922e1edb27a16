#include "platform/locked_file.h"

#include <QFile>

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace postiq {

LockedNewFile::~LockedNewFile() { close(); }

bool LockedNewFile::create(const QString& path, int* number)
{
    close();
    path_ = path;
    // Readable by the group too: in the system relay's drop box a user queues, and the relay reads
    // the file as a member of the folder's group.
    handle_ = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0640);
    if (handle_ < 0) {
        *number = errno;
        return false;
    }
    // A lock of this open file, held until it is closed (or the process ends, even by a kill).
    if (::flock(handle_, LOCK_EX | LOCK_NB) != 0) {
        *number = errno;
        close();
        return false;
    }
    return true;
}

bool LockedNewFile::write(const char* data, qint64 size, int* number)
{
    while (size > 0) {
        const ssize_t written = ::write(handle_, data, size_t(size));
        if (written < 0) {
            if (errno == EINTR)
                continue;
            *number = errno;
            return false;
        }
        data += written;
        size -= written;
    }
    return true;
}

bool LockedNewFile::writeAt(qint64 offset, const QByteArray& bytes, int* number)
{
    if (::pwrite(handle_, bytes.constData(), size_t(bytes.size()), off_t(offset)) != bytes.size()) {
        *number = errno ? errno : EIO;
        return false;
    }
    return true;
}

bool LockedNewFile::sync(int* number)
{
    if (::fdatasync(handle_) != 0) {
        *number = errno;
        return false;
    }
    return true;
}

void LockedNewFile::close()
{
    if (handle_ >= 0)
        ::close(handle_);
    handle_ = -1;
}

bool LockedFileInUse(const QString& path)
{
    const int handle = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    if (handle < 0)
        return false;
    const bool free = ::flock(handle, LOCK_EX | LOCK_NB) == 0;
    ::close(handle);
    return !free;
}

bool IsDiskFull(int number) { return number == ENOSPC || number == EDQUOT; }

} // namespace postiq
