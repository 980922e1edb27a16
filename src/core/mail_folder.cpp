#include "core/mail_folder.h"

#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

#include "store/queue.h"

namespace postiq {

QString MailFolder(const QString& option)
{
    if (!option.isEmpty())
        return QDir(option).absolutePath();
    if (const QString chosen = qEnvironmentVariable("POSTIQ_FOLDER"); !chosen.isEmpty())
        return QDir(chosen).absolutePath();
    const QFileInfo systemOutBox(Queue(QString::fromLatin1(kSystemMailFolder)).folderPath(QueueFolder::OutBox));
    if (systemOutBox.isDir() && systemOutBox.isWritable())
        return QString::fromLatin1(kSystemMailFolder);
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + QStringLiteral("/postiq");
}

} // namespace postiq
