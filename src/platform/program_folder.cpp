#include "platform/program_folder.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>
#include <QTemporaryFile>

namespace postiq {

QString defaultProgramFolder() { return QCoreApplication::applicationDirPath(); }

QString executableFolder() { return QFileInfo(QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath()).absolutePath(); }

bool prepareProgramFolder(const QString& dir, QString* error)
{
    auto failWith = [error](const QString& message) {
        if (error)
            *error = message;
        return false;
    };
    if (dir.isEmpty())
        return failWith(QStringLiteral("no folder given"));
    const QFileInfo info(dir);
    if (info.exists() && !info.isDir())
        return failWith(QStringLiteral("'%1' is not a folder").arg(dir));
    if (!info.exists() && !QDir().mkpath(dir))
        return failWith(QStringLiteral("cannot create the folder '%1'").arg(dir));
    // Permission bits do not tell the whole story (read-only mounts, ACLs): try it.
    QTemporaryFile probe(QDir(dir).filePath(QStringLiteral(".postiq-write-test-XXXXXX")));
    if (!probe.open())
        return failWith(QStringLiteral("the folder '%1' is not writable").arg(dir));
    return true;
}

QString SubfolderPath(const QString& programFolder, const QString& name)
{
    const QDir program(programFolder);
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

QStringList LanguageFolders(const QString& programFolder)
{
    QStringList folders{SubfolderPath(programFolder, QStringLiteral("language"))};
    // Beside the executable: a build run on another folder (build/language).
    folders += SubfolderPath(executableFolder(), QStringLiteral("language"));
    folders += QStandardPaths::locateAll(QStandardPaths::GenericDataLocation, QStringLiteral("postiq/language"),
                                         QStandardPaths::LocateDirectory);
    folders.removeDuplicates();
    return folders;
}

} // namespace postiq
