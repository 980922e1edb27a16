#include "store/queue_folder.h"

#include <QDir>
#include <QFileInfo>
#include <QStringList>

namespace postiq {

QString QueueFolder(const QString& programFolder, const QString& name)
{
    QDir program(programFolder);
    // An exact match wins, so that two folders differing only in case resolve predictably.
    if (QFileInfo(program.filePath(name)).isDir())
        return program.filePath(name);
    const QStringList folders = program.entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden,
                                                  QDir::Name);
    for (const QString& folder : folders) {
        if (folder.compare(name, Qt::CaseInsensitive) == 0)
            return program.filePath(folder);
    }
    return program.filePath(name);
}

} // namespace postiq
