#include "platform/durable_file.h"

#include <QDir>
#include <QFileInfo>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace postiq {

namespace {
bool fail(QString* error, const QString& what, const QString& path, int number = errno)
{
    *error = QStringLiteral("%1 '%2': %3").arg(what, path, QString::fromLocal8Bit(std::strerror(number)));
    return false;
}
} // namespace

bool SyncFile(QFile& file, QString* error)
{
    if (!file.flush()) {
        *error = QStringLiteral("Cannot write '%1': %2").arg(file.fileName(), file.errorString());
        return false;
    }
    if (::fsync(file.handle()) != 0)
        return fail(error, QStringLiteral("Cannot save to disk"), file.fileName());
    return true;
}

bool SyncFolderOf(const QString& path, QString* error)
{
    const QString folder = QFileInfo(path).absolutePath();
    const int handle = ::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (handle < 0)
        return fail(error, QStringLiteral("Cannot open the folder"), folder);
    // Some file systems cannot sync a folder and say so with EINVAL; their entries are as safe
    // as they will ever be.
    const bool synced = ::fsync(handle) == 0 || errno == EINVAL;
    const int number = errno;
    ::close(handle);
    return synced || fail(error, QStringLiteral("Cannot save to disk the folder"), folder, number);
}

bool ReplaceDurably(const QString& path, const QByteArray& data, QString* error)
{
    // Hidden beside the final name, so that a folder listing never takes a half-written copy
    // (or one left by a crash) for a file of its own.
    const QFileInfo target(path);
    const QString temporary = target.dir().filePath('.' + target.fileName() + QStringLiteral(".new"));
    QFile file(temporary);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        *error = QStringLiteral("Cannot create '%1': %2").arg(temporary, file.errorString());
        return false;
    }
    if (file.write(data) != data.size()) {
        *error = QStringLiteral("Cannot write '%1': %2").arg(temporary, file.errorString());
        file.remove();
        return false;
    }
    if (!SyncFile(file, error)) {
        file.remove();
        return false;
    }
    file.close();
    if (std::rename(QFile::encodeName(temporary).constData(), QFile::encodeName(path).constData()) != 0) {
        fail(error, QStringLiteral("Cannot replace"), path);
        QFile::remove(temporary);
        return false;
    }
    return SyncFolderOf(path, error);
}

} // namespace postiq
