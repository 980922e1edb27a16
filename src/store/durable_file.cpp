#include "store/durable_file.h"

#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "log/fault.h"

namespace postiq {

void SyncFile(QFile& file)
{
    if (!file.flush())
        throw Fault(ErrFileAccess, QStringLiteral("Cannot write '%1': %2")
                                       .arg(file.fileName(), file.errorString()));
    if (::fsync(file.handle()) != 0)
        throw Fault(ErrFileAccess, QStringLiteral("Cannot save '%1' to disk: %2")
                                       .arg(file.fileName(), QString::fromLocal8Bit(std::strerror(errno))));
}

void SyncFolderOf(const QString& path)
{
    const QString folder = QFileInfo(path).absolutePath();
    const int handle = ::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (handle < 0)
        throw Fault(ErrFileAccess, QStringLiteral("Cannot open the folder '%1': %2")
                                       .arg(folder, QString::fromLocal8Bit(std::strerror(errno))));
    // Some file systems cannot sync a folder and say so with EINVAL; their entries are as safe
    // as they will ever be.
    const bool synced = ::fsync(handle) == 0 || errno == EINVAL;
    const int error = errno;
    ::close(handle);
    if (!synced)
        throw Fault(ErrFileAccess, QStringLiteral("Cannot save the folder '%1' to disk: %2")
                                       .arg(folder, QString::fromLocal8Bit(std::strerror(error))));
}

} // namespace postiq
