#include "store/queue_files.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include "log/fault.h"
#include "platform/durable_file.h"

namespace postiq {

void CopyQueueFileDurably(const QString& from, const QString& to)
{
    QFile source(from);
    if (!source.open(QIODevice::ReadOnly))
        throw Fault(QFileInfo::exists(from) ? ErrFileAccess : ErrFileNotFound,
                    QStringLiteral("Cannot open '%1': %2").arg(from, source.errorString()));
    const QByteArray bytes = source.readAll();
    if (source.error() != QFileDevice::NoError)
        throw Fault(ErrFileAccess, QStringLiteral("Cannot read '%1': %2").arg(from, source.errorString()));
    QString error;
    if (!ReplaceDurably(to, bytes, &error))
        throw Fault(ErrAccessDenied, error);
}

void RemoveQueueFile(const QString& path)
{
    const QFileInfo file(path);
    if (file.exists()) {
        QFile entry(path);
        if (!entry.remove())
            throw Fault(ErrAccessDenied,
                        QStringLiteral("Cannot delete '%1': %2").arg(path, entry.errorString()));
    }
    // Synced even when the file was already gone: an earlier removal may not have reached the
    // disk yet. Without its folder there is nothing to make durable.
    if (!file.dir().exists())
        return;
    QString error;
    if (!SyncFolderOf(path, &error))
        throw Fault(ErrFileAccess, error);
}

} // namespace postiq
