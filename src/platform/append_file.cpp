#include "platform/append_file.h"

#include <QFile>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace postiq {

AppendFile::AppendFile(QString path) : path_(std::move(path)) {}

AppendFile::~AppendFile() { close(); }

void AppendFile::close()
{
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
}

void AppendFile::reopen() { close(); }

bool AppendFile::open()
{
    const QByteArray name = QFile::encodeName(path_);
    do {
        fd_ = ::open(name.constData(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    } while (fd_ < 0 && errno == EINTR);
    if (fd_ < 0)
        return false;
    struct stat info {};
    if (::fstat(fd_, &info) == 0) {
        device_ = info.st_dev;
        inode_ = info.st_ino;
    }
    nextRotationCheck_ = std::chrono::steady_clock::now() + kRotationCheck;
    return true;
}

// The path no longer names the open file: it was renamed, deleted or replaced.
bool AppendFile::movedAway() const
{
    struct stat info {};
    if (::stat(QFile::encodeName(path_).constData(), &info) != 0)
        return true;
    return info.st_dev != device_ || info.st_ino != inode_;
}

bool AppendFile::append(const QByteArray& bytes)
{
    if (fd_ >= 0 && std::chrono::steady_clock::now() >= nextRotationCheck_) {
        nextRotationCheck_ = std::chrono::steady_clock::now() + kRotationCheck;
        if (movedAway())
            close();
    }
    if (fd_ < 0 && !open())
        return false;
    const char* next = bytes.constData();
    size_t left = size_t(bytes.size());
    while (left > 0) {
        // An ordinary file takes the whole line at once; only a disk that fills up midway or a
        // signal gives a short count, and then the rest follows so that the line is not cut.
        const ssize_t written = ::write(fd_, next, left);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0) {
            close();
            return false;
        }
        next += written;
        left -= size_t(written);
    }
    return true;
}

} // namespace postiq
